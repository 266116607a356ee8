// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/driver_calls.h"

#include <algorithm>
#include <type_traits>

#include "core/drives.h"
#include "core/engine.h"
#include "core/named_systems.h"
#include "fs/dispatch.h"

namespace brenlow {
namespace {

/// Where the superblock of a file system lies in `buffer`; empty when that ends before it.
std::span<const std::uint8_t> SuperblockIn(TFileSystem system, std::span<const std::uint8_t> buffer,
                                           bool addSuperblockOffset, int bytesPerSector) {
  const int offset = SuperblockAt(system);
  const auto at = static_cast<std::size_t>(addSuperblockOffset ? offset : offset % std::max(bytesPerSector, 1));
  return at < buffer.size() ? buffer.subspan(at) : std::span<const std::uint8_t>();
}

/// The sector of the superblock of a volume that begins in `FirstSector`.
std::int64_t SuperblockSector(const TDriveInfo& volume, bool addSuperblockOffset) {
  const int offset = addSuperblockOffset ? SuperblockAt(volume.FileSystem) : 0;
  return volume.FirstSector + offset / std::max(volume.BytesPerSector, 1);
}

}  // namespace

// ---- recognition ----------------------------------------------------------------------------

bool TDriverCalls::HasDriver(TFileSystem system) const {
  const TFamily* family = FamilyOf(system);
  return family != nullptr && ServedFamilies().Has(family->Bit);
}

namespace {

/// Asks the driver's test at each place where a member of its family has its superblock.
template <typename TDriver>
TFileSystem AskDriver(TDriver& driver, std::span<const std::uint8_t> buffer, std::size_t start,
                      bool addSuperblockOffset, int bytesPerSector) {
  constexpr TFamily family = FamilyOf(TDriver::Family);
  int asked = -1;
  for (const TFamilyMember& member : family.Members) {
    if (member.SuperblockAt == asked) continue;
    asked = member.SuperblockAt;
    const int offset = asked == 0 || addSuperblockOffset ? asked : asked % bytesPerSector;
    const std::size_t at = start + static_cast<std::size_t>(offset);
    if (driver.IsPartition(buffer, at)) return driver::GetFileSystem(driver, buffer, at);
  }
  return TFileSystem::fsUnknown;
}

/// Asks the drivers whose turn it is, until one knows the volume.
template <TRecognition Stage>
TFileSystem AskDrivers(TEngine& engine, std::span<const std::uint8_t> buffer, std::size_t start,
                       bool addSuperblockOffset, int bytesPerSector) {
  TFileSystem found = TFileSystem::fsUnknown;
  ForEachDriver(engine, [&](auto& driver) {
    if constexpr (FamilyOf(std::remove_reference_t<decltype(driver)>::Family).Recognition == Stage) {
      if (found == TFileSystem::fsUnknown)
        found = AskDriver(driver, buffer, start, addSuperblockOffset, bytesPerSector);
    }
  });
  return found;
}

}  // namespace

TFileSystem TDriverCalls::Recognise(std::span<const std::uint8_t> buffer, std::size_t start, bool addSuperblockOffset,
                                    int bytesPerSector) {
  constexpr TFileSystem unknown = TFileSystem::fsUnknown;
  // What has a driver is the driver's to test.
  const auto withoutDriver = [&](TFileSystem named) { return HasDriver(named) ? unknown : named; };
  const auto ask = [&]<TRecognition Stage>() {
    return AskDrivers<Stage>(FEngine, buffer, start, addSuperblockOffset, bytesPerSector);
  };
  const bool canBeNamed = addSuperblockOffset && start < buffer.size();
  TFileSystem found = canBeNamed ? withoutDriver(NameByFirstSector(buffer.subspan(start))) : unknown;
  if (found == unknown) found = ask.template operator()<TRecognition::FirstSector>();
  if (found == unknown) found = ask.template operator()<TRecognition::BootSector>();
  if (found == unknown) found = ask.template operator()<TRecognition::WeakBootSector>();
  if (found == unknown && canBeNamed) found = withoutDriver(NameBySuperblock(buffer.subspan(start)));
  return found == unknown ? ask.template operator()<TRecognition::Superblock>() : found;
}

TCopyFound TDriverCalls::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head,
                                         int bytesPerSector, TFileSystem known) {
  const TFamily* knownFamily = FamilyOf(known);
  TCopyFound found;
  ForEachDriver(FEngine, [&](auto& driver) {
    const bool isKnown =
        knownFamily != nullptr && std::remove_reference_t<decltype(driver)>::Family == knownFamily->Bit;
    if (isKnown || found.System != TFileSystem::fsUnknown) return;
    found = driver::RecogniseByCopy(driver, drive, head, bytesPerSector);
  });
  return found;
}

bool TDriverCalls::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> buffer, bool addSuperblockOffset) {
  const auto superblock = SuperblockIn(volume.FileSystem, buffer, addSuperblockOffset, volume.BytesPerSector);
  volume.FirstSector = SuperblockSector(volume, addSuperblockOffset);
  return WithDriver(
      FEngine, volume.FileSystem, [&](auto& driver) { return driver::SetVolumeBounds(driver, volume, superblock); },
      false);
}

bool TDriverCalls::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> buffer,
                                 bool addSuperblockOffset) {
  const auto superblock = SuperblockIn(volume.FileSystem, buffer, addSuperblockOffset, volume.BytesPerSector);
  return WithDriver(
      FEngine, volume.FileSystem, [&](auto& driver) { return driver::IsVolumeSound(driver, volume, superblock); },
      false);
}

bool TDriverCalls::HoldsFolders(const TDriveInfo& volume) {
  return WithDriver(
      FEngine, volume.FileSystem, [&](auto& driver) { return driver::HoldsFolders(driver, volume); }, false);
}

bool TDriverCalls::IsCopyOf(const TDriveInfo& volume, const TDriveInfo& known) {
  return WithDriver(
      FEngine, volume.FileSystem, [&](auto& driver) { return driver::IsCopyOf(driver, volume, known); }, false);
}

// ---- facts ----------------------------------------------------------------------------------

bool TDriverCalls::GetDriveInfo(TDriveInfo& drive, bool fillTable) {
  return WithDriver(
      FEngine, drive.FileSystem, [&](auto& driver) { return driver.GetDriveInfo(drive, fillTable); }, false);
}

std::int64_t TDriverCalls::AllocationUnit(const TDriveInfo& drive) {
  return WithDriver(
      FEngine, drive.FileSystem, [&](auto& driver) { return driver::AllocationUnit(driver, drive); }, std::int64_t{0});
}

std::vector<TDriveProperty> TDriverCalls::Properties(const TDriveInfo& drive) {
  return WithDriver(
      FEngine, drive.FileSystem, [&](auto& driver) { return driver::Properties(driver, drive); },
      std::vector<TDriveProperty>());
}

// ---- partition search -----------------------------------------------------------------------

bool TDriverCalls::HasWaitingFiles(const TDriveInfo& drive) {
  return WithDriver(
      FEngine, drive.FileSystem, [&](auto& driver) { return driver::HasWaitingFiles(driver, drive); }, false);
}

std::vector<TFileSystem> TDriverCalls::PartRecCandidates(const TDriveInfo& mainDrive) {
  std::vector<TFileSystem> candidates;
  ForEachDriver(FEngine, [&](auto& driver) {
    if (!FEngine.PartRecSystems.Has(std::remove_reference_t<decltype(driver)>::Family)) return;
    const TFileSystem system = driver::PartRecCandidate(driver, mainDrive);
    if (system != TFileSystem::fsUnknown) candidates.push_back(system);
  });
  return candidates;
}

void TDriverCalls::PartRecSubdriveAdded(TDriveInfo& drive) {
  Tell(drive.FileSystem, [&](auto& driver) { driver::PartRecSubdriveAdded(driver, drive); });
}

void TDriverCalls::PartRecVolumeKnown(TDriveInfo& drive, bool isGap) {
  Tell(drive.FileSystem, [&](auto& driver) { driver::PartRecVolumeKnown(driver, drive, isGap); });
}

bool TDriverCalls::PartRecIsAnalysed(const TDriveInfo& drive) {
  return WithDriver(
      FEngine, drive.FileSystem, [&](auto& driver) { return driver::PartRecIsAnalysed(driver, drive); }, false);
}

bool TDriverCalls::PartRecCanBeTruncated(const TDriveInfo& drive) {
  return WithDriver(
      FEngine, drive.FileSystem, [&](auto& driver) { return driver::PartRecCanBeTruncated(driver, drive); }, false);
}

bool TDriverCalls::PartRecAccepts(const TDriveInfo& volume, std::span<const std::uint8_t> buffer) {
  const auto superblock = SuperblockIn(volume.FileSystem, buffer, false, volume.BytesPerSector);
  return WithDriver(
      FEngine, volume.FileSystem, [&](auto& driver) { return driver::PartRecAccepts(driver, volume, superblock); },
      false);
}

void TDriverCalls::PartRecDriveAdded(int driveNumber) {
  Tell(SystemOf(driveNumber), [&](auto& driver) { driver::PartRecDriveAdded(driver, driveNumber); });
}

void TDriverCalls::PartRecDriveAnalysed(int driveNumber) {
  Tell(SystemOf(driveNumber), [&](auto& driver) { driver::PartRecDriveAnalysed(driver, driveNumber); });
}

template <typename TCallable>
void TDriverCalls::Tell(TFileSystem system, TCallable&& callable) {
  const auto call = [&](auto& driver) {
    callable(driver);
    return true;
  };
  WithDriver(FEngine, system, call, false);
}

TFileSystem TDriverCalls::SystemOf(int driveNumber) const {
  return FEngine.Drives().List[static_cast<std::size_t>(driveNumber)].FileSystem;
}

}  // namespace brenlow

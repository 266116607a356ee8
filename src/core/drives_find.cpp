// SPDX-License-Identifier: GPL-3.0-or-later
// The quick search for lost partitions: boot sectors only.
#include <algorithm>
#include <memory>

#include "core/driver_calls.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/families.h"
#include "core/partitions.h"
#include "core/sector_reader.h"

namespace brenlow {
namespace {

constexpr int SuperblockSectors = 136;     // up to the superblock at 64 KiB, with its sector
constexpr std::int64_t ChainBlock = 256;   // sectors
constexpr std::int64_t ChainReach = 256;   // blocks without a find that end the chain
constexpr std::int64_t LinearBlock = 128;  // sectors
constexpr int MostFound = 1024;            // no disk has more; a source of nothing but boot sectors ends here

bool Overlaps(const TDriveInfo& a, const TDriveInfo& b) {
  return a.FirstSector < b.FirstSector + b.SectorsCount && b.FirstSector < a.FirstSector + a.SectorsCount;
}

}  // namespace

void TDrives::Find(int number, std::int64_t firstSector, std::int64_t sectorsCount, const TFileSystems& systems) {
  if (IsWrongNumber(number) || sectorsCount == 0) return;
  // Cleared also where a callback throws.
  const std::unique_ptr<std::atomic<bool>, void (*)(std::atomic<bool>*)> searching(
      &CanSearch, [](std::atomic<bool>* flag) { *flag = false; });
  CanSearch = true;
  FoundCount = 0;
  const TFindRange range{number, firstSector, sectorsCount, systems};
  FindInTable(range);
  if (CanSearch) FindInChain(range);
  if (CanSearch) FindInAllSectors(range);
  if (OnFindProgressChanged) OnFindProgressChanged(0);
}

/// What the partition table shows.
void TDrives::FindInTable(const TFindRange& range) {
  const std::int64_t sectorSize = GetBytesPerSector(range.Drive);
  TByteDynArray buffer(static_cast<std::size_t>(SuperblockSectors * sectorSize));
  for (const TVolume& entry : FEngine.Partitions().GetVolumes(List[static_cast<std::size_t>(range.Drive)])) {
    const auto start = static_cast<std::int64_t>(entry.StartingSector);
    const auto count = static_cast<std::int64_t>(entry.SectorCount);
    if (start < range.First || count < 0 || start > range.First + range.Count - count) continue;
    const TDriveInfo& drive = List[static_cast<std::size_t>(range.Drive)];
    FEngine.Reader().ReadOrZero(drive, buffer, drive.FirstSector + start, TReadEffort::Scan);
    AddFoundPartition(range, buffer, start, true);
    FEngine.Pump();
    if (!CanSearch) return;
  }
}

/// From one volume's end to the next, as long as they follow each other.
void TDrives::FindInChain(const TFindRange& range) {
  const auto sectorSize = static_cast<std::size_t>(GetBytesPerSector(range.Drive));
  TByteDynArray buffer(static_cast<std::size_t>(ChainBlock) * sectorSize);
  std::int64_t position = range.First;
  for (std::int64_t block = 0; block < ChainReach; ++block) {
    const TDriveInfo& drive = List[static_cast<std::size_t>(range.Drive)];
    const std::int64_t first = position + block * ChainBlock;
    const std::int64_t count = std::min(ChainBlock, range.First + range.Count - first);
    if (count <= 0) return;
    const auto bytes = std::span(buffer).first(static_cast<std::size_t>(count) * sectorSize);
    if (FEngine.Reader().ReadDriveSectors(drive, bytes.data(), drive.FirstSector + first, count) == 0) return;
    for (std::int64_t i = 0; i < count; ++i) {
      const int found =
          AddFoundPartition(range, bytes.subspan(static_cast<std::size_t>(i) * sectorSize), first + i, false);
      FEngine.Pump();
      if (!CanSearch) return;
      if (found < 0) continue;
      const TDriveInfo& volume = List[static_cast<std::size_t>(found)];
      const std::int64_t end =
          volume.FirstSector + volume.SectorsCount - List[static_cast<std::size_t>(range.Drive)].FirstSector;
      if (end <= first + i) continue;
      position = end;
      block = -1;
      break;
    }
  }
}

/// Every sector. Holes of a sparse image are empty and are skipped.
void TDrives::FindInAllSectors(const TFindRange& range) {
  const auto sectorSize = static_cast<std::size_t>(GetBytesPerSector(range.Drive));
  const std::int64_t step = IsFloppy(List[static_cast<std::size_t>(range.Drive)]) ? 1 : LinearBlock;
  TByteDynArray buffer(static_cast<std::size_t>(step) * sectorSize);
  for (std::int64_t done = 0; done < range.Count; done += step) {
    const TDriveInfo& drive = List[static_cast<std::size_t>(range.Drive)];
    const std::int64_t data = FEngine.Reader().NextDataSector(drive, drive.FirstSector + range.First + done) -
                              drive.FirstSector - range.First;
    if (data >= done + step) done = std::min(data, range.Count) / step * step;
    if (done >= range.Count) break;
    const std::int64_t count = std::min(step, range.Count - done);
    const auto bytes = std::span(buffer).first(static_cast<std::size_t>(count) * sectorSize);
    FEngine.Reader().ReadOrZero(drive, bytes, drive.FirstSector + range.First + done, TReadEffort::Scan);
    for (std::int64_t i = 0; i < count; ++i) {
      AddFoundPartition(range, bytes.subspan(static_cast<std::size_t>(i) * sectorSize), range.First + done + i, false);
      FEngine.Pump();
      if (!CanSearch) return;
    }
    if (OnFindProgressChanged) OnFindProgressChanged(static_cast<double>(done) / static_cast<double>(range.Count));
  }
}

/// Tests one sector, or with `addSuperblockOffset` the start of a volume. The result is the drive
/// that is found or known there, -1 for none.
int TDrives::AddFoundPartition(const TFindRange& range, std::span<const std::uint8_t> buffer, std::int64_t sector,
                               bool addSuperblockOffset) {
  TFileSystem system = TFileSystem::fsUnknown;
  const int sectorSize = GetBytesPerSector(range.Drive);
  if (!IsPartition(buffer, 0, addSuperblockOffset, system, sectorSize)) return -1;
  if (!range.Systems.Empty() && !range.Systems.Has(system)) return -1;

  const TDriveInfo& parent = List[static_cast<std::size_t>(range.Drive)];
  TDriveInfo volume = PartOf(parent);
  volume.DriveTypes.Add(TDriveType::dtFound);
  volume.FileSystem = system;
  volume.FirstSector = parent.FirstSector + sector;
  if (!FEngine.Drivers().SetVolumeBounds(volume, buffer, addSuperblockOffset)) return -1;
  const std::int64_t end = parent.FirstSector + parent.SectorsCount;
  const bool inside = volume.FirstSector >= parent.FirstSector && volume.FirstSector <= end - volume.SectorsCount;
  if (!inside || volume.SectorsCount <= LargestNoVolume / sectorSize) return -1;

  int known = -1;
  switch (IsNewFoundPartition(volume, buffer, addSuperblockOffset, known)) {
    case TFoundState::Refused:
      return -1;
    case TFoundState::Known:
      if (OnFound) OnFound(known);
      return known;
    case TFoundState::New:
      break;
  }
  if (FoundCount >= MostFound || !GetInfo(volume, false, true, false)) return -1;
  volume.ReceivedType = TReceivedType::rtAutodetected;
  volume.CaptionKind = TCaptionKind::TableVolume;
  volume.IsSubDrive = true;
  const std::int64_t before = addSuperblockOffset ? 0 : SuperblockAt(system) / sectorSize;
  if (volume.FirstSector != parent.FirstSector + sector - before) volume.GeometrySource = TPlaceSource::FromCopy;
  SetDefaultInfo(volume);
  const int added = Add(volume, true);
  List[static_cast<std::size_t>(range.Drive)].SubDrives.push_back(added);
  ++FoundCount;
  if (OnFound) OnFound(added);
  return added;
}

TDrives::TFoundState TDrives::IsNewFoundPartition(const TDriveInfo& volume, std::span<const std::uint8_t> buffer,
                                                  bool addSuperblockOffset, int& known) {
  bool clashes = false;
  for (int i = 0; i < static_cast<int>(List.size()); ++i) {
    const TDriveInfo& other = List[static_cast<std::size_t>(i)];
    if (other.Drive != volume.Drive || other.FileSystem == TFileSystem::fsUnknown) continue;
    if (other.FirstSector == volume.FirstSector) {
      known = i;
      return TFoundState::Known;
    }
    if (FEngine.Drivers().IsCopyOf(volume, other)) return TFoundState::Refused;
    // The copy of a boot sector, at the end of a known NTFS volume, has led back to that volume's start:
    // what begins there in its own right is a volume.
    clashes = clashes || Overlaps(volume, other);
  }
  // Two volumes in one place: the later one must show more than its boot sector.
  const bool refused = clashes && !FEngine.Drivers().IsVolumeSound(volume, buffer, addSuperblockOffset);
  return refused ? TFoundState::Refused : TFoundState::New;
}

}  // namespace brenlow

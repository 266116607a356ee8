// SPDX-License-Identifier: GPL-3.0-or-later
// Puts the engine together; the only unit that knows all of its parts.
#include "core/engine.h"

#include "analysis/deep/all_fs.h"
#include "analysis/folders.h"
#include "core/datetime.h"
#include "core/device/device.h"
#include "core/drives.h"
#include "core/extent_reader.h"
#include "core/language.h"
#include "core/named_systems.h"
#include "core/partitions.h"
#include "core/sector_reader.h"
#include "fs/dispatch.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"
#include "fs/ntfs/ntfs.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow {
namespace {

constexpr std::int64_t PumpInterval = 30;  // milliseconds between two events

}  // namespace

TEngine::TEngine()
    : FLanguage(std::make_unique<TLanguage>(TLanguage::English())),
      FDevices(std::make_unique<TDeviceTable>()),
      FReader(std::make_unique<TSectorReader>(*this)),
      FContent(std::make_unique<TExtentReader>(*this)),
      FPartitions(std::make_unique<TPartitionsInfo>(*this)),
      FDrives(std::make_unique<TDrives>(*this)),
      FSignatures(std::make_unique<TFileSignatures>()),
      FFiles(std::make_unique<TFiles>(*this)),
      FFolders(std::make_unique<TFolders>(*this)),
      FAllFS(std::make_unique<TAllFS>(*this)),
      FFAT(std::make_unique<TFAT>(*this)),
      FNTFS(std::make_unique<TNTFS>(*this)) {}

TEngine::~TEngine() = default;

void TEngine::StopScans() {
  Analysing = false;
  FDrives->CanSearch = false;
  FDrives->CanSave = false;
}

void TEngine::ChangeAnalysingStatus(int driveNumber, bool status) {
  Analysing = status;
  FContent->Forget();
  if (status) {
    FFiles->FoundCount = 0;
    FFolders->FoundCount = 0;
  }
  if (OnChangeAnalysingStatus) OnChangeAnalysingStatus(driveNumber, status);
}

void TEngine::AnalyseProgress(double position) {
  if (OnAnalyseProgress) OnAnalyseProgress(position * AnalyseProgressScale + AnalyseProgressBase);
}

void TEngine::ShowMessage(TText text) {
  if (OnMessage) OnMessage({text, (*FLanguage)[text]});
}

void TEngine::ShowNoDriver(const TDriveInfo& drive) {
  const TString system(TDrives::GetSystemNameBySystem(drive.FileSystem));
  if (OnMessage)
    OnMessage({TText::SystemWithoutDriver, FLanguage->Format(TText::SystemWithoutDriver, {drive.Caption, system})});
}

void TEngine::ChangeLanguage(TLanguage language) {
  *FLanguage = std::move(language);
  FDrives->UpdateLanguage();
  FFiles->UpdateLanguage();
  FFolders->UpdateLanguage();
}

TFileSystem TEngine::RecogniseFileSystem(std::span<const std::uint8_t> buffer, std::size_t start,
                                         bool addSuperblockOffset, [[maybe_unused]] int bytesPerSector) {
  const bool canBeNamed = addSuperblockOffset && start < buffer.size();
  if (canBeNamed) {
    const TFileSystem named = NameByFirstSector(buffer.subspan(start));
    if (named != TFileSystem::fsUnknown) return named;
  }
  if (FNTFS->IsPartition(buffer, start)) return TFileSystem::fsNTFS;
  if (FFAT->IsPartition(buffer, start)) return FFAT->GetFileSystem(buffer, start);
  return canBeNamed ? NameBySuperblock(buffer.subspan(start)) : TFileSystem::fsUnknown;
}

TCopyFound TEngine::RecogniseByCopy(const TDriveInfo& drive, std::span<const std::uint8_t> head, int bytesPerSector,
                                    TFileSystem known) {
  if (!IsFAT(known) && FFAT->IsBackupBootSector(head, bytesPerSector)) {
    const auto copy = head.subspan(static_cast<std::size_t>(fat::BackupBootSector * bytesPerSector));
    return {TFileSystem::fsFAT32, FFAT->IsVolumeSound(drive, copy)};
  }
  if (known != TFileSystem::fsNTFS && FNTFS->IsBackupAtEnd(drive)) {
    TByteDynArray copy(static_cast<std::size_t>(bytesPerSector));
    FReader->ReadDriveSectors(drive, copy.data(), drive.FirstSector + drive.SectorsCount - 1, 1);
    return {TFileSystem::fsNTFS, FNTFS->IsVolumeSound(drive, copy)};
  }
  return {known == TFileSystem::fsUnknown ? NameByCopy(head, bytesPerSector) : TFileSystem::fsUnknown, false};
}

bool TEngine::HasDriver(TFileSystem system) {
  return WithDriver(
      *this, system, [](auto&) { return true; }, false);
}

bool TEngine::HoldsFolders(const TDriveInfo& volume) {
  if (volume.FileSystem == TFileSystem::fsNTFS) return NTFSInfo(volume).MFTRecordCount > 0;
  return IsFAT(volume.FileSystem) && FFAT->HasSoundRoot(volume);
}

bool TEngine::GetDriveInfo(TDriveInfo& drive, bool fillTable) {
  return WithDriver(
      *this, drive.FileSystem, [&](auto& driver) { return driver.GetDriveInfo(drive, fillTable); }, false);
}

bool TEngine::SetVolumeBounds(TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  return WithDriver(
      *this, volume.FileSystem, [&](auto& driver) { return driver.SetVolumeBounds(volume, boot); }, false);
}

bool TEngine::IsVolumeSound(const TDriveInfo& volume, std::span<const std::uint8_t> boot) {
  return WithDriver(
      *this, volume.FileSystem, [&](auto& driver) { return driver.IsVolumeSound(volume, boot); }, false);
}

void TEngine::PartRecVolumeKnown(int driveNumber) {
  const auto known = [&](auto& driver) {
    driver.PartRecDriveAdded(driveNumber);
    return true;
  };
  WithDriver(*this, FDrives->List[static_cast<std::size_t>(driveNumber)].FileSystem, known, false);
}

void TEngine::DriveListChanged() {
  FNTFS->ClearMemory();
  FContent->Forget();
}
void TEngine::ClearDriveFiles(int driveNumber, bool deleteDrive) { FFiles->Clear(driveNumber, deleteDrive); }
void TEngine::BeginDriveFiles(int driveNumber) { FFiles->DoBeforeAnalyse(driveNumber); }

void TEngine::PumpSlowly() {
  if (!OnPump || FPumping) return;
  const std::int64_t now = SteadyMilliseconds();
  if (now - FLastPump < PumpInterval) return;
  FLastPump = now;
  FPumping = true;
  OnPump();
  FPumping = false;
}

}  // namespace brenlow

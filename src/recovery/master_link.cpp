// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/master_link.h"

#include "analysis/disputed_files.h"
#include "analysis/file_data.h"
#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"
#include "recovery/file_writer.h"
#include "table/files.h"

namespace brenlow {
namespace {

/// FAT and exFAT give every file clusters of its own for all that it lists, as content found by itself has them.
bool StoresInLess(TFileSystem system) {
  switch (system) {
    case TFileSystem::fsUnknown:
    case TFileSystem::fsFAT12:
    case TFileSystem::fsFAT16:
    case TFileSystem::fsFAT32:
    case TFileSystem::fsExFAT:
      return false;
    default:
      return true;
  }
}

}  // namespace

const TFileInfo& TFileTableLink::Info(int fileNumber) const {
  static const TFileInfo none;
  const TFiles& files = FEngine.Files();
  return files.IsWrongNumber(fileNumber) ? none : files.List[static_cast<std::size_t>(fileNumber)].FileInfo;
}

bool TFileTableLink::IsFileWrongNumber(int fileNumber) const { return FEngine.Files().IsWrongNumber(fileNumber); }

bool TFileTableLink::IsFiltered(int fileNumber, bool parentDeleted, const TFileFilter& filter) const {
  return FEngine.Files().IsFiltered(fileNumber, parentDeleted, filter);
}

TInt64DynArray TFileTableLink::GetParentClusters(int driveNumber, std::int64_t number) const {
  return FEngine.Drives().GetParentClusters(driveNumber, number);
}

bool TFileTableLink::OwnsContent(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return false;
  const TFileInfo& info = Info(fileNumber);
  return FFolders.Of(files, info.aDriveNumber).Owner(info.FirstCluster) == fileNumber;
}

void TFileTableLink::GetFileData(TByteDynArray& result, int fileNumber, int adsNumber, std::int64_t start,
                                 std::int64_t size) const {
  result.clear();
  TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return;
  brenlow::GetFileData(FEngine, result, files.List[static_cast<std::size_t>(fileNumber)], adsNumber, start, size);
}

TFileStretch TFileTableLink::GetFileStretch(int fileNumber, int adsNumber, std::int64_t start,
                                            std::int64_t size) const {
  TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return {};
  return brenlow::GetFileStretch(FEngine, files.List[static_cast<std::size_t>(fileNumber)], adsNumber, start, size);
}

TContentDoubt TFileTableLink::GetFileDoubt(int fileNumber) const {
  TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return TContentDoubt::Unchecked;
  return DoubtOf(FEngine, files.List[static_cast<std::size_t>(fileNumber)]);
}

bool TFileTableLink::IsPlaceOpen(int fileNumber) const {
  const TFiles& files = FEngine.Files();
  return !files.IsWrongNumber(fileNumber) &&
         brenlow::IsPlaceOpen(FEngine, files.List[static_cast<std::size_t>(fileNumber)]);
}

void TFileTableLink::SettlePlaces(const TInt64DynArray& fileNumbers) const {
  brenlow::SettlePlaces(FEngine, fileNumbers);
}

TADSDynArray TFileTableLink::GetStreams(int fileNumber) const {
  TADSDynArray streams;
  TFiles& files = FEngine.Files();
  if (!files.IsWrongNumber(fileNumber)) FillADS(FEngine, files.List[static_cast<std::size_t>(fileNumber)], streams);
  return streams;
}

TFileOutcomes TFileTableLink::Recovery(TFileWriter& writer, int fileNumber, const TTargetFile& target) const {
  return writer.Recovery(fileNumber, target);
}

void TFileTableLink::RecoveryAllADS(TFileWriter& writer, int fileNumber, const TTargetFile& target) const {
  writer.RecoveryAllADS(fileNumber, target);
}

void TFileTableLink::GetSelectedFiles(TSelectedFiles& files, const TFileFilter&) const { files.clear(); }

std::vector<TString> TFileTableLink::GetFilePath(int fileNumber) const {
  std::vector<TString> path;
  const TFiles& files = FEngine.Files();
  if (files.IsWrongNumber(fileNumber)) return path;
  for (const int folder : FFolders.Of(files, Info(fileNumber).aDriveNumber).FoldersAbove(files, fileNumber)) {
    path.emplace_back(Info(folder).strName);
  }
  return path;
}

bool TFileTableLink::GetDrive(int driveNumber, TRecoveryDrive& drive) const {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return false;
  TDriveInfo& info = drives.List[static_cast<std::size_t>(driveNumber)];
  const IDevice* device = FEngine.Devices().Get(info.Drive);
  drive.Size = drives.GetSize(info, false);
  drive.StoresInLess = StoresInLess(info.FileSystem);
  drive.Device = info.Drive;
  drive.DeviceSize = device != nullptr ? device->Size() : drive.Size;
  return true;
}

TSourceGuard TFileTableLink::SourceGuard() const { return FEngine.Drives().SourceGuard(); }

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// The partition search. A superblock, or a copy of one, that its group table vouches for is a volume and analysed
// as a whole. Folders that begin anywhere else are kept by their first block: their names come back even where
// nothing is left of their volume.
#include <algorithm>
#include <utility>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/driver.h"
#include "fs/ext/ext.h"
#include "fs/ext/ext_superblock.h"
#include "table/files.h"

namespace brenlow {

using namespace ext;

namespace {

constexpr std::size_t MostFolders = 1 << 17;  // that are kept without a volume
constexpr std::size_t LargestBlock = 4096;    // bytes looked at of a folder whose block size is not known
constexpr std::size_t SignatureSize = 24;     // bytes

bool IsExt(TFileSystem system) {
  return system == TFileSystem::fsExt2 || system == TFileSystem::fsExt3 || system == TFileSystem::fsExt4;
}

/// A record must end where a block does: 1 KiB or a power of two above it.
std::size_t BlockOfFolder(std::span<const std::uint8_t> bytes) {
  for (std::size_t size = 1024; size <= LargestBlock && size <= bytes.size(); size *= 2) {
    if (IsFolderBlock(bytes.first(size), UINT32_MAX)) return size;
  }
  return 0;
}

}  // namespace

void TExtX::PartRecDoBeforeAnalyse(int /*parentDrive*/) { PartRecClear(); }

void TExtX::PartRecClear() { FPartRecDirectoryEntries = {}; }

void TExtX::PartRecAnalyseSectors(std::span<const std::uint8_t> buffer, int parentDrive, std::int64_t firstSector) {
  const auto sectorSize = static_cast<std::size_t>(std::max(FEngine.Drives().GetBytesPerSector(parentDrive), 1));
  for (std::size_t at = 0; at + SignatureSize <= buffer.size(); at += sectorSize) {
    if (!BeginsFolder(buffer, at) || FPartRecDirectoryEntries.size() >= MostFolders) continue;
    const auto bytes = buffer.subspan(at, std::min(LargestBlock, buffer.size() - at));
    const std::size_t size = BlockOfFolder(bytes);
    if (size == 0) continue;
    TPartRecDirectoryEntry folder;
    folder.SectorNumber = firstSector + static_cast<std::int64_t>(at / sectorSize);
    WalkDirectoryBlock(bytes.first(size), 0, {true, true, 0}, folder.DirectoryEntries);
    if (folder.DirectoryEntries.size() > 2) FPartRecDirectoryEntries.push_back(std::move(folder));
    FEngine.Pump();
    if (!FEngine.Analysing) return;
  }
}

void TExtX::PartRecAnalyseForNewDrive(int parentDrive, std::int64_t /*sector*/) {
  TDrives& drives = FEngine.Drives();
  const auto& found = drives.PartRecInfo.FoundDrives;
  // Its group table has been looked at; what has its first superblock is confirmed at the end, where that is read
  // again.
  if (found.empty() || !IsExt(found.back().FileSystem) || !IsKnownByCopy(found.back())) return;
  driver::PartRecConfirm(*this, drives, parentDrive, static_cast<int>(found.size()) - 1);
}

bool TExtX::PartRecIsAnalysed(const TDriveInfo& drive) const { return ExtXInfo(drive).IsAnalysedAsWhole; }

void TExtX::PartRecDriveAdded(int driveNumber) {
  if (FEngine.Drives().IsWrongNumber(driveNumber)) return;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (!GetDriveInfo(drive, true, true)) return;
  ExtXInfo(drive).IsAnalysedAsWhole = true;
  Analyse(driveNumber);
  ClearMemory();
}

/// Folders that lie in no volume which was found: all that can be said of them is names.
void TExtX::PartRecFinishVolumes(int parentDrive) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(parentDrive) || FPartRecDirectoryEntries.empty()) return;
  const std::int64_t first = drives.List[static_cast<std::size_t>(parentDrive)].FirstSector;
  const TIntegerDynArray subs = drives.List[static_cast<std::size_t>(parentDrive)].SubDrives;
  for (const int sub : subs) {
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(sub)];
    if (!IsExt(drive.FileSystem) || !PartRecIsAnalysed(drive)) continue;
    std::erase_if(FPartRecDirectoryEntries, [&](const TPartRecDirectoryEntry& folder) {
      const std::int64_t sector = first + folder.SectorNumber;
      return sector >= drive.FirstSector && sector < drive.FirstSector + drive.SectorsCount;
    });
  }
  if (FPartRecDirectoryEntries.empty() || !FEngine.Analysing) return;
  const int target = drives.PartRecAddSubdrive(parentDrive, TFileSystem::fsExt4);
  if (target < 0) return;
  drives.List[static_cast<std::size_t>(target)].GeometrySource = TPlaceSource::Estimated;
  for (auto folder = FPartRecDirectoryEntries.rbegin(); folder != FPartRecDirectoryEntries.rend(); ++folder) {
    AddNamesOnly(target, *folder);
    FEngine.Pump();
    if (!FEngine.Analysing) return;
  }
}

void TExtX::AddNamesOnly(int driveNumber, const TPartRecDirectoryEntry& folder) {
  const TDirectoryEntries& entries = folder.DirectoryEntries;
  const std::int64_t own = entries[0].Inode;
  const std::int64_t parent = own == RootInode ? SpecialCluster::Root : own;
  TFileInfo info;
  for (std::size_t i = 2; i < entries.size(); ++i) {
    TFiles::ClearInfo(info, driveNumber);
    info.strName = entries.Name(i);
    info.blnFolder = entries[i].FileType == TFileType::ftDirectory;
    info.blnDeleted = true;
    if (!info.blnFolder) info.Doubt = TContentDoubt::NameOnly;
    info.FirstCluster = entries[i].Inode;
    info.FirstSector = folder.SectorNumber;
    info.OffsetInSector = static_cast<std::int32_t>(entries[i].Position);
    const bool ownParent = info.blnFolder && info.FirstCluster == parent;
    FEngine.Files().Add(info, ownParent ? 0 : parent, true);
  }
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// Where the content of files lies, and whether it is still theirs.
#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/ext/ext.h"
#include "fs/ext/ext_bitmaps.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow {

using namespace ext;

namespace ext {

bool ReadLoggedInode(TVolumeReader& reader, std::int64_t position, TBlockList blocks, TByteDynArray& bytes,
                     TInode& inode) {
  const TExtXJournal& journal = reader.Info().Journal;
  const std::int64_t blockSize = reader.BlockSize();
  const auto block = static_cast<std::size_t>(position / blockSize);
  if (position <= 0 || block >= journal.Blocks.size() || journal.Blocks[block] <= 0) return false;
  bytes.resize(reader.Info().InodeSize);
  if (!reader.ReadBytes(journal.Blocks[block] * blockSize + position % blockSize, bytes)) return false;
  reader.SetSequence(block < journal.Sequences.size() ? journal.Sequences[block] : 0);
  const bool read = ParseInode(bytes, reader, blocks, inode);
  reader.SetSequence(0);
  return read;
}

}  // namespace ext

namespace {

constexpr std::int64_t InodeMask = 0xFFFFFFFF;  // a folder's key may have more above

}  // namespace

const TInode* TExtX::InodeOf(const TDriveInfo& drive, const TFileInfo& file) {
  const std::int64_t number = file.FirstCluster & InodeMask;
  if (FLast.DriveInfo == &drive && FLast.Inode == number && FLast.Journal == file.JournalPosition) {
    return FLast.Found ? &FLast.File : nullptr;
  }
  FLast.DriveInfo = &drive;
  FLast.Inode = number;
  FLast.Journal = file.JournalPosition;
  TVolumeReader reader(FEngine, drive);
  TByteDynArray bytes;
  FLast.Found =
      file.JournalPosition > 0
          ? ReadLoggedInode(reader, file.JournalPosition, TBlockList::Read, bytes, FLast.File)
          : ParseInode(reader.Inode(static_cast<std::uint32_t>(number)), reader, TBlockList::Read, FLast.File);
  return FLast.Found ? &FLast.File : nullptr;
}

/// Whether the inode on the disk that a deleted row leads to is in use: as its own, for a file that only its name
/// was lost of, or (`TPlaceSource::Estimated`) as another one's.
bool TExtX::HasInodeInUse(TDriveInfo& drive, const TFileInfo& file) {
  if (!file.blnDeleted || file.JournalPosition > 0) return false;
  const TInode* inode = InodeOf(drive, file);
  return inode != nullptr && inode->Links > 0 && IsInodeUsed(FEngine, drive, file.FirstCluster & InodeMask);
}

bool TExtX::MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result) {
  const TInode* inode = stream < 0 ? InodeOf(drive, file.FileInfo) : nullptr;
  if (inode == nullptr || file.FileInfo.blnFolder) return false;
  const TInode found = *inode;
  const std::int64_t blockSize = ExtXInfo(drive).BlockSize;
  result.Size = std::max<std::int64_t>(file.FileInfo.aSize, 0);
  result.UnitBytes = blockSize;
  const bool doubtful = file.FileInfo.Place == TPlaceSource::Estimated;
  const bool deleted = file.FileInfo.blnDeleted && !HasInodeInUse(drive, file.FileInfo);
  if (found.IsInline) {
    result.Inline = found.Inline;
    const auto length = static_cast<std::int64_t>(found.Inline.size());
    result.Extents.Add({.Length = length, .Kind = TExtentKind::Inline, .Estimated = doubtful});
    if (result.Size > length) result.Extents.AddLost(result.Size - length);
    return true;
  }
  std::int64_t mapped = 0;
  for (const TDataBlock& run : found.Blocks) {
    mapped += run.Count * blockSize;
    if (run.Start == 0) {
      result.Extents.AddZeros(run.Count * blockSize);
      continue;
    }
    for (std::int64_t at = 0; at < run.Count;) {
      bool used = false;
      const std::int64_t count = deleted ? SameState(FEngine, drive, run.Start + at, run.Count - at, used) : run.Count;
      result.Extents.Add(
          {.Length = count * blockSize, .Place = (run.Start + at) * blockSize, .Estimated = doubtful || used});
      at += count;
    }
  }
  // What is missing was never written, unless the list ended in a fault.
  if (mapped < result.Size && found.Truncated) result.Extents.AddLost(result.Size - mapped);
  if (mapped < result.Size && !found.Truncated) result.Extents.AddZeros(result.Size - mapped);
  return true;
}

std::int64_t TExtX::GetSizeOnDisk(const TFile& file) {
  const int number = file.FileInfo.aDriveNumber;
  if (FEngine.Drives().IsWrongNumber(number)) return file.FileInfo.aSize;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(number)];
  const TInode* inode = InodeOf(drive, file.FileInfo);
  if (inode == nullptr || inode->Blocks.empty()) return file.FileInfo.aSize;
  std::int64_t blocks = 0;
  for (const TDataBlock& run : inode->Blocks) blocks += run.Start == 0 ? 0 : run.Count;
  return blocks * ExtXInfo(drive).BlockSize;
}

bool TExtX::IsOverwritten(const TFile& file) {
  const int number = file.FileInfo.aDriveNumber;
  if (!file.FileInfo.blnDeleted || file.FileInfo.blnFolder || FEngine.Drives().IsWrongNumber(number)) return false;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(number)];
  if (ExtXInfo(drive).Groups.empty() || ExtXInfo(drive).BlocksPerGroup == 0) return false;
  if (HasInodeInUse(drive, file.FileInfo)) return file.FileInfo.Place == TPlaceSource::Estimated;
  const TInode* inode = InodeOf(drive, file.FileInfo);
  if (inode == nullptr || inode->IsInline) return false;
  for (const TDataBlock& run : inode->Blocks) {
    if (run.Start == 0) continue;
    bool used = false;
    SameState(FEngine, drive, run.Start, 1, used);
    return used;
  }
  return false;
}

TPlaceSource TExtX::PlaceOf(const TFile& file) {
  const int number = file.FileInfo.aDriveNumber;
  if (FEngine.Drives().IsWrongNumber(number)) return file.FileInfo.Place;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(number)];
  return drive.GeometrySource == TPlaceSource::Estimated ? drive.GeometrySource : file.FileInfo.Place;
}

}  // namespace brenlow

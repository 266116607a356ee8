// SPDX-License-Identifier: GPL-3.0-or-later
// Where the content of files lies.
#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "fs/xfs/xfs.h"
#include "fs/xfs/xfs_groups.h"
#include "fs/xfs/xfs_reader.h"

namespace brenlow {

using namespace xfs;

namespace {

/// The old state of an inode that a row stands for; null for one in use.
const TOldInode* OldOf(const TXFSInfo& info, const TFileInfo& file) {
  const auto index = static_cast<std::uint64_t>(file.JournalPosition) - 1;
  return index < info.OldInodes.size() ? &info.OldInodes[index] : nullptr;
}

constexpr std::int64_t LinkHeader = 56;  // bytes

/// What the extents do not reach.
void FillUp(TExtentKind gaps, TFileStream& result) {
  const std::int64_t end = result.Extents.EndNear(result.Size);
  if (end < result.Size) result.Extents.Add({.Length = result.Size - end, .Kind = gaps});
}

/// Puts extents into a stream. `gaps`: what lies between them.
void AddExtents(const TXFSInfo& info, const xfs::TExtents& extents, TExtentKind gaps, TFileStream& result) {
  const std::int64_t most = brenlow::TExtents::MaxLength / info.BlockSize;
  std::int64_t at = 0;  // blocks
  for (const xfs::TExtent& extent : extents) {
    if (extent.Offset > most - extent.Count) return;
    result.Extents.Add({.Length = (extent.Offset - at) * info.BlockSize, .Kind = gaps});
    const std::int64_t length = std::int64_t{extent.Count} * info.BlockSize;
    if (extent.Unwritten) {
      result.Extents.AddZeros(length);
    } else {
      result.Extents.AddStored(length, LinearBlock(info, extent.Block) * info.BlockSize);
    }
    at = extent.Offset + extent.Count;
  }
  FillUp(gaps, result);
}

/// The target of a link in blocks of its own: from version 5 on, each extent begins with a header.
void AddLinkTarget(const TXFSInfo& info, const xfs::TExtents& extents, TFileStream& result) {
  const std::int64_t header = info.Version >= 5 ? LinkHeader : 0;
  for (const xfs::TExtent& extent : extents) {
    const std::int64_t length = std::int64_t{extent.Count} * info.BlockSize - header;
    result.Extents.AddStored(length, LinearBlock(info, extent.Block) * info.BlockSize + header);
  }
  FillUp(TExtentKind::Lost, result);
}

}  // namespace

/// The bytes of the inode that a row stands for; empty when they cannot be had.
TByteDynArray TXFS::InodeOf(const TDriveInfo& drive, const TFileInfo& file) {
  const TXFSInfo& info = XFSInfo(drive);
  const TOldInode* old = OldOf(info, file);
  if (old != nullptr && !old->Image.empty()) return old->Image;
  const std::int64_t stated = file.FirstSector < 0 ? InodePlace(info, file.FirstCluster)
                                                   : file.FirstSector * drive.BytesPerSector + file.OffsetInSector;
  const std::int64_t place = old != nullptr ? old->Place : stated;
  TByteDynArray bytes(info.InodeSize);
  if (place < 0 || !FEngine.Content().ReadPlace(drive, place, bytes)) return {};
  return bytes;
}

bool TXFS::MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result) {
  const TXFSInfo& info = XFSInfo(drive);
  if (stream > 0 || !IsSystemFilled(drive) || file.FileInfo.aSize <= 0) return false;
  const TByteDynArray bytes = InodeOf(drive, file.FileInfo);
  const TOldInode* old = OldOf(info, file.FileInfo);
  TInodeCore core;
  if (!ReadInodeCore(bytes, core) || (core.Mode == 0 && old == nullptr)) return false;
  result.Size = file.FileInfo.aSize;
  result.UnitBytes = info.BlockSize;
  result.VolumeBytes = info.TotalBlockCount * info.BlockSize;
  if (old != nullptr) core.InodeNumber = old->Inode;
  xfs::TExtents extents;
  if (core.RealTime) {
    result.Extents.AddLost(result.Size);  // on another device
  } else if (old != nullptr && old->Extents >= 0) {
    const TBytes fork = TBytes(bytes).subspan(core.Version == 3 ? 176 : 100);
    extents = LeftoverExtents(info, fork);
    extents.resize(std::min(extents.size(), static_cast<std::size_t>(old->Extents)));
    AddExtents(info, extents, extents.empty() ? TExtentKind::Lost : TExtentKind::Zeros, result);
  } else if (core.DataForkFormat == XFS_DINODE_FMT_LOCAL) {
    const TBytes fork = DataFork(bytes);
    result.Inline.assign(fork.begin(), fork.end());
    const auto inside = std::min<std::int64_t>(result.Size, static_cast<std::int64_t>(fork.size()));
    result.Extents.Add({.Length = inside, .Place = 0, .Kind = TExtentKind::Inline});
    result.Extents.AddLost(result.Size - inside);
  } else {
    // Where the list has lost pieces, a gap is no hole.
    const bool whole = TReader(FEngine, drive).Extents(bytes, core, extents);
    if (core.FileType == TFileType::ftSymbolicLink) {
      AddLinkTarget(info, extents, result);
    } else {
      AddExtents(info, extents, whole ? TExtentKind::Zeros : TExtentKind::Lost, result);
    }
  }
  return true;
}

std::int64_t TXFS::GetSizeOnDisk(const TFile& file) {
  const int number = file.FileInfo.aDriveNumber;
  if (FEngine.Drives().IsWrongNumber(number)) return file.FileInfo.aSize;
  TFile copy = file;
  TFileStream stream;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(number)];
  return MapStream(drive, copy, -1, stream) ? StoredBytes(stream) : file.FileInfo.aSize;
}

bool TXFS::IsOverwritten(const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (!info.blnDeleted || info.blnFolder || FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return false;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  const TOldInode* old = OldOf(XFSInfo(drive), info);
  if (old == nullptr) return false;
  if (old->Superseded) return true;
  FillFreeBlocks(FEngine, drive);
  TFile copy = file;
  TFileStream stream;
  if (!MapStream(drive, copy, -1, stream)) return false;
  const TXFSInfo& volume = XFSInfo(drive);
  for (std::int64_t at = 0; at < stream.Size;) {
    const auto extent = stream.At(at, at);
    if (!extent) break;
    at = extent->End();
    if (extent->Kind != TExtentKind::Stored) continue;
    const TBlockRange range{extent->Place / volume.BlockSize,
                            CeilDiv(extent->Place + extent->Length, volume.BlockSize)};
    bool known = false;
    if (!IsFree(volume, range, &known) && known) return true;
  }
  return false;
}

TPlaceSource TXFS::PlaceOf(const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return info.Place;
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)];
  if (drive.GeometrySource == TPlaceSource::Estimated) return drive.GeometrySource;
  const TXFSInfo& volume = XFSInfo(drive);
  // Without the tree of free blocks nothing says that those of a deleted file are still its own.
  const bool sure =
      !info.blnDeleted || info.blnFolder || (volume.IsFreeFilled && volume.GroupsWithoutFreeBlocks.empty());
  return sure ? info.Place : TPlaceSource::Estimated;
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// Where the content of files lies.
#include <zlib.h>

#include <algorithm>
#include <string_view>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "fs/apfs/apfs.h"
#include "fs/apfs/apfs_walk.h"

namespace brenlow {

using namespace apfs;

namespace {

constexpr std::int64_t LengthMask = (std::int64_t{1} << 56) - 1;

void AddInline(TByteDynArray bytes, TFileStream& result) {
  result.Inline = std::move(bytes);
  const auto inside = std::min<std::int64_t>(result.Size, static_cast<std::int64_t>(result.Inline.size()));
  result.Extents.Add({.Length = inside, .Place = 0, .Kind = TExtentKind::Inline});
  result.Extents.AddLost(result.Size - inside);
}

/// The extents of a data stream. What lies between them is a hole, unless some of the tree could not be read.
void AddExtents(const TTrees& trees, const TAPFSInfo& info, const TAPFSVolume& volume, std::int64_t id,
                TFileStream& result) {
  std::vector<TExtent> extents;
  std::int64_t at = 0;
  const bool whole = trees.Find(volume, id, ExtentRecord, [&](const TNode::TEntry& entry, std::int64_t) {
    const std::int64_t offset = Id(entry.Key, 8);
    const std::int64_t length = Id(entry.Value, 0) & LengthMask;
    const std::int64_t block = Id(entry.Value, 8);
    if (offset < at || offset >= result.Size) return offset < at;
    const bool inside = block < info.TotalBlockCount && block > 0;
    const TExtentKind kind = inside ? TExtentKind::Stored : block == 0 ? TExtentKind::Zeros : TExtentKind::Lost;
    extents.push_back({.Offset = offset, .Length = length, .Place = inside ? block * info.BlockSize : 0, .Kind = kind});
    at = offset + length;
    return at < result.Size;
  });
  const TExtentKind gaps = whole ? TExtentKind::Zeros : TExtentKind::Lost;
  at = 0;
  for (const TExtent& extent : extents) {
    result.Extents.Add({.Length = extent.Offset - at, .Kind = gaps});
    result.Extents.Add(extent);
    at = extent.End();
  }
  result.Extents.Add({.Length = result.Size - at, .Kind = gaps});
}

/// What a zlib stream unpacks to, at most `size` bytes; less when it is damaged.
TByteDynArray Inflate(TBytes packed, std::int64_t size) {
  TByteDynArray result(static_cast<std::uint32_t>(size));
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) return {};
  stream.next_in = const_cast<Bytef*>(packed.data());
  stream.avail_in = static_cast<uInt>(packed.size());
  stream.next_out = result.data();
  stream.avail_out = static_cast<uInt>(result.size());
  const int end = inflate(&stream, Z_FINISH);
  result.erase(result.end() - static_cast<std::ptrdiff_t>(stream.avail_out), result.end());
  inflateEnd(&stream);
  if (end != Z_STREAM_END && end != Z_BUF_ERROR) result.clear();
  return result;
}

/// A file whose content lies in the attribute that says that it is compressed.
void AddCompressed(const TTrees& trees, const TAPFSVolume& volume, std::int64_t inode, TFileStream& result) {
  constexpr std::size_t header = 16;  // bytes: mark, method, size
  constexpr std::uint32_t mark = 0x636D7066;
  constexpr std::uint32_t plain = 1;
  constexpr std::uint32_t zlib = 3;
  constexpr std::int64_t mostUnpacked = 16 << 20;  // bytes
  TByteDynArray bytes = AttributeBytes(trees, volume, inode, "com.apple.decmpfs");
  const bool sound = bytes.size() > header && ReadLe32(bytes, 0) == mark;
  const std::uint32_t method = sound ? ReadLe32(bytes, 4) : 0;
  if (method == plain || method == zlib) {
    bytes.erase(bytes.begin(), bytes.begin() + header);
    // A first byte whose low half is all ones says that what follows is stored as it is.
    if (method == zlib && (bytes.front() & 0x0F) == 0x0F) {
      bytes.erase(bytes.begin());
    } else if (method == zlib) {
      bytes = Inflate(bytes, std::min(result.Size, mostUnpacked));
    }
    AddInline(std::move(bytes), result);
    return;
  }
  result.Extents.AddLost(result.Size);  // in a form that is not unpacked: nothing is handed out in its place
}

}  // namespace

bool TAPFS::MapStream(TDriveInfo& drive, TFile& file, int stream, TFileStream& result) {
  const TAPFSInfo& info = APFSInfo(drive);
  const TFileInfo& row = file.FileInfo;
  const std::size_t number = row.FirstCluster < 0 ? info.Volumes.size() : VolumeOfKey(row.FirstCluster);
  if (stream > 0 || row.blnFolder || row.aSize <= 0 || number >= info.Volumes.size()) return false;
  const TAPFSVolume& volume = info.Volumes[number];
  if (volume.Encrypted) return false;
  const TTrees trees(FEngine, drive);
  const std::int64_t inode = ObjectOfKey(row.JournalPosition);
  result.Size = row.aSize;
  result.UnitBytes = info.BlockSize;
  result.VolumeBytes = info.TotalBlockCount * info.BlockSize;
  if (!volume.IsContentPlain) {
    result.Extents.AddLost(result.Size);
  } else if (row.Kind == TFileKind::SymbolicLink) {
    AddInline(AttributeBytes(trees, volume, inode, "com.apple.fs.symlink"), result);
  } else if (row.Atributes.blnCompressed) {
    AddCompressed(trees, volume, inode, result);
  } else {
    AddExtents(trees, info, volume, ObjectOfKey(row.FirstCluster), result);
  }
  return true;
}

std::int64_t TAPFS::GetSizeOnDisk(const TFile& file) {
  const int number = file.FileInfo.aDriveNumber;
  if (FEngine.Drives().IsWrongNumber(number)) return file.FileInfo.aSize;
  TFile copy = file;
  TFileStream stream;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(number)];
  return MapStream(drive, copy, -1, stream) ? StoredBytes(stream) : file.FileInfo.aSize;
}

}  // namespace brenlow

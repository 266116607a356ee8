// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_superblock.h"

#include <bit>

#include "core/numbers.h"
#include "core/text.h"
#include "fs/ext/ext_checksum.h"
#include "fs/ext/ext_inode.h"

namespace brenlow::ext {
namespace {

constexpr std::uint32_t LargestBlockShift = 6;  // 64 KiB
constexpr std::uint16_t OldInodeSize = 128;     // of revision 0
constexpr std::uint32_t CreatorHurd = 1;

/// The text at an offset of the superblock, up to its first zero byte.
TString TextAt(std::span<const std::uint8_t> super, std::size_t offset, std::size_t size) {
  if (offset + size > super.size()) return {};
  const auto* first = reinterpret_cast<const char*>(super.data() + offset);
  const std::string_view text(first, size);
  return FromUtf8(text.substr(0, text.find('\0')));
}

void ReadFeatures(std::span<const std::uint8_t> super, TExtXInfo& info) {
  info.FeatureCompat = ReadLe32(super, 92);
  info.FeatureIncompat = ReadLe32(super, 96);
  info.FeatureReadOnly = ReadLe32(super, 100);
  info.HasMetaGroups = (info.FeatureIncompat & Feature::IncompatMetaGroups) != 0;
  info.FirstMetaGroup = info.HasMetaGroups ? ReadLe32(super, 260) : 0;
  info.HasChecksums = (info.FeatureReadOnly & Feature::ReadOnlyMetadataChecksums) != 0;
  info.NeedsRecovery = (info.FeatureIncompat & Feature::IncompatRecover) != 0;
  info.OrphanFile = ReadLe32(super, 640);
  info.IsCreatorHurd = ReadLe32(super, 72) == CreatorHurd;
  info.ChecksumSeed = (info.FeatureIncompat & Feature::IncompatChecksumSeed) != 0 ? ReadLe32(super, 624)
                      : super.size() >= 120                                       ? Crc32c(~0U, super.subspan(104, 16))
                                                                                  : 0;
}

void ReadJournal(std::span<const std::uint8_t> super, TExtXInfo& info) {
  info.Journal = TExtXJournal();
  if (ReadLe32(super, 92) % 8 / 4 != 1) return;
  info.Journal.Inode = ReadLe32(super, 224);
  info.Journal.IsExternal = info.Journal.Inode == 0;
  constexpr std::size_t backup = 268;  // pointers and size of the journal's inode, once more
  if (ReadNumber(super, true, 1, 253) == 1 && super.size() >= backup + 68) {
    info.Journal.InodeBackup.assign(super.begin() + backup, super.begin() + backup + 68);
  }
}

/// The size of an inode must be one that the revision allows.
bool HasSoundInodes(std::span<const std::uint8_t> super, const TExtXInfo& info) {
  const bool dynamic = ReadLe32(super, 76) != 0;
  const std::uint16_t size = ReadLe16(super, 88);
  if (dynamic ? size < OldInodeSize || size > info.BlockSize : size != 0 && size != OldInodeSize) return false;
  return info.InodesPerGroup % 2 == 0;
}

void ReadCounts(std::span<const std::uint8_t> super, TExtXInfo& info) {
  const std::uint32_t incompat = ReadLe32(super, 96);
  const bool is64Bit = incompat % 256 / 128 == 1;
  const bool isFlexible = incompat % 1024 / 512 == 1;
  const auto wide = [&](std::size_t low, std::size_t high) {
    return std::int64_t{ReadLe32(super, low)} + (is64Bit ? std::int64_t{ReadLe32(super, high)} << 32 : 0);
  };
  info.TotalBlockCount = wide(4, 336);
  info.FreeBlockCount = wide(12, 344);
  info.InodeSize = ReadLe32(super, 76) != 0 ? ReadLe16(super, 88) : OldInodeSize;
  const auto flexShift = static_cast<unsigned>(ReadNumber(super, true, 1, 372));
  info.FlexibleBlockGroupsSize = isFlexible && flexShift < 32 ? 1U << flexShift : 1;
  const std::uint16_t stated = ReadLe16(super, 254);
  info.GroupDescriptorsRecordSize = is64Bit && stated > 0 ? stated : 32;
  info.InodesExtendedAttributes = incompat % 4096 / 1024 == 1;
  info.FirstDataBlock = ReadLe32(super, 20);
  info.ReservedInodes = ReadLe32(super, 76) != 0 && ReadLe32(super, 84) > 0 ? ReadLe32(super, 84) - 1 : 10;
}

}  // namespace

bool IsFilled(const TExtXInfo& info) {
  return info.TotalInodeCount != 0 && info.TotalBlockCount > 0 && info.BlockSize != 0 && info.BlocksPerGroup != 0 &&
         info.InodesPerGroup != 0 && info.InodeSize != 0 && info.FlexibleBlockGroupsSize != 0 &&
         info.GroupDescriptorsRecordSize != 0;
}

bool ParseSuperblock(std::span<const std::uint8_t> buffer, std::size_t start, bool additionalCheck, TExtXInfo& info,
                     TString& volumeName) {
  if (start >= buffer.size()) return false;
  const auto super = buffer.subspan(start);
  info.TotalInodeCount = ReadLe32(super, 0);
  const std::uint32_t shift = ReadLe32(super, 24);
  info.BlockSize = shift <= LargestBlockShift ? 1024U << shift : 0;
  info.BlocksPerGroup = ReadLe32(super, 32);
  info.InodesPerGroup = ReadLe32(super, 40);
  info.LastMountTime = TimeOf(ReadLe32(super, 44), 0);
  const bool marked = ReadLe16(super, 56) == Magic;
  if (info.BlockSize == 0 || (additionalCheck && (!marked || !HasSoundInodes(super, info)))) return false;
  ReadCounts(super, info);
  if (info.TotalBlockCount > INT64_MAX / info.BlockSize) return false;
  const std::uint32_t clusters = ReadLe32(super, 36);
  if (!IsFilled(info) || info.BlockSize % 512 != 0 || clusters == 0) return false;
  if (info.GroupDescriptorsRecordSize < 32 || info.GroupDescriptorsRecordSize > info.BlockSize) return false;
  // Sizes that are no power of two can be asked for when formatting; the mark must speak for those.
  if (!std::has_single_bit(info.BlocksPerGroup) && !marked) return false;
  if (!std::has_single_bit(clusters) && !marked) return false;
  if (info.BlocksPerGroup > 8 * std::uint64_t{info.BlockSize} * 65536) return false;
  ReadFeatures(super, info);
  const bool clustered = (info.FeatureReadOnly & Feature::ReadOnlyClusters) != 0;
  const std::uint32_t clusterShift = ReadLe32(super, 28);
  info.ClusterRatio = clustered && clusterShift > shift && clusterShift - shift < 20 ? 1U << (clusterShift - shift) : 1;
  ReadJournal(super, info);
  info.LastMountPath = TextAt(super, 136, 64);
  volumeName = TextAt(super, 120, 16);
  if (volumeName.empty()) volumeName = info.LastMountPath;
  return true;
}

bool IsPlausible(std::span<const std::uint8_t> buffer, std::size_t start) {
  TExtXInfo info;
  TString name;
  if (!ParseSuperblock(buffer, start, false, info, name)) return false;
  const auto super = buffer.subspan(start);
  if (ReadLe16(super, 56) == Magic) return true;
  const std::int64_t groups = GroupCount(info);
  const std::uint32_t freeInodes = ReadLe32(super, 16);
  return info.FirstDataBlock == (info.BlockSize == 1024 ? 1 : 0) && info.TotalBlockCount > info.FirstDataBlock &&
         info.BlocksPerGroup <= 8 * info.BlockSize * info.ClusterRatio && info.InodesPerGroup <= 8 * info.BlockSize &&
         info.TotalInodeCount == groups * info.InodesPerGroup && freeInodes < info.TotalInodeCount &&
         info.FreeBlockCount <= info.TotalBlockCount && HasSoundInodes(super, info);
}

std::uint32_t GroupOfCopy(std::span<const std::uint8_t> buffer, std::size_t start) {
  return start < buffer.size() ? ReadLe16(buffer.subspan(start), 90) : 0;
}

TFileSystem SystemOf(std::span<const std::uint8_t> buffer, std::size_t start) {
  if (start >= buffer.size()) return TFileSystem::fsUnknown;
  const auto super = buffer.subspan(start);
  const std::uint32_t incompat = ReadLe32(super, 96);
  const bool isExt4 = incompat % 128 / 64 == 1 || incompat % 1024 / 512 == 1 || incompat % 4096 / 1024 == 1;
  if (isExt4) return TFileSystem::fsExt4;
  return ReadLe32(super, 92) % 8 / 4 == 1 ? TFileSystem::fsExt3 : TFileSystem::fsExt2;
}

std::int64_t GroupCount(const TExtXInfo& info) {
  if (info.BlocksPerGroup == 0 || info.TotalBlockCount <= info.FirstDataBlock) return 0;
  return CeilDiv(info.TotalBlockCount - info.FirstDataBlock, info.BlocksPerGroup);
}

}  // namespace brenlow::ext

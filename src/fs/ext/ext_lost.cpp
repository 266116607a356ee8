// SPDX-License-Identifier: GPL-3.0-or-later
// Folders and files that no name leads to any more: blocks of folders in room that nothing has, and inodes that
// still tell of their content.
//
// A block counts as a folder's when its records fill it without a fault. Whose it is says its "." entry, else its
// checksum, which follows from the folder's inode, else the block before it.
#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/ext/ext_checksum.h"
#include "fs/ext/ext_superblock.h"
#include "fs/ext/ext_walk.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow::ext {
namespace {

constexpr std::int64_t RunBlocks = 128;                         // read together
constexpr std::int64_t MissBytes = 0x40000;                     // without a folder in them end the search of a group
constexpr double SearchShare = 0.9;                             // of the progress
constexpr std::size_t SecondRecord = 12;                        // where ".." stands in a folder
constexpr std::int64_t TableReadSize = 1 << 19;                 // bytes of a table of inodes read together
constexpr std::int64_t MostTableBytes = std::int64_t{1} << 30;  // of tables that do not tell what of them was used

}  // namespace

std::uint32_t TVolumeWalk::SeedOf(std::uint32_t inode, std::uint32_t generation) const {
  std::uint8_t bytes[8];
  for (int i = 0; i < 4; ++i) {
    bytes[i] = static_cast<std::uint8_t>(inode >> (8 * i));
    bytes[4 + i] = static_cast<std::uint8_t>(generation >> (8 * i));
  }
  return Crc32c(Info().ChecksumSeed, bytes);
}

void TVolumeWalk::NoteFolderChecksums(std::uint32_t inode, std::uint32_t generation) {
  if (Info().HasChecksums) FFolderSeeds.try_emplace(SeedOf(inode, generation), inode);
}

/// The folder that a block belongs to; 0 when nothing tells.
std::uint32_t TVolumeWalk::FolderOf(std::span<const std::uint8_t> block) const {
  if (BeginsFolder(block, 0)) return ReadLe32(block, 0);
  const std::uint32_t seed = Info().HasChecksums ? ChecksumSeedOf(block) : 0;
  const auto folder = FFolderSeeds.find(seed);
  return seed != 0 && folder != FFolderSeeds.end() ? folder->second : 0;
}

/// The parent of a lost block's entries. Where the number of the folder is that of another one by now, as the
/// checksum shows, it is a key of its own.
std::int64_t TVolumeWalk::LostKeyOf(std::uint32_t inode, std::span<const std::uint8_t> block) {
  constexpr std::int64_t earlier = std::int64_t{1} << 32;
  if (inode == 0 || inode > Info().TotalInodeCount) return SpecialCluster::LostAndFound;
  const std::uint32_t seed = Info().HasChecksums ? ChecksumSeedOf(block) : 0;
  TInode folder;
  const bool inUse = seed != 0 && ParseInode(FReader.Inode(inode), FReader, TBlockList::Skip, folder) &&
                     folder.Links > 0 && folder.Type == TFileType::ftDirectory;
  return inUse && seed != SeedOf(inode, folder.Generation) ? inode + earlier : KeyOf(inode);
}

std::int64_t TVolumeWalk::LostFolderSearchSize() const {
  std::int64_t blocks = 0;
  for (std::int64_t at = FKnown.NextAbsent(0); at < FReader.Blocks();) {
    const std::int64_t run = FKnown.AbsentRun(at, 1 << 20);
    blocks += run;
    at = FKnown.NextAbsent(at + run);
  }
  return blocks * FReader.BlockSize();
}

void TVolumeWalk::FindLostFolders(bool everywhere) {
  const TExtXGroups& groups = Info().Groups;
  const std::int64_t misses = everywhere ? INT64_MAX : std::max<std::int64_t>(MissBytes / FReader.BlockSize(), 1);
  const auto count = static_cast<double>(std::max<std::size_t>(groups.size(), 1));
  const std::int64_t step = std::max<std::int64_t>(Info().BlocksPerGroup, 1);
  for (std::size_t number = 0; number < groups.size() && !FStopped; ++number) {
    FProgressFrom = TreeShare + SearchShare * static_cast<double>(number) / count;
    FProgressShare = 0;
    const std::int64_t start = GroupStart(Info(), static_cast<std::int64_t>(number));
    if (everywhere) {
      SearchRange(start, std::min(start + step, FReader.Blocks()), misses);
    } else {
      SearchRange(groups[number].DataLocation, groups[number].DataLocation + groups[number].DataBlocks, misses);
    }
    FEngine.AnalyseProgress(FProgressFrom);
  }
}

/// Looks at all blocks of a range that nothing has, until `misses` of them in a row were no folder's.
void TVolumeWalk::SearchRange(std::int64_t first, std::int64_t end, std::int64_t misses) {
  const TDriveInfo& drive = FReader.Drive();
  const std::int64_t blockSize = FReader.BlockSize();
  const std::int64_t sectorSize = std::max(drive.BytesPerSector, 1);
  TByteDynArray bytes;
  std::int64_t missed = 0;
  end = std::min(end, FReader.Blocks());
  for (std::int64_t at = FKnown.NextAbsent(first); at < end && GoOn();) {
    // Holes of the source hold nothing.
    const std::int64_t data =
        (FEngine.Reader().NextSectorToScan(drive, drive.FirstSector + FReader.SectorOf(at)) - drive.FirstSector) *
        sectorSize;
    if (data >= (at + 1) * blockSize) {
      at = FKnown.NextAbsent(std::min(data / blockSize, end));
      continue;
    }
    const std::int64_t count = FKnown.AbsentRun(at, std::min(RunBlocks, end - at));
    bytes.resize(static_cast<std::size_t>(count * blockSize));
    const std::int64_t sectors = static_cast<std::int64_t>(bytes.size()) / sectorSize;
    if (sectors * sectorSize == static_cast<std::int64_t>(bytes.size())) {
      FEngine.Reader().ReadOrZero(drive, bytes, drive.FirstSector + FReader.SectorOf(at), TReadEffort::Scan);
    } else {
      FReader.ReadBytes(at * blockSize, bytes);
    }
    for (std::int64_t i = 0; i < count && !FStopped;) {
      const auto rest = std::span(bytes).subspan(static_cast<std::size_t>(i * blockSize));
      const std::int64_t taken = FKnown.Has(at + i) ? 0 : ExamineBlocks(rest, at + i);
      missed = taken == 0 ? missed + 1 : 0;
      if (missed > misses) return;
      i += std::max<std::int64_t>(taken, 1);
    }
    at = FKnown.NextAbsent(at + count);
  }
}

/// Takes the first block as a folder's, with those after it that go on. The result is their count, 0 when it
/// is none.
std::int64_t TVolumeWalk::ExamineBlocks(std::span<const std::uint8_t> bytes, std::int64_t firstBlock) {
  const auto blockSize = static_cast<std::size_t>(FReader.BlockSize());
  const auto first = bytes.first(blockSize);
  const std::uint32_t lastInode = Info().TotalInodeCount;
  if (ReadLe16(first, 4) == 0 || (!IsFolderBlock(first, lastInode) && !BeginsFolder(first, 0))) return 0;
  const std::uint32_t folder = FolderOf(first);
  const std::uint32_t seed = Info().HasChecksums ? ChecksumSeedOf(first) : 0;
  FEntries.Clear();
  std::size_t count = 0;
  while ((count + 1) * blockSize <= bytes.size()) {
    const auto block = bytes.subspan(count * blockSize, blockSize);
    const bool goesOn = count == 0 || (IsFolderBlock(block, lastInode) && !BeginsFolder(block, 0) &&
                                       (seed == 0 || ChecksumSeedOf(block) == seed));
    if (!goesOn || FKnown.Has(firstBlock + static_cast<std::int64_t>(count))) break;
    WalkBytes(block, (firstBlock + static_cast<std::int64_t>(count)) * FReader.BlockSize(), count == 0);
    ++count;
  }
  FKnown.Add(firstBlock, static_cast<std::int64_t>(count));
  const std::int64_t key = LostKeyOf(folder, first);
  if (BeginsFolder(first, 0)) FLostParents.try_emplace(key, ReadLe32(first, SecondRecord));
  WalkEntries({folder, key, true, true, 0});
  WalkWaiting();
  return static_cast<std::int64_t>(count);
}

void TVolumeWalk::AddNamelessFolders() {
  for (const auto& [key, above] : FLostParents) {
    if (key <= 0 || FFolderRows.contains(key) || above == 0 || above == static_cast<std::uint32_t>(key)) continue;
    const std::int64_t parent = KeyOf(above);
    const bool isKnown =
        parent == SpecialCluster::Root || FFolderRows.contains(parent) || FLostParents.contains(parent);
    if (!isKnown || FDrive.ParentClusters.Empty(key)) continue;
    const TString name = FEngine.Language().Format(TText::LostFolder, {NumberText(key & 0xFFFFFFFF)});
    TFiles::ClearInfo(FInfo, FDriveNumber);
    FInfo.strName = name;
    FInfo.blnDeleted = true;
    FInfo.FirstCluster = key;
    FSink(FInfo, parent);
    if (!GoOn()) return;
  }
}

// ---- inodes ---------------------------------------------------------------------------------

void TVolumeWalk::ReadInodeTables() {
  const TExtXInfo& info = Info();
  const std::int64_t size = info.InodeSize;
  std::int64_t unflagged = 0;
  TByteDynArray bytes;
  for (std::size_t group = 0; group < info.Groups.size() && !FStopped; ++group) {
    const auto firstInode = static_cast<std::uint32_t>(group * info.InodesPerGroup + 1);
    const std::int64_t position = FReader.InodePosition(firstInode);
    const std::int64_t used = info.InodesPerGroup - info.Groups[group].BlankInodes;
    if (position < 0 || used <= 0) continue;
    if (info.Groups[group].BlankInodes == 0) unflagged += used * size;
    if (unflagged > MostTableBytes) return;
    const std::int64_t step = std::max<std::int64_t>(TableReadSize / size, 1);
    for (std::int64_t at = 0; at < used && GoOn(); at += step) {
      const std::int64_t count = std::min(step, used - at);
      const std::int64_t place = position + at * size;
      if ((place + count * size) / FReader.BlockSize() >= FReader.Blocks()) break;
      bytes.resize(static_cast<std::size_t>(count * size));
      FReader.ReadBytes(place, bytes);
      for (std::int64_t i = 0; i < count && !FStopped; ++i) {
        const auto inode = std::span(bytes).subspan(static_cast<std::size_t>(i * size), static_cast<std::size_t>(size));
        const auto number = static_cast<std::uint32_t>(firstInode + at + i);
        if (IsWorthReading(inode)) ExamineInode(number, inode);
      }
    }
  }
  WalkWaiting();
}

/// The cheap look at an inode of a table.
bool TVolumeWalk::IsWorthReading(std::span<const std::uint8_t> bytes) const {
  const TFileType type = TypeOfMode(ReadLe16(bytes, 0));
  if (type == TFileType::ftDirectory) return true;
  return type == TFileType::ftRegularFile && HasContent(bytes);
}

void TVolumeWalk::ExamineInode(std::uint32_t number, std::span<const std::uint8_t> bytes) {
  constexpr std::uint32_t neverAFile = InodeFlag::ExtendedAttributeValue;
  if (number > Info().TotalInodeCount || number <= Info().ReservedInodes || number == Info().OrphanFile) return;
  const std::uint32_t flags = ReadLe32(bytes, 32);
  if (TypeOfMode(ReadLe16(bytes, 0)) == TFileType::ftDirectory) NoteFolderChecksums(number, ReadLe32(bytes, 100));
  if (number >= FShownInodes.size() || FShownInodes[number] || !HasContent(bytes) || (flags & neverAFile) != 0) return;
  TInode& inode = FInode;
  if (!ParseInode(bytes, FReader, TBlockList::Read, inode) || inode.Truncated) return;
  if (inode.Type == TFileType::ftDirectory) {
    TDirectoryEntry entry;
    entry.Inode = number;
    Queue(entry, true);
  } else {
    FNameless.push_back(number);
  }
}

/// "File", its number, and the extension of its content.
TString TVolumeWalk::NamelessName(std::uint32_t number, const TInode& inode) {
  constexpr std::int64_t headSize = 4096;
  TByteDynArray head = inode.Inline;
  if (!inode.IsInline && !inode.Blocks.empty() && inode.Blocks.front().Start > 0) {
    const std::int64_t stored = inode.Blocks.front().Count * FReader.BlockSize();
    head.resize(static_cast<std::size_t>(std::min({headSize, stored, inode.Size})));
    FReader.ReadBytes(inode.Blocks.front().Start * FReader.BlockSize(), head);
  }
  return FEngine.Language()[TText::FileType] + u" " + NumberText(number) +
         FEngine.Signatures().GetFileExtBySignature(head);
}

void TVolumeWalk::AddNamelessInodes() {
  for (const std::uint32_t number : FNameless) {
    if (!GoOn()) return;
    if (FShownInodes[number] || !ParseInode(FReader.Inode(number), FReader, TBlockList::Read, FInode)) continue;
    const bool stored = FInode.IsInline || std::any_of(FInode.Blocks.begin(), FInode.Blocks.end(),
                                                       [](const TDataBlock& run) { return run.Start != 0; });
    if (!stored || FInode.Truncated) continue;
    const TString name = NamelessName(number, FInode);
    TFiles::ClearInfo(FInfo, FDriveNumber);
    ApplyInode(FInode, FInfo);
    FInfo.strName = name;
    FInfo.blnDeleted = true;
    FInfo.FirstCluster = number;
    const std::int64_t position = std::max<std::int64_t>(FReader.InodePosition(number), 0);
    FInfo.FirstSector = position / std::max(FReader.Drive().BytesPerSector, 1);
    FInfo.OffsetInSector = static_cast<std::int32_t>(position % std::max(FReader.Drive().BytesPerSector, 1));
    AddRow(FInfo, SpecialCluster::LostAndFound);
    FShownInodes[number] = true;
  }
}

}  // namespace brenlow::ext

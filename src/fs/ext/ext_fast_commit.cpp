// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_fast_commit.h"

#include <algorithm>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/numbers.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_checksum.h"
#include "fs/ext/ext_directory.h"
#include "fs/ext/ext_inode.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow::ext {
namespace {

enum class TTag : std::uint16_t {
  AddRange = 1,
  DeleteRange = 2,
  Create = 3,
  Link = 4,
  Unlink = 5,
  Inode = 6,
  Pad = 7,
  Tail = 8,
  Head = 9,
};

constexpr std::size_t TagSize = 4;                  // tag and length
constexpr std::size_t BlockArea = 40;               // of an inode: where its list of blocks begins
constexpr std::size_t AfterBlockArea = 100;         // and what follows it
constexpr std::int64_t MostBlocks = 4096;           // of fast commits that are read
constexpr std::int64_t MostFolderBlocks = 1 << 16;  // read in search of the names of all folders together
constexpr std::size_t ExtentSize = 12;
constexpr std::size_t RootExtents = 4;  // that an inode has room for

void StoreLe(std::span<std::uint8_t> bytes, std::size_t at, std::uint64_t value, std::size_t size) {
  for (std::size_t i = 0; i < size && at + i < bytes.size(); ++i) {
    bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

struct TRecord {
  TTag Tag;
  std::vector<std::uint8_t> Value;
};

/// Blocks of a file by the place that they have in it; none is a hole.
using TExtents = std::map<std::int64_t, TDataBlock>;

/// The number of blocks that a file with these has.
std::int64_t EndOf(const TExtents& extents) {
  return extents.empty() ? 0 : extents.rbegin()->first + extents.rbegin()->second.Count;
}

/// Makes a hole of `count` blocks at `logical`.
void Cut(TExtents& extents, std::int64_t logical, std::int64_t count) {
  const std::int64_t end = logical + count;
  auto at = extents.upper_bound(logical);
  if (at != extents.begin()) --at;
  while (at != extents.end() && at->first < end) {
    const std::int64_t first = at->first;
    const TDataBlock run = at->second;
    if (first + run.Count <= logical) {
      ++at;
      continue;
    }
    at = extents.erase(at);
    if (first < logical) extents[first] = {run.Start, logical - first};
    if (first + run.Count > end) extents[end] = {run.Start + (end - first), first + run.Count - end};
  }
}

/// The records up to the last commit that is finished and whose checksum is right.
class TFastCommitLog {
 public:
  TFastCommitLog(TVolumeReader& reader, const TExtXJournal& journal, std::uint32_t sequence)
      : FReader(reader), FJournal(journal), FSequence(sequence) {}

  std::vector<TRecord> Read() {
    // The first block of the area is never written.
    const std::int64_t first = std::int64_t{FJournal.BlocksCount} - FJournal.FastCommitBlocks + 1;
    const std::int64_t end = std::min<std::int64_t>(FJournal.BlocksCount, first + MostBlocks);
    for (std::int64_t number = first; number < end; ++number) {
      const std::int64_t block = FJournal.Blocks[static_cast<std::size_t>(number)];
      TByteDynArray bytes(static_cast<std::size_t>(FReader.BlockSize()));
      if (block <= 0 || !FReader.ReadBytes(block * FReader.BlockSize(), bytes)) break;
      if (!ReadBlock(bytes, number == first)) break;
    }
    FRecords.resize(FFinished);
    return std::move(FRecords);
  }

 private:
  bool ReadBlock(std::span<const std::uint8_t> bytes, bool isFirst) {
    for (std::size_t at = 0; at + TagSize <= bytes.size();) {
      const auto tag = static_cast<TTag>(ReadLe16(bytes, at));
      const std::size_t length = ReadLe16(bytes, at + 2);
      if (length > bytes.size() - at - TagSize || (isFirst && at == 0 && tag != TTag::Head)) return false;
      if (!Take(tag, bytes.subspan(at, TagSize + length))) return false;
      at += TagSize + length;
    }
    return true;
  }

  bool Take(TTag tag, std::span<const std::uint8_t> whole) {
    const auto value = whole.subspan(TagSize);
    switch (tag) {
      case TTag::Head:
        if (ReadLe32(value, 0) != 0 || ReadLe32(value, 4) != FSequence) return false;
        break;
      case TTag::Tail:
        return value.size() >= 8 && ReadLe32(value, 0) == FSequence && Finish(whole);
      case TTag::Pad:
        break;
      case TTag::AddRange:
      case TTag::DeleteRange:
      case TTag::Create:
      case TTag::Link:
      case TTag::Unlink:
      case TTag::Inode:
        FRecords.push_back({tag, {value.begin(), value.end()}});
        break;
      default:
        return false;
    }
    FSum = Crc32c(FSum, whole);
    return true;
  }

  /// The checksum covers all since the last tail, and the tail up to itself.
  bool Finish(std::span<const std::uint8_t> tail) {
    constexpr std::size_t sumAt = TagSize + 4;
    if (Crc32c(FSum, tail.first(sumAt)) != ReadLe32(tail, sumAt)) return false;
    FSum = 0;
    FFinished = FRecords.size();
    return true;
  }

  TVolumeReader& FReader;
  const TExtXJournal& FJournal;
  std::uint32_t FSequence;
  std::uint32_t FSum = 0;
  std::vector<TRecord> FRecords;
  std::size_t FFinished = 0;  // records of finished commits
};

/// Carries the records out on blocks kept in memory. What needs new blocks (names that are added, long lists of
/// blocks) is put where the journal lies, whose own content is read past `TExtXInfo::Rebuilt`.
class TFastCommits {
 public:
  TFastCommits(TVolumeReader& reader, TExtXInfo& info)
      : FReader(reader), FInfo(info), FSpare(info.Journal.Blocks.size()) {}

  void Apply(const TRecord& record) {
    const std::span<const std::uint8_t> value = record.Value;
    const std::uint32_t first = ReadLe32(value, 0);
    switch (record.Tag) {
      case TTag::Inode:
        ReplaceInode(first, value.subspan(std::min<std::size_t>(4, value.size())));
        break;
      case TTag::AddRange:
        AddRange(first, value);
        break;
      case TTag::DeleteRange:
        if (TExtents* extents = ExtentsOf(first)) Cut(*extents, ReadLe32(value, 4), ReadLe32(value, 8));
        break;
      case TTag::Create:
      case TTag::Link:
        if (value.size() > 8) AddName(first, ReadLe32(value, 4), NameOf(value));
        break;
      case TTag::Unlink:
        if (value.size() > 8) RemoveName(first, ReadLe32(value, 4), NameOf(value));
        break;
      default:
        break;
    }
  }

  void Finish() {
    for (const auto& [inode, extents] : FExtents) StoreExtents(inode, extents);
  }

 private:
  /// A folder whose names were changed.
  struct TFolder {
    std::unordered_map<std::string, std::int64_t> Names;  // to the block that has them
    std::int64_t Block = 0;                               // takes added names; 0 while there is none
    std::size_t LastRecord = 0;                           // bytes from its start
    bool CanChange = false;
  };

  static std::string NameOf(std::span<const std::uint8_t> value) { return {value.begin() + 8, value.end()}; }

  // ---- blocks ----

  /// The block as it is to be read from now on; nullptr where it cannot be read.
  TByteDynArray* Rebuild(std::int64_t block) {
    const auto known = FInfo.Rebuilt.find(block);
    if (known != FInfo.Rebuilt.end()) return &known->second;
    TByteDynArray bytes(static_cast<std::size_t>(FReader.BlockSize()));
    if (!FReader.ReadBlocks(block, 1, bytes.data())) return nullptr;
    return &FInfo.Rebuilt.emplace(block, std::move(bytes)).first->second;
  }

  /// The number of a block for what is new; 0 when there are none left.
  std::int64_t TakeSpare() {
    while (FSpare > 0) {
      const std::int64_t block = FInfo.Journal.Blocks[--FSpare];
      if (block <= 0 || block >= FReader.Blocks()) continue;
      FInfo.Rebuilt[block].assign(static_cast<std::size_t>(FReader.BlockSize()), 0);
      return block;
    }
    return 0;
  }

  std::span<std::uint8_t> InodeBytes(std::uint32_t inode) {
    const std::int64_t position = FReader.InodePosition(inode);
    if (position < 0) return {};
    TByteDynArray* block = Rebuild(position / FReader.BlockSize());
    const auto offset = static_cast<std::size_t>(position % FReader.BlockSize());
    if (block == nullptr || offset + FInfo.InodeSize > block->size()) return {};
    return std::span(*block).subspan(offset, FInfo.InodeSize);
  }

  // ---- inodes ----

  /// Replaces all of an inode but its list of blocks, which the record does not bring up to date. The target of
  /// a short symbolic link and inline content do lie in the record.
  void ReplaceInode(std::uint32_t inode, std::span<const std::uint8_t> record) {
    const auto bytes = InodeBytes(inode);
    if (bytes.empty() || record.size() < AfterBlockArea + 4) return;
    const bool sameFile = ReadLe32(bytes, AfterBlockArea) == ReadLe32(record, AfterBlockArea);
    const bool hasExtents = (ReadLe32(record, 32) & InodeFlag::Extents) != 0;
    std::copy_n(record.begin(), BlockArea, bytes.begin());
    const std::size_t end = std::min(record.size(), bytes.size());
    std::copy(record.begin() + AfterBlockArea, record.begin() + static_cast<std::ptrdiff_t>(end),
              bytes.begin() + AfterBlockArea);
    if (!hasExtents) {
      std::copy(record.begin() + BlockArea, record.begin() + AfterBlockArea, bytes.begin() + BlockArea);
    } else if (!sameFile || ReadLe16(bytes, BlockArea) != ExtentNodeMark) {
      FExtents[inode].clear();
      StoreExtents(inode, {});
    }
  }

  /// The list of blocks that is being changed; nullptr for a file without extents.
  TExtents* ExtentsOf(std::uint32_t inode) {
    const auto known = FExtents.find(inode);
    if (known != FExtents.end()) return &known->second;
    const auto bytes = InodeBytes(inode);
    TInode parsed;
    if (!ParseInode(TByteDynArray(bytes.begin(), bytes.end()), FReader, TBlockList::Read, parsed)) return nullptr;
    const bool isFolder = parsed.Type == TFileType::ftDirectory;
    if (parsed.IsInline || (!isFolder && (parsed.Flags & InodeFlag::Extents) == 0)) return nullptr;
    TExtents extents;
    std::int64_t logical = 0;
    for (const TDataBlock& run : parsed.Blocks) {
      if (run.Start != 0) extents[logical] = run;
      logical += run.Count;
    }
    return &FExtents.emplace(inode, std::move(extents)).first->second;
  }

  void AddRange(std::uint32_t inode, std::span<const std::uint8_t> value) {
    constexpr std::int64_t longest = 32768;  // longer lengths are of extents that were never written
    if (value.size() < 4 + ExtentSize) return;
    TExtents* extents = ExtentsOf(inode);
    if (extents == nullptr) return;
    const std::int64_t logical = ReadLe32(value, 4);
    const std::int64_t length = ReadLe16(value, 8);
    const std::int64_t start = ReadLe32(value, 12) | std::int64_t{ReadLe16(value, 10)} << 32;
    Cut(*extents, logical, length > longest ? length - longest : length);
    if (length <= longest && length > 0) (*extents)[logical] = {start, length};
  }

  /// A node of a tree of extents: header, then one record each.
  static void StoreNode(std::span<std::uint8_t> node, std::size_t count, std::uint16_t depth) {
    StoreLe(node, 0, ExtentNodeMark, 2);
    StoreLe(node, 2, count, 2);
    StoreLe(node, 4, node.size() / ExtentSize - 1, 2);
    StoreLe(node, 6, depth, 2);
    StoreLe(node, 8, 0, 4);
  }

  /// Writes the records of one level, and the nodes above them, until they fit into the inode.
  void StoreExtents(std::uint32_t inode, const TExtents& extents) {
    constexpr std::int64_t longest = 32768;
    std::vector<TByteDynArray> records;
    for (const auto& [logical, run] : extents) {
      for (std::int64_t done = 0; done < run.Count; done += longest) {
        TByteDynArray record(ExtentSize);
        StoreLe(record, 0, static_cast<std::uint64_t>(logical + done), 4);
        StoreLe(record, 4, static_cast<std::uint64_t>(std::min(longest, run.Count - done)), 2);
        StoreLe(record, 6, static_cast<std::uint64_t>((run.Start + done) >> 32), 2);
        StoreLe(record, 8, static_cast<std::uint64_t>(run.Start + done), 4);
        records.push_back(std::move(record));
      }
    }
    std::uint16_t depth = 0;
    for (; records.size() > RootExtents; ++depth) {
      if (!StoreLevel(records, depth)) return;
    }
    const auto bytes = InodeBytes(inode);
    if (bytes.empty()) return;
    const auto root = bytes.subspan(BlockArea, AfterBlockArea - BlockArea);
    StoreNode(root, records.size(), depth);
    for (std::size_t i = 0; i < records.size(); ++i) {
      std::copy(records[i].begin(), records[i].end(), root.begin() + static_cast<std::ptrdiff_t>((i + 1) * ExtentSize));
    }
    StoreLe(bytes, 32, ReadLe32(bytes, 32) | InodeFlag::Extents, 4);
  }

  /// Puts records into blocks of their own and leaves in their place those that lead to the blocks.
  bool StoreLevel(std::vector<TByteDynArray>& records, std::uint16_t depth) {
    const std::size_t fit = static_cast<std::size_t>(FReader.BlockSize()) / ExtentSize - 1;
    std::vector<TByteDynArray> above;
    for (std::size_t first = 0; first < records.size(); first += fit) {
      const std::int64_t block = TakeSpare();
      if (block == 0) return false;
      TByteDynArray& node = FInfo.Rebuilt[block];
      const std::size_t count = std::min(fit, records.size() - first);
      StoreNode(node, count, depth);
      for (std::size_t i = 0; i < count; ++i) {
        std::copy(records[first + i].begin(), records[first + i].end(),
                  node.begin() + static_cast<std::ptrdiff_t>((i + 1) * ExtentSize));
      }
      TByteDynArray record(ExtentSize);
      std::copy_n(records[first].begin(), 4, record.begin());
      StoreLe(record, 4, static_cast<std::uint64_t>(block), 4);
      StoreLe(record, 8, static_cast<std::uint64_t>(block) >> 32, 2);
      above.push_back(std::move(record));
    }
    records = std::move(above);
    return true;
  }

  // ---- names ----

  TFolder& FolderOf(std::uint32_t inode) {
    const auto known = FFolders.find(inode);
    if (known != FFolders.end()) return known->second;
    TFolder& folder = FFolders[inode];
    const TExtents* extents = TypeOf(inode) == TFileType::ftDirectory ? ExtentsOf(inode) : nullptr;
    if (extents == nullptr) return folder;
    folder.CanChange = true;
    for (const auto& [logical, run] : *extents) {
      for (std::int64_t i = 0; i < run.Count && FFolderBlocks < MostFolderBlocks; ++i, ++FFolderBlocks) {
        NoteNames(folder, run.Start + i);
      }
    }
    return folder;
  }

  /// Calls `visit(position, previous)` for the records of a block; `previous` is that of the record before.
  template <typename TVisit>
  static void ForEachRecord(std::span<const std::uint8_t> block, const TVisit& visit) {
    std::size_t previous = 0;
    for (std::size_t at = 0; at + 12 <= block.size();) {
      const std::size_t length = RecordLength(block, at);
      if (length < 12 || length > block.size() - at) return;
      if (!visit(at, previous)) return;
      previous = at;
      at += length;
    }
  }

  static std::string RecordName(std::span<const std::uint8_t> block, std::size_t at) {
    const auto name = block.subspan(at + 8, std::min<std::size_t>(block[at + 6], block.size() - at - 8));
    return {name.begin(), name.end()};
  }

  void NoteNames(TFolder& folder, std::int64_t number) {
    const auto known = FInfo.Rebuilt.find(number);
    const auto block =
        known != FInfo.Rebuilt.end() ? std::span<const std::uint8_t>(known->second) : FReader.Block(number);
    ForEachRecord(block, [&](std::size_t at, std::size_t) {
      if (ReadLe32(block, at) != 0) folder.Names[RecordName(block, at)] = number;
      return true;
    });
  }

  TFileType TypeOf(std::uint32_t inode) {
    const auto bytes = InodeBytes(inode);
    return bytes.empty() ? TFileType::ftUnknown : TypeOfMode(ReadLe16(bytes, 0));
  }

  static std::uint8_t TypeByte(TFileType type) {
    constexpr TFileType types[] = {TFileType::ftUnknown,         TFileType::ftRegularFile, TFileType::ftDirectory,
                                   TFileType::ftCharacterDevice, TFileType::ftBlockDevice, TFileType::ftFIFO,
                                   TFileType::ftSocket,          TFileType::ftSymbolicLink};
    const auto* const found = std::find(std::begin(types), std::end(types), type);
    return found == std::end(types) ? 0 : static_cast<std::uint8_t>(found - std::begin(types));
  }

  /// Adds a block without names to the end of a folder.
  bool GrowFolder(std::uint32_t inode, TFolder& folder) {
    TExtents* extents = ExtentsOf(inode);
    const std::int64_t block = extents == nullptr ? 0 : TakeSpare();
    if (block == 0) return false;
    const std::int64_t blocks = EndOf(*extents);
    (*extents)[blocks] = {block, 1};
    StoreLe(InodeBytes(inode), 4, static_cast<std::uint64_t>((blocks + 1) * FReader.BlockSize()), 4);
    folder.Block = block;
    folder.LastRecord = 0;
    StoreLe(FInfo.Rebuilt[block], 4, std::min<std::size_t>(FInfo.Rebuilt[block].size(), 0xFFFF), 2);
    return true;
  }

  void AddName(std::uint32_t parent, std::uint32_t inode, const std::string& name) {
    const TFileType type = TypeOf(inode);
    if (type == TFileType::ftDirectory && inode != parent) BeginFolder(parent, inode);
    TFolder& folder = FolderOf(parent);
    if (!folder.CanChange || name.size() > 255 || folder.Names.count(name) != 0) return;
    if (const auto bytes = InodeBytes(inode); !bytes.empty() && ReadLe16(bytes, 26) == 0) StoreLe(bytes, 26, 1, 2);
    if (!Append(folder, inode, TypeByte(type), name) &&
        (!GrowFolder(parent, folder) || !Append(folder, inode, TypeByte(type), name))) {
      return;
    }
    folder.Names[name] = folder.Block;
  }

  /// A folder that was made: its own block was not committed.
  void BeginFolder(std::uint32_t parent, std::uint32_t inode) {
    if (FFolders.count(inode) != 0) return;
    FExtents[inode].clear();
    TFolder& folder = FolderOf(inode);
    if (!folder.CanChange || !GrowFolder(inode, folder)) return;
    constexpr std::uint8_t folderType = 2;
    Append(folder, inode, folderType, ".");
    Append(folder, parent, folderType, "..");
  }

  /// Puts a record after the last one of the block for added names. False when there is no room.
  bool Append(TFolder& folder, std::uint32_t inode, std::uint8_t type, const std::string& name) {
    const auto known = FInfo.Rebuilt.find(folder.Block);
    if (folder.Block == 0 || known == FInfo.Rebuilt.end()) return false;
    TByteDynArray& block = known->second;
    const auto sizeOf = [](std::size_t length) { return (8 + length + 3) / 4 * 4; };
    std::size_t at = 0;
    if (ReadLe32(block, folder.LastRecord) != 0) at = folder.LastRecord + sizeOf(block[folder.LastRecord + 6]);
    if (at + sizeOf(name.size()) > block.size()) return false;
    if (at != folder.LastRecord) StoreLe(block, folder.LastRecord + 4, at - folder.LastRecord, 2);
    StoreLe(block, at, inode, 4);
    StoreLe(block, at + 4, std::min<std::size_t>(block.size() - at, 0xFFFF), 2);
    block[at + 6] = static_cast<std::uint8_t>(name.size());
    block[at + 7] = type;
    std::copy(name.begin(), name.end(), block.begin() + static_cast<std::ptrdiff_t>(at + 8));
    folder.LastRecord = at;
    return true;
  }

  /// Takes a name away as the file system does: the record before it grows over it.
  void RemoveName(std::uint32_t parent, std::uint32_t inode, const std::string& name) {
    TFolder& folder = FolderOf(parent);
    const auto found = folder.Names.find(name);
    if (found == folder.Names.end()) return;
    TByteDynArray* block = Rebuild(found->second);
    bool removed = false;
    if (block != nullptr) {
      ForEachRecord(*block, [&](std::size_t at, std::size_t previous) {
        if (ReadLe32(*block, at) != inode || RecordName(*block, at) != name) return true;
        const std::size_t length = RecordLength(*block, at);
        if (at == previous) {
          StoreLe(*block, at, 0, 4);
        } else {
          StoreLe(*block, previous + 4, at + length - previous, 2);
        }
        if (found->second == folder.Block && folder.LastRecord == at) folder.LastRecord = previous;
        removed = true;
        return false;
      });
    }
    if (!removed) return;
    folder.Names.erase(found);
    const auto bytes = InodeBytes(inode);
    if (bytes.empty()) return;
    const std::uint32_t links = ReadLe16(bytes, 26);
    const bool isFolder = TypeOf(inode) == TFileType::ftDirectory;
    StoreLe(bytes, 26, isFolder || links == 0 ? 0 : links - 1, 2);
  }

  TVolumeReader& FReader;
  TExtXInfo& FInfo;
  std::size_t FSpare;  // blocks of the journal that are not taken yet, from its start
  std::unordered_map<std::uint32_t, TExtents> FExtents;
  std::unordered_map<std::uint32_t, TFolder> FFolders;
  std::int64_t FFolderBlocks = 0;  // read so far
};

}  // namespace

void ApplyFastCommits(TVolumeReader& reader, TExtXInfo& info, std::uint32_t sequence) {
  if (info.Journal.FastCommitBlocks == 0) return;
  const std::vector<TRecord> records = TFastCommitLog(reader, info.Journal, sequence).Read();
  TFastCommits commits(reader, info);
  for (const TRecord& record : records) commits.Apply(record);
  commits.Finish();
}

}  // namespace brenlow::ext

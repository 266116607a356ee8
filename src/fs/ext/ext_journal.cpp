// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_journal.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <unordered_map>

#include "core/engine.h"
#include "core/numbers.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_fast_commit.h"
#include "fs/ext/ext_inode.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow::ext {
namespace {

constexpr std::uint32_t DescriptorType = 1;
constexpr std::uint32_t CommitType = 2;
constexpr std::uint32_t RevokeType = 5;
constexpr std::size_t HeaderSize = 12;        // mark, type, sequence
constexpr std::int64_t MostBlocks = 1 << 24;  // of a journal
constexpr std::int64_t ReadSize = 1 << 19;    // bytes of the journal read together

bool IsMarked(std::span<const std::uint8_t> block) {
  return block.size() >= HeaderSize && std::equal(std::begin(JournalMark), std::end(JournalMark), block.begin());
}

/// A copy that a descriptor announces.
struct TTag {
  std::int64_t Block = 0;
  bool Escaped = false;
};

/// The sizes of tags: with checksums of version 3 a form of their own; with those of version 2 the checksum's
/// two bytes are counted twice by every implementation.
std::size_t TagSize(const TExtXJournal& journal) {
  if (journal.JBD2_FEATURE_INCOMPAT_CSUM_V3) return 16;
  return (journal.JBD2_FEATURE_INCOMPAT_64BIT ? 12U : 8U) + (journal.JBD2_FEATURE_INCOMPAT_CSUM_V2 ? 2U : 0U);
}

std::deque<TTag> ReadTags(std::span<const std::uint8_t> block, const TExtXJournal& journal) {
  constexpr std::uint32_t escaped = 1;
  constexpr std::uint32_t sameUuid = 2;
  constexpr std::uint32_t last = 8;
  constexpr std::size_t uuidSize = 16;
  const std::size_t size = TagSize(journal);
  const bool version3 = journal.JBD2_FEATURE_INCOMPAT_CSUM_V3;
  std::deque<TTag> tags;
  for (std::size_t at = HeaderSize; at + size <= block.size();) {
    const std::uint32_t flags = version3 ? ReadBe32(block, at + 4) : ReadBe16(block, at + 6);
    const std::int64_t high = journal.JBD2_FEATURE_INCOMPAT_64BIT ? ReadBe32(block, at + 8) : 0;
    tags.push_back({ReadBe32(block, at) | high << 32, (flags & escaped) != 0});
    if ((flags & last) != 0) break;
    at += size + ((flags & sameUuid) != 0 ? 0 : uuidSize);
  }
  return tags;
}

/// Reads blocks of the journal in order, many at a time.
class TJournalBlocks {
 public:
  TJournalBlocks(TVolumeReader& reader, const TExtXJournal& journal) : FReader(reader), FJournal(journal) {}

  /// Empty where it cannot be read. Good until the next call.
  std::span<std::uint8_t> Get(std::uint32_t number) {
    if (number >= FJournal.Blocks.size()) return {};
    const auto size = static_cast<std::size_t>(FReader.BlockSize());
    if (number < FFirst || number >= FFirst + FCount) Fetch(number);
    if (number < FFirst || number >= FFirst + FCount) return {};
    return std::span(FBytes).subspan((number - FFirst) * size, size);
  }

 private:
  void Fetch(std::uint32_t number) {
    const std::int64_t start = FJournal.Blocks[number];
    const std::int64_t most = std::max<std::int64_t>(ReadSize / FReader.BlockSize(), 1);
    FFirst = number;
    FCount = 0;
    if (start <= 0) return;
    std::int64_t count = 1;
    while (count < most && number + count < static_cast<std::int64_t>(FJournal.Blocks.size()) &&
           FJournal.Blocks[static_cast<std::size_t>(number + count)] == start + count) {
      ++count;
    }
    FBytes.resize(static_cast<std::size_t>(count * FReader.BlockSize()));
    if (FReader.ReadBytes(start * FReader.BlockSize(), FBytes)) {
      FCount = static_cast<std::uint32_t>(count);
    } else if (FReader.ReadBytes(start * FReader.BlockSize(),
                                 std::span(FBytes).first(static_cast<std::size_t>(FReader.BlockSize())))) {
      FCount = 1;
    }
  }

  TVolumeReader& FReader;
  const TExtXJournal& FJournal;
  TByteDynArray FBytes;
  std::uint32_t FFirst = 0;
  std::uint32_t FCount = 0;
};

/// The block after another one in the log, which begins anew at its end.
std::uint32_t NextInLog(const TExtXJournal& journal, std::uint32_t block) {
  return block + 1 < journal.BlocksCount - journal.FastCommitBlocks ? block + 1 : journal.FirstBlock;
}

/// An inode made of what the superblock keeps of the journal's.
TByteDynArray InodeFromBackup(const TExtXInfo& info) {
  TByteDynArray bytes(std::max<std::size_t>(info.InodeSize, 128), 0);
  const TByteDynArray& backup = info.Journal.InodeBackup;
  if (backup.size() < 68) return {};
  bytes[1] = 0x80;  // a regular file
  std::copy_n(backup.begin(), 60, bytes.begin() + 40);
  std::copy_n(backup.begin() + 64, 4, bytes.begin() + 4);
  std::copy_n(backup.begin() + 60, 4, bytes.begin() + 108);
  if (ReadLe16(bytes, 40) == 0xF30A) bytes[34] = 0x08;  // its blocks are told by extents
  return bytes;
}

/// Takes the blocks of the inode as those of the journal. False when they do not begin one.
bool TakeInode(TVolumeReader& reader, std::span<const std::uint8_t> bytes, TExtXJournal& journal) {
  TInode inode;
  const TByteDynArray copy(bytes.begin(), bytes.end());
  if (!ParseInode(copy, reader, TBlockList::Read, inode) || inode.Type != TFileType::ftRegularFile) return false;
  journal.Size = inode.Size;
  journal.Blocks.clear();
  for (const TDataBlock& run : inode.Blocks) {
    for (std::int64_t i = 0; i < run.Count; ++i) {
      if (static_cast<std::int64_t>(journal.Blocks.size()) >= MostBlocks) break;
      journal.Blocks.push_back(run.Start == 0 ? 0 : run.Start + i);
    }
  }
  if (journal.Blocks.empty() || journal.Blocks.front() == 0) return false;
  TByteDynArray head(1024);
  reader.ReadBytes(journal.Blocks.front() * reader.BlockSize(), head);
  const std::uint32_t type = ReadBe32(head, 4);
  if (!IsMarked(head) || (type != 3 && type != 4)) return false;
  const std::uint32_t features = type == 4 ? ReadBe32(head, 40) : 0;
  constexpr std::uint32_t fastCommit = 0x20;
  journal.BlockSize = ReadBe32(head, 12);
  journal.BlocksCount = std::min<std::uint32_t>(ReadBe32(head, 16), static_cast<std::uint32_t>(journal.Blocks.size()));
  journal.FirstBlock = std::max(ReadBe32(head, 20), 1U);
  journal.StartSequence = ReadBe32(head, 24);
  journal.StartBlock = ReadBe32(head, 28);
  journal.JBD2_FEATURE_INCOMPAT_64BIT = features % 4 / 2 == 1;
  journal.JBD2_FEATURE_INCOMPAT_CSUM_V2 = features % 16 / 8 == 1;
  journal.JBD2_FEATURE_INCOMPAT_CSUM_V3 = features % 32 / 16 == 1;
  if ((features & fastCommit) != 0) {
    const std::uint32_t stated = ReadBe32(head, 84);
    journal.FastCommitBlocks = std::min(stated == 0 ? 256 : stated, journal.BlocksCount / 2);
  }
  return journal.BlockSize == reader.BlockSize() && journal.BlocksCount > 1;
}

/// Finds out what a volume that was not unmounted is to be given from its journal: the copies of finished
/// transactions from the oldest one on, but for those that a later transaction takes back.
class TReplay {
 public:
  TReplay(TVolumeReader& reader, const TExtXJournal& journal) : FJournal(journal), FBlocks(reader, journal) {}

  /// The sequence of the transaction after the last that was finished.
  std::uint32_t Run(std::unordered_map<std::int64_t, TExtXReplayed>& result) {
    std::uint32_t at = FJournal.StartBlock;
    std::uint32_t sequence = FJournal.StartSequence;
    for (std::uint32_t steps = 0; steps < FJournal.BlocksCount; ++steps) {
      const auto block = FBlocks.Get(at);
      if (!IsMarked(block) || ReadBe32(block, 8) != sequence) break;
      const std::uint32_t type = ReadBe32(block, 4);
      if (type == DescriptorType) {
        for (const TTag& tag : ReadTags(block, FJournal)) {
          at = NextInLog(FJournal, at);
          ++steps;
          FPending.push_back({tag.Block, sequence, at, tag.Escaped});
        }
      } else if (type == RevokeType) {
        NoteRevoked(block, sequence);
      } else if (type == CommitType) {
        Commit();
        ++sequence;
      } else {
        break;
      }
      at = NextInLog(FJournal, at);
    }
    for (const TExtXLoggedBlock& copy : FCommitted) {
      const auto revoked = FRevoked.find(copy.Block);
      if (revoked != FRevoked.end() && FJournal.Order(copy.Sequence) <= FJournal.Order(revoked->second)) continue;
      if (copy.JournalBlock >= FJournal.Blocks.size()) continue;
      result[copy.Block] = {FJournal.Blocks[copy.JournalBlock], copy.Escaped};
    }
    return sequence;
  }

 private:
  void NoteRevoked(std::span<const std::uint8_t> block, std::uint32_t sequence) {
    const std::size_t size = FJournal.JBD2_FEATURE_INCOMPAT_64BIT ? 8 : 4;
    const std::size_t end = std::min<std::size_t>(ReadBe32(block, 12), block.size());
    for (std::size_t at = 16; at + size <= end; at += size) {
      FPendingRevoked.emplace_back(static_cast<std::int64_t>(ReadNumber(block, false, size, at)), sequence);
    }
  }
  void Commit() {
    FCommitted.insert(FCommitted.end(), FPending.begin(), FPending.end());
    for (const auto& [block, sequence] : FPendingRevoked) FRevoked[block] = sequence;
    FPending.clear();
    FPendingRevoked.clear();
  }

  const TExtXJournal& FJournal;
  TJournalBlocks FBlocks;
  std::vector<TExtXLoggedBlock> FPending;  // of the transaction in hand
  std::vector<std::pair<std::int64_t, std::uint32_t>> FPendingRevoked;
  std::vector<TExtXLoggedBlock> FCommitted;
  std::unordered_map<std::int64_t, std::uint32_t> FRevoked;  // block to the last transaction that took it back
};

}  // namespace

bool OpenJournal(TEngine& engine, TDriveInfo& drive) {
  TExtXInfo& info = ExtXInfo(drive);
  info.Replayed.clear();
  info.Rebuilt.clear();
  if (info.Journal.Inode == 0 || !IsFilled(info)) return false;
  TVolumeReader reader(engine, drive);
  TExtXJournal journal = info.Journal;
  const bool found =
      TakeInode(reader, reader.Inode(journal.Inode), journal) || TakeInode(reader, InodeFromBackup(info), journal);
  if (!found) {
    info.Journal.Blocks.clear();
    return false;
  }
  info.Journal = std::move(journal);
  if (info.NeedsRecovery && info.Journal.StartBlock != 0) {
    const std::uint32_t sequence = TReplay(reader, info.Journal).Run(info.Replayed);
    TVolumeReader replayed(engine, drive);  // its pieces are those after the replay
    ApplyFastCommits(replayed, info, sequence);
  }
  return true;
}

void SweepJournal(TVolumeReader& reader, TExtXJournal& journal, const std::function<bool(const TLoggedCopy&)>& visit) {
  journal.Logged.clear();
  journal.Sequences.assign(journal.BlocksCount, 0);
  TJournalBlocks blocks(reader, journal);
  std::deque<TTag> pending;
  std::uint32_t sequence = 0;
  const std::uint32_t end = journal.BlocksCount - journal.FastCommitBlocks;
  // A transaction that reaches the end of the log goes on at its start.
  const std::uint64_t most = std::uint64_t{end} * 2;
  std::uint32_t number = 1;
  for (std::uint64_t step = 1; step < most; ++step, ++number) {
    if (number >= end) {
      if (pending.empty()) break;
      number = journal.FirstBlock;
    }
    if (step >= end && pending.empty()) break;
    const auto block = blocks.Get(number);
    if (IsMarked(block)) {
      pending.clear();
      if (step >= end) break;
      if (ReadBe32(block, 4) == DescriptorType) {
        pending = ReadTags(block, journal);
        sequence = ReadBe32(block, 8);
      }
      continue;
    }
    if (pending.empty()) continue;
    const TTag tag = pending.front();
    pending.pop_front();
    if (block.empty() || journal.Sequences[number] != 0) continue;
    if (tag.Escaped) std::memcpy(block.data(), JournalMark, sizeof(JournalMark));
    journal.Sequences[number] = sequence;
    journal.Logged.push_back({tag.Block, sequence, number, tag.Escaped});
    if (!visit({tag.Block, sequence, number, block})) break;
  }
  std::sort(journal.Logged.begin(), journal.Logged.end(), [&](const auto& a, const auto& b) {
    return a.Block != b.Block ? a.Block < b.Block : journal.Order(a.Sequence) < journal.Order(b.Sequence);
  });
}

}  // namespace brenlow::ext

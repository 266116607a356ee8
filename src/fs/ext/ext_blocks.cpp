// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_blocks.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/ext/ext_journal.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow::ext {
namespace {

constexpr std::int64_t PieceSize = 16384;  // bytes read and kept together
constexpr std::size_t Pieces = 512;        // that are kept

}  // namespace

// ---- sets of blocks -------------------------------------------------------------------------

bool TBlockSet::Add(std::int64_t first, std::int64_t count) {
  if (first < 0 || count <= 0 || first >= FSize) return false;
  const std::int64_t end = count > FSize - first ? FSize : first + count;
  std::uint64_t before = 0;
  for (std::int64_t at = first; at < end;) {
    const auto bit = static_cast<unsigned>(at % 64);
    const std::int64_t bits = std::min<std::int64_t>(64 - bit, end - at);
    const std::uint64_t mask = (bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1) << bit;
    std::uint64_t& word = FBits[static_cast<std::size_t>(at / 64)];
    before |= word & mask;
    word |= mask;
    at += bits;
  }
  return before != 0;
}

std::int64_t TBlockSet::NextAbsent(std::int64_t block) const {
  for (std::int64_t at = std::max<std::int64_t>(block, 0); at < FSize; at = (at / 64 + 1) * 64) {
    const std::uint64_t absent = ~FBits[static_cast<std::size_t>(at / 64)] >> (at % 64);
    if (absent != 0) return std::min(at + std::countr_zero(absent), FSize);
  }
  return FSize;
}

std::int64_t TBlockSet::AbsentRun(std::int64_t block, std::int64_t limit) const {
  if (block < 0 || block >= FSize) return 0;
  const std::int64_t end = limit < FSize - block ? block + limit : FSize;
  for (std::int64_t at = block; at < end; at = (at / 64 + 1) * 64) {
    const std::uint64_t present = FBits[static_cast<std::size_t>(at / 64)] >> (at % 64);
    if (present != 0) return std::min(at + std::countr_zero(present), end) - block;
  }
  return end - block;
}

// ---- reading --------------------------------------------------------------------------------

TVolumeReader::TVolumeReader(TEngine& engine, const TDriveInfo& drive)
    : FEngine(engine),
      FDrive(drive),
      FInfo(ExtXInfo(drive)),
      FBlockSize(std::max<std::int64_t>(ExtXInfo(drive).BlockSize, 512)),
      FPieceBlocks(std::max<std::int64_t>(PieceSize / FBlockSize, 1)),
      FPieces(Pieces) {
  const std::int64_t sectors = std::max<std::int64_t>(engine.Reader().DeviceSectors(drive) - drive.FirstSector, 0);
  const std::int64_t perBlock = std::max<std::int64_t>(FBlockSize / std::max(drive.BytesPerSector, 1), 1);
  FBlocks = std::min(FInfo.TotalBlockCount, sectors / perBlock + 1);
}

std::int64_t TVolumeReader::SectorOf(std::int64_t block) const {
  return block * FBlockSize / std::max(FDrive.BytesPerSector, 1);
}

bool TVolumeReader::ReadBytes(std::int64_t position, std::span<std::uint8_t> bytes) {
  const std::int64_t sectorSize = std::max(FDrive.BytesPerSector, 1);
  const std::int64_t first = position / sectorSize;
  const std::int64_t end = CeilDiv(position + static_cast<std::int64_t>(bytes.size()), sectorSize);
  const auto skip = static_cast<std::size_t>(position - first * sectorSize);
  const auto length = static_cast<std::size_t>((end - first) * sectorSize);
  const bool whole = skip == 0 && length == bytes.size();
  if (!whole) FSectors.resize(length);
  const std::span<std::uint8_t> target = whole ? bytes : std::span(FSectors);
  bool read =
      FEngine.Reader().ReadDriveSectors(FDrive, target.data(), FDrive.FirstSector + first, end - first) == length;
  if (!read) {
    read = FEngine.Reader().ReadOrZero(FDrive, target, FDrive.FirstSector + first, TReadEffort::Content) == 0 &&
           FDrive.FirstSector + end <= FEngine.Reader().DeviceSectors(FDrive);
  }
  if (!whole) std::memcpy(bytes.data(), FSectors.data() + skip, bytes.size());
  return read;
}

bool TVolumeReader::ReadStored(std::int64_t first, std::int64_t count, std::uint8_t* place) {
  return ReadBytes(first * FBlockSize, {place, static_cast<std::size_t>(count * FBlockSize)});
}

/// The block of the volume where the newest copy of `block` up to the transaction in force lies; -1 for none.
std::int64_t TVolumeReader::CopyAsOf(std::int64_t block, bool& escaped) const {
  const auto& logged = FInfo.Journal.Logged;
  const TExtXLoggedBlock wanted{block, FSequence, 0, false};
  auto after = std::upper_bound(logged.begin(), logged.end(), wanted, [this](const auto& a, const auto& b) {
    const TExtXJournal& journal = FInfo.Journal;
    return a.Block != b.Block ? a.Block < b.Block : journal.Order(a.Sequence) < journal.Order(b.Sequence);
  });
  if (after == logged.begin() || std::prev(after)->Block != block) return -1;
  const TExtXLoggedBlock& copy = *std::prev(after);
  escaped = copy.Escaped;
  return copy.JournalBlock < FInfo.Journal.Blocks.size() ? FInfo.Journal.Blocks[copy.JournalBlock] : -1;
}

/// Puts the state of a block there that the journal has. False when it has none.
bool TVolumeReader::ReadReplayed(std::int64_t block, std::uint8_t* place) {
  bool escaped = false;
  std::int64_t from = FSequence != 0 ? CopyAsOf(block, escaped) : -1;
  if (FSequence == 0) {
    const auto rebuilt = FInfo.Rebuilt.find(block);
    if (rebuilt != FInfo.Rebuilt.end()) {
      std::copy(rebuilt->second.begin(), rebuilt->second.end(), place);
      return true;
    }
  }
  if (from < 0) {
    const auto replayed = FInfo.Replayed.find(block);
    if (replayed == FInfo.Replayed.end()) return false;
    from = replayed->second.VolumeBlock;
    escaped = replayed->second.Escaped;
  }
  if (from <= 0 || !ReadStored(from, 1, place)) return false;
  if (escaped) std::memcpy(place, JournalMark, sizeof(JournalMark));
  return true;
}

bool TVolumeReader::ReadBlocks(std::int64_t first, std::int64_t count, std::uint8_t* place) {
  if (first < 0 || count <= 0 || first > FBlocks || count > FBlocks - first) return false;
  const bool read = ReadStored(first, count, place);
  if (FInfo.Replayed.empty() && FInfo.Rebuilt.empty() && FSequence == 0) return read;
  bool all = read;
  for (std::int64_t i = 0; i < count; ++i) {
    const bool replayed = ReadReplayed(first + i, place + i * FBlockSize);
    all = all || (replayed && count == 1);
  }
  return all;
}

const TVolumeReader::TPiece& TVolumeReader::PieceOf(std::int64_t number) {
  TPiece& piece = FPieces[static_cast<std::size_t>(number) % FPieces.size()];
  if (piece.Number == number) return piece;
  piece.Number = number;
  piece.Unread.clear();
  const std::int64_t first = number * FPieceBlocks;
  const std::int64_t count = std::min(FPieceBlocks, FBlocks - first);
  piece.Bytes.resize(static_cast<std::size_t>(count * FBlockSize));
  if (ReadBlocks(first, count, piece.Bytes.data())) return piece;
  piece.Unread.assign(static_cast<std::size_t>(count), false);
  for (std::int64_t i = 0; i < count; ++i) {
    piece.Unread[static_cast<std::size_t>(i)] = !ReadBlocks(first + i, 1, piece.Bytes.data() + i * FBlockSize);
  }
  return piece;
}

std::span<const std::uint8_t> TVolumeReader::Block(std::int64_t block) {
  if (block < 0 || block >= FBlocks) return {};
  if (FSequence != 0) {
    FScratch.resize(static_cast<std::size_t>(FBlockSize));
    return ReadBlocks(block, 1, FScratch.data()) ? std::span<const std::uint8_t>(FScratch)
                                                 : std::span<const std::uint8_t>();
  }
  const TPiece& piece = PieceOf(block / FPieceBlocks);
  const auto index = static_cast<std::size_t>(block % FPieceBlocks);
  if (index < piece.Unread.size() && piece.Unread[index]) return {};
  const auto offset = index * static_cast<std::size_t>(FBlockSize);
  if (offset + static_cast<std::size_t>(FBlockSize) > piece.Bytes.size()) return {};
  return std::span(piece.Bytes).subspan(offset, static_cast<std::size_t>(FBlockSize));
}

// ---- inodes ---------------------------------------------------------------------------------

std::int64_t TVolumeReader::InodePosition(std::uint32_t inode) const {
  if (inode == 0 || FInfo.InodesPerGroup == 0) return -1;
  const std::uint32_t group = (inode - 1) / FInfo.InodesPerGroup;
  if (group >= FInfo.Groups.size()) return -1;
  // The tables of a flexible group follow each other. Where a group's own descriptor says otherwise (a
  // volume that has grown), it is right.
  const std::uint32_t first = group - group % FInfo.FlexibleBlockGroupsSize;
  const std::int64_t within = std::int64_t{inode - 1 - group * FInfo.InodesPerGroup} * FInfo.InodeSize;
  const std::int64_t own = FInfo.Groups[group].InodesLocation;
  if (own > 0 && own < FInfo.TotalBlockCount) return own * FBlockSize + within;
  const std::int64_t shared = FInfo.Groups[first].InodesLocation;
  if (shared <= 0 || shared >= FInfo.TotalBlockCount) return -1;
  return shared * FBlockSize + std::int64_t{group - first} * FInfo.InodesPerGroup * FInfo.InodeSize + within;
}

std::span<const std::uint8_t> TVolumeReader::Inode(std::uint32_t inode) {
  const std::int64_t position = InodePosition(inode);
  if (position < 0) return {};
  const auto size = std::size_t{FInfo.InodeSize};
  const auto offset = static_cast<std::size_t>(position % FBlockSize);
  const auto block = Block(position / FBlockSize);
  if (block.empty()) return {};
  if (offset + size <= block.size()) return block.subspan(offset, size);
  TByteDynArray joined(block.begin() + static_cast<std::ptrdiff_t>(offset), block.end());
  const auto next = Block(position / FBlockSize + 1);
  if (next.size() < size - joined.size()) return {};
  joined.insert(joined.end(), next.begin(), next.begin() + static_cast<std::ptrdiff_t>(size - joined.size()));
  FSectors = std::move(joined);
  return FSectors;
}

std::uint32_t TVolumeReader::FirstInodeOf(std::int64_t block) const {
  if (FTables.empty()) {
    const std::int64_t blocks = CeilDiv(std::int64_t{FInfo.InodesPerGroup} * FInfo.InodeSize, FBlockSize);
    for (std::size_t group = 0; group < FInfo.Groups.size(); ++group) {
      const auto first = static_cast<std::uint32_t>(group * FInfo.InodesPerGroup + 1);
      const std::int64_t position = InodePosition(first);
      if (position < 0) continue;
      FTables.push_back({position / FBlockSize, position / FBlockSize + blocks, first});
    }
    std::sort(FTables.begin(), FTables.end(), [](const TTable& a, const TTable& b) { return a.First < b.First; });
    if (FTables.empty()) FTables.push_back({-1, -1, 0});
  }
  auto table = std::upper_bound(FTables.begin(), FTables.end(), block,
                                [](std::int64_t wanted, const TTable& t) { return wanted < t.First; });
  if (table == FTables.begin()) return 0;
  --table;
  if (block >= table->End || FInfo.InodeSize == 0) return 0;
  return table->FirstInode + static_cast<std::uint32_t>((block - table->First) * FBlockSize / FInfo.InodeSize);
}

}  // namespace brenlow::ext

// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_log.h"

#include <algorithm>
#include <unordered_map>

#include "core/types.h"

namespace brenlow::xfs {
namespace {

constexpr std::int64_t Sector = 512;  // bytes, whatever the sectors of the volume
constexpr std::uint32_t RecordMark = 0xFEEDBABE;
constexpr std::uint32_t TransactionMark = Mark("TRAN");
constexpr std::int64_t WordsOfHeader = 64;    // sectors of a body whose first words a header sector has
constexpr std::int64_t MostBody = 0x40000;    // bytes; records of up to 256 KiB exist
constexpr std::int64_t WindowSize = 1 << 20;  // bytes
constexpr std::uint16_t InodeItem = 0x123B;
constexpr std::uint16_t BufferItem = 0x123C;
constexpr std::size_t OperationHead = 12;  // bytes
constexpr std::size_t MostRegions = 4096;  // of an item
constexpr std::size_t MostOpen = 4096;     // transactions

namespace OperationFlag {
constexpr std::uint8_t Start = 1;
constexpr std::uint8_t Commit = 2;
constexpr std::uint8_t WasContinued = 8;
}  // namespace OperationFlag

namespace Fields {  // of an inode item
constexpr std::uint32_t LocalData = 2;
constexpr std::uint32_t Extents = 4;
constexpr std::uint32_t Tree = 8;
}  // namespace Fields

/// A record of the log.
struct TRecord {
  std::uint64_t Position = 0;  // cycle and block
  std::int64_t At = 0;         // byte of its header
  std::uint32_t Cycle = 0;
  std::int64_t HeaderSectors = 1;
  std::int64_t BodyBytes = 0;
};

bool ReadRecordHeader(TBytes sector, std::int64_t at, TRecord& record) {
  constexpr std::uint32_t usualBuffer = 32768;  // bytes that one header sector serves
  const std::uint32_t version = ReadBe32(sector, 8);
  if (ReadBe32(sector, 0) != RecordMark || version < 1 || version > 2) return false;
  record.At = at;
  record.Cycle = ReadBe32(sector, 4);
  record.BodyBytes = ReadBe32(sector, 12);
  record.Position = ReadBe64(sector, 16);
  const std::uint32_t buffer = ReadBe32(sector, 320);
  record.HeaderSectors = version == 2 && buffer > usualBuffer ? CeilDiv(buffer, usualBuffer) : 1;
  return record.BodyBytes <= MostBody && record.HeaderSectors <= MostBody / usualBuffer;
}

/// All records, the oldest first.
std::vector<TRecord> FindRecords(std::int64_t size, const TReadLog& read) {
  std::vector<TRecord> records;
  TByteDynArray window;
  std::int64_t start = 0;
  for (std::int64_t at = 0; at + Sector <= size;) {
    if (at >= start + static_cast<std::int64_t>(window.size())) {
      start = at;
      window.resize(static_cast<std::size_t>(std::min(WindowSize, size - at)));
      read(at, window);
    }
    TRecord record;
    if (!ReadRecordHeader(TBytes(window).subspan(static_cast<std::size_t>(at - start), Sector), at, record)) {
      at += Sector;
      continue;
    }
    records.push_back(record);
    at += (record.HeaderSectors + CeilDiv(record.BodyBytes, Sector)) * Sector;
  }
  std::stable_sort(records.begin(), records.end(),
                   [](const TRecord& a, const TRecord& b) { return a.Position < b.Position; });
  return records;
}

/// The body of a record as it was before it was written, as far as nothing newer lies over it: each sector of the
/// log begins with the number of its cycle, and what stood there is in the header. It goes on at the start of the
/// log where that ends.
void ReadBody(const TRecord& record, std::uint32_t lastCycle, std::int64_t size, const TReadLog& read,
              TByteDynArray& body) {
  const std::int64_t sectors = record.HeaderSectors + CeilDiv(record.BodyBytes, Sector);
  TByteDynArray bytes(static_cast<std::size_t>(sectors * Sector));
  const std::int64_t atEnd = std::clamp<std::int64_t>(size - record.At, 0, sectors * Sector);
  const auto whole = std::span(bytes);
  read(record.At, whole.first(static_cast<std::size_t>(atEnd)));
  const auto wrapped = whole.subspan(static_cast<std::size_t>(atEnd));
  if (!wrapped.empty() && static_cast<std::int64_t>(wrapped.size()) <= size) read(0, wrapped);
  body.clear();
  for (std::int64_t i = record.HeaderSectors; i < sectors; ++i) {
    const auto sector = whole.subspan(static_cast<std::size_t>(i * Sector), Sector);
    const std::uint32_t cycle = ReadBe32(sector, 0);
    const std::uint32_t newest = record.Cycle + (i * Sector >= atEnd ? 1 : 0);
    if (cycle == RecordMark || (cycle > newest && cycle <= lastCycle)) break;
    // 64 words in the header, and 64 more in each sector that goes on with it.
    const std::int64_t index = i - record.HeaderSectors;
    const std::int64_t page = index / WordsOfHeader;
    if (page < record.HeaderSectors) {
      const std::int64_t words = page * Sector + (page == 0 ? 44 : 4);
      std::copy_n(bytes.begin() + words + index % WordsOfHeader * 4, 4, sector.begin());
    }
    body.insert(body.end(), sector.begin(), sector.end());
  }
  body.resize(std::min(body.size(), static_cast<std::size_t>(record.BodyBytes)));
}

// ---- items ----------------------------------------------------------------------------------

/// Reads the numbers of an item in the order of the machine that wrote it.
struct TItemReader {
  TBytes Bytes;
  bool LittleEndian;
  std::uint64_t Number(std::size_t at, std::size_t size) const { return ReadNumber(Bytes, LittleEndian, size, at); }
};

/// The type of an item in either byte order; 0 for what is none.
std::uint16_t TypeOf(TBytes region, bool& littleEndian) {
  for (const bool little : {true, false}) {
    const std::uint64_t type = ReadNumber(region, little, 2, 0);
    if (type < 0x1230 || type > 0x125F) continue;
    littleEndian = little;
    return static_cast<std::uint16_t>(type);
  }
  return 0;
}

/// The core of an inode as on the disk. Its fields lie where they do there, in the order of the machine.
TByteDynArray ImageOfCore(TBytes core, bool littleEndian, std::size_t inodeSize) {
  struct TField {
    std::uint8_t At;
    std::uint8_t Size;
  };
  static constexpr TField fields[] = {{0, 2},    {2, 2},    {6, 2},    {8, 4},    {12, 4},   {16, 4},
                                      {20, 2},   {22, 2},   {0x38, 8}, {0x40, 8}, {0x48, 4}, {0x4C, 4},
                                      {0x50, 2}, {0x54, 4}, {0x58, 2}, {0x5A, 2}, {0x5C, 4}, {0x60, 4},
                                      {0x68, 8}, {0x70, 8}, {0x78, 8}, {0x80, 4}, {0x98, 8}};
  constexpr std::uint64_t bigTime = 8;
  constexpr std::uint64_t largeCounts = 16;
  TByteDynArray image(core.begin(), core.begin() + static_cast<std::ptrdiff_t>(std::min(core.size(), inodeSize)));
  image.resize(inodeSize);
  if (!littleEndian) return image;
  const auto swap = [&](std::size_t at, std::size_t size) {
    if (at + size <= core.size())
      std::reverse(image.begin() + static_cast<std::ptrdiff_t>(at),
                   image.begin() + static_cast<std::ptrdiff_t>(at + size));
  };
  const bool wide = core.size() > 4 && core[4] >= 3;
  const std::uint64_t flags = wide ? ReadNumber(core, true, 8, 0x78) : 0;
  for (const TField& field : fields) {
    if (field.At < 0x64 || wide) swap(field.At, field.Size);
  }
  if ((flags & largeCounts) != 0) swap(0x18, 8);
  for (const std::size_t at : {0x20U, 0x28U, 0x30U, 0x90U}) {
    if (at == 0x90U && !wide) break;
    if ((flags & bigTime) != 0) {
      swap(at, 8);
    } else {
      swap(at, 4);
      swap(at + 4, 4);
    }
  }
  return image;
}

/// The root of a tree of extents: the log has it as in memory, like a block of the tree, the disk without the
/// header and with room for as many pointers as the fork has.
void PutTreeRoot(TBytes root, std::span<std::uint8_t> fork) {
  const std::size_t header = ReadBe32(root, 0) == Mark("BMA3") ? 72 : 24;
  if (root.size() < header || fork.size() < 4) return;
  const std::size_t logged = (root.size() - header) / 16;
  const std::size_t room = (fork.size() - 4) / 16;
  const std::size_t count = std::min<std::size_t>({ReadBe16(root, 6), logged, room});
  std::copy_n(root.begin() + 4, 2, fork.begin());
  fork[2] = static_cast<std::uint8_t>(count >> 8);
  fork[3] = static_cast<std::uint8_t>(count);
  const auto copy = [&](std::size_t from, std::size_t to) {
    std::copy_n(root.begin() + static_cast<std::ptrdiff_t>(from), count * 8,
                fork.begin() + static_cast<std::ptrdiff_t>(to));
  };
  copy(header, 4);
  copy(header + logged * 8, 4 + room * 8);
}

class TItems {
 public:
  TItems(const TXFSInfo& info, ILogSink& sink) : FInfo(info), FSink(sink) {}

  /// The operations of a record's body.
  void WalkBody(TBytes body, std::uint64_t position) {
    FPosition = position;
    for (std::size_t at = 0; at + OperationHead <= body.size();) {
      const std::uint32_t transaction = ReadBe32(body, at);
      const std::size_t length = ReadBe32(body, at + 4);
      const std::uint8_t flags = body[at + 9];
      at += OperationHead;
      if (length > body.size() - at) return;
      WalkOperation(transaction, flags, body.subspan(at, length));
      at += length;
    }
  }

 private:
  struct TItem {
    std::vector<TByteDynArray> Regions;
    std::size_t Wanted = 0;
  };

  void WalkOperation(std::uint32_t transaction, std::uint8_t flags, TBytes payload) {
    if ((flags & OperationFlag::Start) != 0 || FOpen.size() > MostOpen) FOpen.erase(transaction);
    TItem& item = FOpen[transaction];
    if ((flags & OperationFlag::WasContinued) != 0 && !item.Regions.empty()) {
      TByteDynArray& region = item.Regions.back();
      region.insert(region.end(), payload.begin(), payload.end());
    } else if (!payload.empty()) {
      FinishIfWhole(item);
      AddRegion(item, payload);
    }
    if ((flags & OperationFlag::Commit) == 0) return;
    FinishIfWhole(item);
    FOpen.erase(transaction);
  }

  void AddRegion(TItem& item, TBytes payload) {
    if (item.Regions.empty()) {
      bool little = false;
      if (TypeOf(payload, little) == 0) return;  // the head of a transaction, or the rest of what began before the log
      item.Wanted = std::min<std::size_t>(ReadNumber(payload, little, 2, 2), MostRegions);
    }
    item.Regions.emplace_back(payload.begin(), payload.end());
  }

  /// A region may go on in the next operation, so an item ends when the next one begins.
  void FinishIfWhole(TItem& item) {
    if (item.Regions.empty() || item.Regions.size() < item.Wanted) return;
    bool little = false;
    const std::uint16_t type = TypeOf(item.Regions.front(), little);
    if (type == InodeItem) FinishInode(item, little);
    if (type == BufferItem) FinishBuffer(item, little);
    item.Regions.clear();
  }

  void FinishInode(const TItem& item, bool little) {
    constexpr std::size_t wholeHead = 56;  // bytes; 52 where it was not padded to 8
    const TItemReader head{item.Regions.front(), little};
    if (item.Regions.size() < 2 || head.Bytes.size() < 52) return;
    TLoggedInode inode;
    inode.Inode = static_cast<std::int64_t>(head.Number(head.Bytes.size() >= wholeHead ? 16 : 12, 8));
    inode.Position = FPosition;
    const TByteDynArray& core = item.Regions[1];
    inode.Image = ImageOfCore(core, little, FInfo.InodeSize);
    if (InodePlace(FInfo, inode.Inode) < 0 || ReadBe16(inode.Image, 0) != InodeMark || inode.Image[4] > 3) return;
    const auto fields = static_cast<std::uint32_t>(head.Number(4, 4));
    const std::size_t start = inode.Image[4] == 3 ? 176 : 100;
    if ((fields & (Fields::LocalData | Fields::Extents | Fields::Tree)) != 0 && item.Regions.size() > 2) {
      const TByteDynArray& fork = item.Regions[2];
      const auto room = std::span(inode.Image).subspan(std::min(start, inode.Image.size()));
      std::fill(room.begin(), room.end(), std::uint8_t{0});
      if ((fields & Fields::Tree) != 0) {
        const std::size_t stated = std::size_t{inode.Image[0x52]} * 8;
        PutTreeRoot(fork, room.first(stated == 0 ? room.size() : std::min(stated, room.size())));
      } else {
        std::copy_n(fork.begin(), std::min(fork.size(), room.size()), room.begin());
      }
      inode.HasFork = true;
    }
    FSink.Inode(std::move(inode));
  }

  void FinishBuffer(const TItem& item, bool little) {
    constexpr std::size_t chunk = 128;  // bytes that a bit stands for
    constexpr std::uint16_t cancelled = 2;
    const TItemReader head{item.Regions.front(), little};
    if ((head.Number(4, 2) & cancelled) != 0) return;
    TLoggedBlock block;
    block.Position = FPosition;
    block.Size = static_cast<std::int64_t>(head.Number(6, 2)) * Sector;
    block.Sector = static_cast<std::int64_t>(head.Number(8, 8));
    if (block.Size <= 0 || block.Size > LargestBlock || block.Sector < 0) return;
    const std::size_t bits = static_cast<std::size_t>(block.Size) / chunk;
    const auto isSet = [&](std::size_t bit) {
      return bit < bits && (head.Number(20 + bit / 32 * 4, 4) >> (bit % 32) & 1) != 0;
    };
    std::size_t bit = 0;
    for (std::size_t i = 1; i < item.Regions.size(); ++i) {
      while (bit < bits && !isSet(bit)) ++bit;
      const std::size_t first = bit;
      if (first == bits) break;
      const TBytes bytes = item.Regions[i];
      bit = std::min(bits, first + std::max<std::size_t>(bytes.size() / chunk, 1));
      block.Pieces.push_back({first * chunk, bytes.first(std::min(bytes.size(), (bits - first) * chunk))});
    }
    FSink.Block(block);
  }

  const TXFSInfo& FInfo;
  ILogSink& FSink;
  std::uint64_t FPosition = 0;
  std::unordered_map<std::uint32_t, TItem> FOpen;  // by the number of the transaction
};

}  // namespace

void WalkLog(const TXFSInfo& info, std::int64_t size, const TReadLog& read, ILogSink& sink) {
  size = size / Sector * Sector;
  if (size < Sector) return;
  const std::vector<TRecord> records = FindRecords(size, read);
  std::uint32_t lastCycle = 0;
  for (const TRecord& record : records) lastCycle = std::max(lastCycle, record.Cycle);
  TItems items(info, sink);
  TByteDynArray body;
  for (std::size_t i = 0; i < records.size(); ++i) {
    ReadBody(records[i], lastCycle, size, read, body);
    items.WalkBody(body, records[i].Position);
    if (!sink.GoOn(static_cast<double>(i + 1) / static_cast<double>(records.size()))) return;
  }
}

}  // namespace brenlow::xfs

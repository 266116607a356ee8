// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_directory.h"

#include <algorithm>

namespace brenlow::xfs {
namespace {

constexpr std::uint32_t SingleMark = Mark("XD2B");
constexpr std::uint32_t DataMark = Mark("XD2D");
constexpr std::uint32_t SingleMark5 = Mark("XDB3");
constexpr std::uint32_t DataMark5 = Mark("XDD3");
constexpr std::uint16_t FreeTag = 0xFFFF;
constexpr std::size_t Alignment = 8;  // bytes, of entries and free slots
constexpr std::size_t EntryHead = 9;  // bytes before the name
constexpr std::size_t TailSize = 8;   // bytes: counts of the index of a single block

std::string_view TextOf(TBytes bytes, std::size_t at, std::size_t length) {
  return {reinterpret_cast<const char*>(bytes.data()) + at, length};
}

bool IsName(std::string_view name) {
  return !name.empty() && name.find('\0') == std::string_view::npos && name.find('/') == std::string_view::npos;
}

/// Bytes that an entry with a name of that length takes; its last two are its own place in the block.
std::size_t EntrySize(const TXFSInfo& info, std::size_t nameLength) {
  const std::size_t size = EntryHead + nameLength + (info.FlagInodeTypeInDir ? 1 : 0) + 2;
  return (size + Alignment - 1) / Alignment * Alignment;
}

/// Parses the entry at a place. Its size; 0 when there is none that ends before `end`.
std::size_t ReadEntry(const TXFSInfo& info, TBytes block, std::size_t at, std::size_t end, TFileEntry& entry) {
  if (at + 16 > end) return 0;
  const std::size_t length = block[at + 8];
  const std::size_t size = EntrySize(info, length);
  if (length == 0 || at + size > end) return 0;
  entry.FileName = TextOf(block, at + EntryHead, length);
  entry.FileType = info.FlagInodeTypeInDir ? TypeOfByte(block[at + EntryHead + length]) : TFileType::ftUnknown;
  entry.Inode = static_cast<std::int64_t>(ReadBe64(block, at));
  return size;
}

bool StatesPlace(TBytes block, std::size_t at, std::size_t size) { return ReadBe16(block, at + size - 2) == at; }

bool IsDots(std::string_view name) { return name == "." || name == ".."; }

/// Where the entries of a block end: before the index of a single block.
std::size_t EntriesEnd(const TXFSInfo& info, TBytes block, const TDirectoryBlock& head) {
  if (!head.Single) return block.size();
  // The index ends the directory block. A shorter buffer holds no index; neither does what states too large a one.
  if (block.size() < static_cast<std::size_t>(DirectoryBlockSize(info)) || block.size() < TailSize) {
    return block.size();
  }
  const std::size_t entries = ReadBe32(block, block.size() - TailSize);
  const std::size_t room = (block.size() - head.HeaderSize - TailSize) / 8;
  return entries > room ? block.size() : block.size() - TailSize - entries * 8;
}

/// An entry that may have been deleted. Of the entries of a free slot, which is several joined ones, only the
/// last has lost its own place to that of the slot: `slotEnd` says where it ends.
std::size_t ReadDeletedEntry(const TXFSInfo& info, TBytes block, std::size_t at, std::size_t slotEnd,
                             TFileEntry& entry) {
  const std::size_t size = ReadEntry(info, block, at, std::min(slotEnd, block.size()), entry);
  if (size == 0 || !IsName(entry.FileName) || IsDots(entry.FileName)) return 0;
  if (!StatesPlace(block, at, size) && at + size != slotEnd) return 0;
  entry.Inode = ReadBe16(block, at) == FreeTag ? ReadBe32(block, at + 4) : entry.Inode;
  entry.Deleted = true;
  return InodePlace(info, entry.Inode) < 0 || entry.Inode == 0 ? 0 : size;
}

bool WalkFreeSlot(const TXFSInfo& info, TBytes block, std::size_t start, std::size_t end, const TEntrySink& sink) {
  TFileEntry entry;
  for (std::size_t at = start; at + 16 <= end;) {
    const std::size_t size = ReadDeletedEntry(info, block, at, end, entry);
    if (size > 0 && !sink(entry)) return false;
    at += size > 0 ? size : Alignment;
  }
  return true;
}

}  // namespace

TFileType TypeOfByte(std::uint8_t type) {
  constexpr TFileType types[] = {TFileType::ftUnknown,         TFileType::ftRegularFile, TFileType::ftDirectory,
                                 TFileType::ftCharacterDevice, TFileType::ftBlockDevice, TFileType::ftFIFO,
                                 TFileType::ftSocket,          TFileType::ftSymbolicLink};
  return type < std::size(types) ? types[type] : TFileType::ftUnknown;
}

TDirectoryBlock ReadDirectoryBlock(const TXFSInfo& info, TBytes block) {
  TDirectoryBlock head;
  const std::uint32_t mark = ReadBe32(block, 0);
  const bool wide = mark == SingleMark5 || mark == DataMark5;
  if (!wide && mark != SingleMark && mark != DataMark) return head;
  head.HeaderSize = wide ? 64 : 16;
  if (block.size() < head.HeaderSize) return {};
  head.Single = mark == SingleMark5 || mark == SingleMark;
  if (wide) head.Owner = static_cast<std::int64_t>(ReadBe64(block, 0x28));
  TFileEntry self;
  TFileEntry parent;
  const std::size_t size = ReadEntry(info, block, head.HeaderSize, block.size(), self);
  if (size == 0 || self.FileName != ".") return head;
  head.Owner = self.Inode;
  if (ReadEntry(info, block, head.HeaderSize + size, block.size(), parent) > 0 && parent.FileName == "..") {
    head.Parent = parent.Inode;
  }
  return head;
}

void WalkDirectoryBlock(const TXFSInfo& info, TBytes block, const TEntrySink& sink) {
  const TDirectoryBlock head = ReadDirectoryBlock(info, block);
  if (head.HeaderSize == 0) return;
  const std::size_t end = EntriesEnd(info, block, head);
  TFileEntry entry;
  for (std::size_t at = head.HeaderSize; at + Alignment <= end;) {
    if (ReadBe16(block, at) == FreeTag) {
      const std::size_t length = ReadBe16(block, at + 2);
      if (length < Alignment || length % Alignment != 0 || at + length > end) return;
      if (!WalkFreeSlot(info, block, at, at + length, sink)) return;
      at += length;
      continue;
    }
    entry.Deleted = false;
    const std::size_t size = ReadEntry(info, block, at, end, entry);
    if (size == 0) return;
    if (IsName(entry.FileName) && !IsDots(entry.FileName) && !sink(entry)) return;
    at += size;
  }
}

void WalkDirectoryPieces(const TXFSInfo& info, TBytes block, const TEntrySink& sink) {
  TFileEntry entry;
  for (std::size_t at = 0; at + 16 <= block.size();) {
    const std::size_t size = ReadDeletedEntry(info, block, at, SIZE_MAX, entry);
    if (size > 0 && !sink(entry)) return;
    at += size > 0 ? size : Alignment;
  }
}

bool WalkShortDirectory(const TXFSInfo& info, TBytes fork, std::int64_t& parent, std::int64_t& size,
                        const TEntrySink& sink) {
  if (fork.size() < 6) return false;
  const std::size_t width = fork[1] > 0 ? 8 : 4;
  const std::size_t count = fork[0] > 0 ? fork[0] : fork[1];
  parent = static_cast<std::int64_t>(ReadNumber(fork, false, width, 2));
  if (InodePlace(info, parent) < 0) return false;
  std::size_t at = 2 + width;
  TFileEntry entry;
  for (std::size_t i = 0; i < count; ++i) {
    if (at >= fork.size()) return false;
    const std::size_t length = fork[at];
    const std::size_t end = at + 3 + length + (info.FlagInodeTypeInDir ? 1 : 0) + width;
    if (length == 0 || end > fork.size()) return false;
    entry.FileName = TextOf(fork, at + 3, length);
    entry.FileType = info.FlagInodeTypeInDir ? TypeOfByte(fork[at + 3 + length]) : TFileType::ftUnknown;
    entry.Inode = static_cast<std::int64_t>(ReadNumber(fork, false, width, end - width));
    if (!IsName(entry.FileName)) return false;
    if (!sink(entry)) break;
    at = end;
  }
  size = static_cast<std::int64_t>(at);
  return true;
}

}  // namespace brenlow::xfs

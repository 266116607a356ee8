// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/apfs/apfs_node.h"

#include <algorithm>

namespace brenlow::apfs {

namespace {

constexpr std::size_t TableStart = 56;  // bytes: header of the object and of the node
constexpr std::size_t InfoSize = 40;    // at the end of a root

std::string_view TextAt(TBytes bytes, std::size_t at, std::size_t length) {
  if (at > bytes.size() || bytes.size() - at < length) return {};
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()) + at, length);
  return text.substr(0, text.find('\0'));
}

/// Local time of nanoseconds since 1970; 0 for none.
TDateTime FromNanoseconds(std::int64_t time) {
  constexpr std::int64_t from1601 = 116'444'736'000'000'000;  // units of 100 ns
  return time == 0 ? 0 : FromFileTime(static_cast<std::uint64_t>(time / 100 + from1601));
}

void ReadExtendedFields(TBytes fields, TInode& inode) {
  constexpr std::uint8_t nameField = 4;
  constexpr std::uint8_t dataField = 8;
  const std::size_t count = ReadLe16(fields, 0);
  std::size_t at = 4 + count * 4;
  for (std::size_t i = 0; i < count; ++i) {
    if (4 + i * 4 + 4 > fields.size()) return;
    const std::uint8_t type = fields[4 + i * 4];
    const std::size_t size = ReadLe16(fields, 4 + i * 4 + 2);
    if (at > fields.size() || fields.size() - at < size) return;
    if (type == nameField) inode.Name = TextAt(fields, at, size);
    if (type == dataField && size >= 8) inode.Size = std::max<std::int64_t>(Id(fields, at), 0);
    at += (size + 7) / 8 * 8;
  }
}

}  // namespace

bool IsSound(TBytes object) {
  constexpr std::uint64_t modulus = 0xFFFFFFFF;
  if (object.size() < 64 || object.size() % 4 != 0) return false;
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  for (std::size_t at = 8; at < object.size(); at += 4) {
    low = (low + ReadLe32(object, at)) % modulus;
    high = (high + low) % modulus;
  }
  const std::uint64_t first = modulus - (low + high) % modulus;
  const std::uint64_t second = modulus - (low + first) % modulus;
  return ReadLe64(object, 0) == (second << 32 | first);
}

std::optional<TNode> TNode::From(TBytes block, std::uint16_t subtype) {
  constexpr std::uint16_t rootFlag = 1;
  const std::uint16_t type = TypeOf(block);
  if (block.size() <= TableStart + InfoSize || (type != TreeRoot && type != TreeNode)) return std::nullopt;
  if (ReadLe32(block, 28) != subtype) return std::nullopt;
  TNode node;
  node.FBlock = block;
  node.FFlags = ReadLe16(block, 32);
  node.FLevel = ReadLe16(block, 34);
  node.FCount = ReadLe32(block, 36);
  node.FKeys = TableStart + ReadLe16(block, 42);
  node.FValueEnd = block.size() - ((node.FFlags & rootFlag) != 0 ? InfoSize : 0);
  const std::size_t entrySize = (node.FFlags & 4) != 0 ? 4 : 8;
  if (node.FKeys > node.FValueEnd || node.FCount > (node.FKeys - TableStart) / entrySize) return std::nullopt;
  if (node.IsLeaf() != (node.FLevel == 0)) return std::nullopt;
  return node;
}

bool TNode::Entry(std::uint32_t index, TEntry& entry) const {
  constexpr std::size_t fixedKey = 16;
  constexpr std::uint16_t noValue = 0xFFFF;
  if (index >= FCount) return false;
  const bool fixed = (FFlags & 4) != 0;
  const std::size_t at = TableStart + ReadLe16(FBlock, 40) + index * (fixed ? 4U : 8U);
  const std::size_t key = FKeys + ReadLe16(FBlock, at);
  const std::size_t keySize = fixed ? fixedKey : ReadLe16(FBlock, at + 2);
  const std::uint16_t value = ReadLe16(FBlock, at + (fixed ? 2 : 4));
  const std::size_t valueSize = !fixed ? ReadLe16(FBlock, at + 6) : IsLeaf() ? 16 : 8;
  if (keySize < 8 || key > FValueEnd || FValueEnd - key < keySize) return false;
  entry.Key = FBlock.subspan(key, keySize);
  entry.Offset = key;
  entry.Value = {};
  if (value == noValue) return true;
  if (value > FValueEnd - FKeys || value < valueSize) return false;
  entry.Value = FBlock.subspan(FValueEnd - value, valueSize);
  return true;
}

bool ReadInode(TBytes value, TInode& inode) {
  constexpr std::size_t fieldsAt = 92;
  constexpr std::uint32_t compressedFlag = 0x20;  // of the flags that chflags(2) sets
  if (value.size() < fieldsAt) return false;
  inode.ParentID = Id(value, 0);
  inode.PrivateID = Id(value, 8);
  inode.TimeStamp = {.dtCreated = FromNanoseconds(Id(value, 16)),
                     .dtModified = FromNanoseconds(Id(value, 24)),
                     .dtAccessed = FromNanoseconds(Id(value, 40)),
                     .dtMetadataModified = FromNanoseconds(Id(value, 32))};
  inode.Compressed = (ReadLe32(value, 68) & compressedFlag) != 0;
  inode.FileType = FileTypeOf(ReadLe16(value, 80) >> 12);
  ReadExtendedFields(value.subspan(fieldsAt), inode);
  return true;
}

std::string_view DirectoryName(TBytes key) {
  const std::size_t hashed = ReadLe32(key, 8) & 0x3FF;
  if (key.size() == 12 + hashed) return TextAt(key, 12, hashed);
  const std::size_t plain = ReadLe16(key, 8);
  return key.size() == 10 + plain ? TextAt(key, 10, plain) : TextAt(key, 12, hashed);
}

std::string_view AttributeName(TBytes key) { return TextAt(key, 10, ReadLe16(key, 8)); }

}  // namespace brenlow::apfs

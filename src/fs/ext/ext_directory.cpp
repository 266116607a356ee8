// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_directory.h"

#include <algorithm>

#include "core/numbers.h"
#include "core/text.h"
#include "fs/ext/ext_checksum.h"

namespace brenlow::ext {
namespace {

constexpr std::size_t RecordHead = 8;    // bytes before the name
constexpr std::size_t SmallestRest = 6;  // fewer bytes end a walk
constexpr std::size_t SmallestRecord = 12;

TFileType TypeOfRecord(std::uint8_t type) {
  switch (type) {
    case 1:
      return TFileType::ftRegularFile;
    case 2:
      return TFileType::ftDirectory;
    case 3:
      return TFileType::ftCharacterDevice;
    case 4:
      return TFileType::ftBlockDevice;
    case 5:
      return TFileType::ftFIFO;
    case 6:
      return TFileType::ftSocket;
    case 7:
      return TFileType::ftSymbolicLink;
    default:
      return TFileType::ftUnknown;
  }
}

/// Bytes that a name can have.
bool IsSoundName(std::span<const std::uint8_t> name) {
  return !name.empty() &&
         std::none_of(name.begin(), name.end(), [](std::uint8_t c) { return c < 0x20 || c == '/' || c == 0x7F; });
}

/// What an unlinked record may say without being bytes of something else.
bool IsSoundRemnant(std::span<const std::uint8_t> bytes, std::size_t at, std::span<const std::uint8_t> name,
                    const TBlockRules& rules) {
  const std::uint32_t inode = ReadLe32(bytes, at);
  if (rules.LastInode == 0) return true;
  return inode > 0 && inode <= rules.LastInode && ReadNumber(bytes, true, 1, at + 7) <= 7 && IsSoundName(name);
}

/// The next place in a gap where an unlinked record with all its fields begins; `end` when there is none.
std::size_t NextRemnant(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t end,
                        const TBlockRules& rules) {
  if (rules.LastInode == 0) return end;
  for (at = (at + 3) / 4 * 4; at + SmallestRecord <= end; at += 4) {
    const std::size_t length = ReadNumber(bytes, true, 1, at + 6);
    const std::uint32_t record = ReadLe16(bytes, at + 4);
    const bool fits = length > 0 && at + RecordHead + length <= end && record % 4 == 0 && record >= RecordHead + length;
    if (fits && IsSoundRemnant(bytes, at, bytes.subspan(at + RecordHead, length), rules)) return at;
  }
  return end;
}

}  // namespace

bool TDirectoryEntries::Add(TDirectoryEntry entry, std::span<const std::uint8_t> name) {
  entry.NameStart = static_cast<std::uint32_t>(FNames.size());
  if (std::all_of(name.begin(), name.end(), [](std::uint8_t c) { return c > 0x20 && c < 0x80; })) {
    FNames.append(name.begin(), name.end());
  } else {
    const TString text = FromUtf8({reinterpret_cast<const char*>(name.data()), name.size()});
    const TStringView trimmed = Trim(text);
    FNames += trimmed.empty() ? TStringView(text) : trimmed;
  }
  entry.NameLength = static_cast<std::uint16_t>(FNames.size() - entry.NameStart);
  if (entry.NameLength == 0) return false;
  FEntries.push_back(entry);
  return true;
}

std::uint32_t RecordLength(std::span<const std::uint8_t> bytes, std::size_t at) {
  constexpr std::size_t largeBlock = 65536;
  const std::uint32_t stored = ReadLe16(bytes, at + 4);
  if (bytes.size() % largeBlock != 0 || bytes.empty()) return stored;
  if (stored == 0xFFFF || stored == 0) return largeBlock;
  return (stored & 0xFFFC) | (stored & 3) << 16;
}

bool BeginsFolder(std::span<const std::uint8_t> bytes, std::size_t start) {
  if (start > bytes.size() || bytes.size() - start < 24) return false;
  const auto is = [&](std::size_t at, std::uint8_t value) { return bytes[start + at] == value; };
  return is(4, 12) && is(5, 0) && is(6, 1) && is(7, 2) && is(8, '.') && is(9, 0) && is(10, 0) && is(11, 0) &&
         is(18, 2) && is(19, 2) && is(20, '.') && is(21, '.') && is(22, 0) && is(23, 0);
}

std::uint32_t ChecksumSeedOf(std::span<const std::uint8_t> block) {
  constexpr std::size_t tailSize = 12;
  constexpr std::uint8_t tailType = 0xDE;
  if (block.size() < tailSize) return 0;
  const std::size_t tail = block.size() - tailSize;
  const bool isTail = ReadLe32(block, tail) == 0 && ReadLe16(block, tail + 4) == tailSize && block[tail + 6] == 0 &&
                      block[tail + 7] == tailType;
  return isTail ? Crc32cSeed(ReadLe32(block, tail + 8), block.first(tail)) : 0;
}

bool IsFolderBlock(std::span<const std::uint8_t> block, std::uint32_t lastInode) {
  std::size_t at = 0;
  bool named = false;
  while (at + SmallestRecord <= block.size()) {
    const std::size_t length = RecordLength(block, at);
    const std::uint32_t inode = ReadLe32(block, at);
    const std::size_t name = block[at + 6];
    if (length % 4 != 0 || length < SmallestRecord || length > block.size() - at || name + RecordHead > length) {
      return false;
    }
    if (inode > lastInode || (inode != 0 && (name == 0 || block[at + 7] > 7))) return false;
    if (inode != 0 && !IsSoundName(block.subspan(at + RecordHead, name))) return false;
    named = named || inode != 0;
    at += length;
  }
  return named && at == block.size();
}

TBlockWalk WalkDirectoryBlock(std::span<const std::uint8_t> bytes, std::size_t start, const TBlockRules& rules,
                              TDirectoryEntries& entries) {
  if (rules.TestSignature && rules.MayBegin && !BeginsFolder(bytes, start)) return {};
  std::size_t at = start;
  std::size_t end = 0;  // of the record in use
  while (at < bytes.size()) {
    if (bytes.size() - at < SmallestRest) return {false, at - start};
    const bool live = at >= end;
    if (live) {
      const std::uint32_t length = RecordLength(bytes, at);
      if (length == 0) return {false, at - start};
      end = at + length;
    }
    const std::size_t nameLength = ReadNumber(bytes, true, 1, at + 6);
    std::size_t size = nameLength == 0 ? 0 : (RecordHead + nameLength + 3) / 4 * 4;
    if (!live && at + size > bytes.size()) size = 0;
    if (size == 0) {
      // Room without a record; another one may lie further on in it.
      const std::size_t limit = std::min(end, bytes.size());
      at = std::min(end, live ? at + RecordHead : std::max(at + 4, NextRemnant(bytes, at + 4, limit, rules)));
      if (live) at = std::min(end, NextRemnant(bytes, at, limit, rules));
      if (at >= limit) at = end;
      continue;
    }
    const std::size_t nameStart = std::min(at + RecordHead, bytes.size());
    std::size_t nameEnd = std::min(nameStart + nameLength, bytes.size());
    if (!live) nameEnd = std::min(nameEnd, std::max(end, nameStart));
    auto name = bytes.subspan(nameStart, nameEnd - nameStart);
    if (!live) {
      const auto zero = std::find(name.begin(), name.end(), 0);
      if (zero != name.end()) {
        name = name.first(static_cast<std::size_t>(zero - name.begin()));
        size = name.size() + RecordHead;
      }
    }
    const bool isDot = name.size() == 1 && name[0] == '.';
    if (isDot && live && !(rules.MayBegin && at == start)) return {false, at - start};
    TDirectoryEntry entry;
    entry.Inode = ReadLe32(bytes, at);
    entry.Deleted = !live || (entry.Inode == 0 && rules.LastInode != 0);
    entry.FileType = TypeOfRecord(static_cast<std::uint8_t>(ReadNumber(bytes, true, 1, at + 7)));
    entry.Position = static_cast<std::int64_t>(at);
    if (!live && (isDot || !IsSoundRemnant(bytes, at, name, rules))) {
      const std::size_t limit = std::min(end, bytes.size());
      at = std::min(end, rules.LastInode == 0 ? at + size : NextRemnant(bytes, at + 4, limit, rules));
      if (at >= limit) at = end;
      continue;
    }
    if (!live || entry.Inode != 0 || rules.LastInode == 0 || IsSoundName(name)) entries.Add(entry, name);
    at = std::min(end, at + size);
  }
  return {true, bytes.size() - start};
}

}  // namespace brenlow::ext

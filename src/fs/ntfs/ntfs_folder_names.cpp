// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs_folder_names.h"

#include <algorithm>
#include <cstring>

#include "core/drives.h"
#include "core/numbers.h"
#include "fs/ntfs/ntfs_record.h"
#include "fs/ntfs/ntfs_references.h"

namespace brenlow::ntfs {
namespace {

constexpr std::size_t EntryLength = 8;  // offsets in an entry
constexpr std::size_t KeyLength = 0x0A;
constexpr std::size_t Key = 0x10;
constexpr std::size_t Flags = Key + 0x38;
constexpr std::size_t NameLength = Key + 0x40;
constexpr std::size_t NameText = 0x42;  // in the key
constexpr std::uint32_t FolderFlag = 0x10000000;
constexpr std::size_t MostNames = 1 << 16;  // that are kept without being asked for

/// The name in an entry for a folder; empty when none begins there.
TString FolderNameAt(std::span<const std::uint8_t> bytes, std::size_t at) {
  const std::size_t length = bytes[at + NameLength];
  const std::size_t keyLength = ReadLe16(bytes, at + KeyLength);
  const std::size_t entryLength = ReadLe16(bytes, at + EntryLength);
  if (length == 0 || keyLength != NameText + 2 * length) return {};
  if (entryLength % 8 != 0 || entryLength < Key + keyLength || (ReadLe32(bytes, at + Flags) & FolderFlag) == 0)
    return {};
  if (at + Key + keyLength > bytes.size()) return {};
  TString name = ReadText(bytes, at + Key + NameText, length);
  return std::any_of(name.begin(), name.end(), [](char16_t c) { return c < u' '; }) ? TString() : name;
}

template <typename TWanted>
void ForEachEntry(std::span<const std::uint8_t> bytes, TFolderNames& names, TWanted&& isWanted) {
  constexpr std::uint8_t shortName = 2;  // the 8.3 form of a name that has another one
  for (std::size_t at = 0; at + Key + NameText + 2 <= bytes.size(); at += 8) {
    const std::int64_t key = ReferenceKey(ReadFullReference(bytes, at));
    if (!IsReferenceKey(key) || !isWanted(key)) continue;
    TString name = FolderNameAt(bytes, at);
    if (name.empty() || bytes[at + NameLength + 1] == shortName) continue;
    names.try_emplace(key, std::move(name));
  }
}

}  // namespace

void FindFolderNames(std::span<const std::uint8_t> bytes, TFolderNames& names) {
  ForEachEntry(bytes, names, [&](std::int64_t) { return names.size() < MostNames; });
}

void FindFolderNames(std::span<const std::uint8_t> bytes, const std::unordered_set<std::int64_t>& wanted,
                     TFolderNames& names) {
  if (!wanted.empty()) ForEachEntry(bytes, names, [&](std::int64_t key) { return wanted.contains(key); });
}

std::span<const std::uint8_t> UnusedPart(std::span<const std::uint8_t> record) {
  constexpr std::size_t usedBytes = 0x18;
  const std::size_t used = (std::size_t{ReadLe32(record, usedBytes)} + 7) / 8 * 8;
  return used < record.size() ? record.subspan(used) : record.last(0);
}

void FixIndexBlocks(std::span<std::uint8_t> bytes) {
  constexpr std::size_t blockSize = 4096;
  for (std::size_t at = 0; at + blockSize <= bytes.size(); at += blockSize) {
    if (std::memcmp(&bytes[at], "INDX", 4) == 0) ApplyFixups(bytes.subspan(at, blockSize));
  }
}

std::unordered_set<std::int64_t> LostFolders(const TDriveInfo& drive) {
  std::unordered_set<std::int64_t> keys;
  for (const std::int64_t key : TDrives::GetFoundPosParentClusters(drive)) {
    if (IsReferenceKey(key)) keys.insert(key);
  }
  return keys;
}

}  // namespace brenlow::ntfs

// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ext/ext_history.h"

#include <algorithm>
#include <tuple>

#include "core/numbers.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_superblock.h"

namespace brenlow::ext {
namespace {

// A journal of 1 GiB full of different states stays below.
constexpr std::size_t MostVersions = 1 << 22;
constexpr std::size_t MostNames = 1 << 22;

std::uint64_t Mix(std::uint64_t hash, std::uint64_t value) {
  hash = (hash ^ value) * 0x9E3779B97F4A7C15U;
  return hash ^ hash >> 29;
}

/// Of all that says what the file is, where it lies and when it was modified.
std::uint64_t StateOf(std::span<const std::uint8_t> inode) {
  std::uint64_t hash = Mix(ReadLe16(inode, 0), ReadLe32(inode, 4) | std::uint64_t{ReadLe32(inode, 16)} << 32);
  hash = Mix(hash, ReadLe32(inode, 20) | std::uint64_t{ReadLe16(inode, 26)} << 32);
  hash = Mix(hash, ReadLe32(inode, 32));
  for (std::size_t at = 40; at < 112; at += 8) hash = Mix(hash, LoadLe64(inode.data() + at));
  return hash;
}

}  // namespace

bool THistory::Read(TVolumeReader& reader, TExtXJournal& journal, const std::function<bool()>& goOn) {
  if (journal.Blocks.empty()) return false;
  FInfo = &reader.Info();
  FJournal = &journal;
  SweepJournal(reader, journal, [&](const TLoggedCopy& copy) {
    const std::uint32_t firstInode = reader.FirstInodeOf(copy.Block);
    if (firstInode != 0) {
      NoteInodes(copy, firstInode);
    } else {
      NoteNames(copy);
    }
    return goOn();
  });
  FLastVersion.clear();
  FKnownNames.clear();
  SplitLives();
  return true;
}

void THistory::NoteInodes(const TLoggedCopy& copy, std::uint32_t firstInode) {
  const std::size_t size = FInfo->InodeSize;
  for (std::size_t at = 0; at + size <= copy.Bytes.size() && at + 128 <= copy.Bytes.size(); at += size) {
    const auto bytes = copy.Bytes.subspan(at, size);
    const std::uint32_t number = firstInode + static_cast<std::uint32_t>(at / size);
    const std::uint16_t mode = ReadLe16(bytes, 0);
    if (mode == 0 || number > FInfo->TotalInodeCount || FVersions.size() >= MostVersions) continue;
    const std::uint64_t state = StateOf(bytes);
    const auto [last, isFirst] = FLastVersion.try_emplace(number, static_cast<std::uint32_t>(FVersions.size()));
    if (!isFirst && FVersions[last->second].State == state) continue;
    last->second = static_cast<std::uint32_t>(FVersions.size());
    TInodeVersion version;
    version.Inode = number;
    version.Sequence = copy.Sequence;
    version.Generation = ReadLe32(bytes, 100);
    version.Born = size >= 148 && 128 + ReadLe16(bytes, 128) >= 148 ? ReadLe32(bytes, 144) : 0;
    version.Position = std::int64_t{copy.JournalBlock} * FInfo->BlockSize + static_cast<std::int64_t>(at);
    version.Size = ReadLe32(bytes, 4) | (mode >> 12 == 8 ? std::int64_t{ReadLe32(bytes, 108)} << 32 : 0);
    version.State = state;
    version.Type = TypeOfMode(mode);
    version.HasLinks = ReadLe16(bytes, 26) != 0;
    version.HasContent = HasContent(bytes);
    FVersions.push_back(version);
  }
}

void THistory::NoteNames(const TLoggedCopy& copy) {
  if (!IsFolderBlock(copy.Bytes, FInfo->TotalInodeCount)) return;
  const std::uint32_t order = FJournal->Order(copy.Sequence);
  const bool begins = BeginsFolder(copy.Bytes, 0);
  const std::uint32_t folder = begins ? ReadLe32(copy.Bytes, 0) : 0;
  if (begins) FFoldersAbove[folder] = ReadLe32(copy.Bytes, 12);
  std::uint32_t seed = 0;
  bool seedKnown = false;
  FEntries.Clear();
  WalkDirectoryBlock(copy.Bytes, 0, {false, begins, FInfo->TotalInodeCount}, FEntries);
  for (std::size_t i = begins ? 2 : 0; i < FEntries.size(); ++i) {
    const TDirectoryEntry& entry = FEntries[i];
    const TStringView text = FEntries.Name(i);
    if (entry.Inode == 0 || text == u"." || text == u"..") continue;
    std::uint64_t key = std::hash<TStringView>()(text);
    key = Mix(Mix(key, static_cast<std::uint64_t>(copy.Block)), entry.Inode | std::uint64_t{folder} << 32);
    const auto [known, isNew] = FKnownNames.try_emplace(key, static_cast<std::uint32_t>(FNames.size()));
    if (!isNew) {
      TOldName& name = FNames[known->second];
      // In use counts more than unlinked.
      if (name.Remnant && !entry.Deleted) {
        name.Remnant = false;
        name.From = name.Until = order;
      }
      if (name.Remnant == entry.Deleted) {
        name.From = std::min(name.From, order);
        name.Until = std::max(name.Until, order);
      }
      continue;
    }
    if (FNames.size() >= MostNames) {
      FKnownNames.erase(known);
      return;
    }
    TOldName name;
    name.Block = copy.Block;
    name.Folder = folder;
    name.Inode = entry.Inode;
    name.From = name.Until = order;
    name.FileType = entry.FileType;
    name.Remnant = entry.Deleted;
    if (!begins && !seedKnown) {
      seed = ChecksumSeedOf(copy.Bytes);
      seedKnown = true;
    }
    name.Seed = seed;
    name.NameStart = static_cast<std::uint32_t>(FText.size());
    name.NameLength = static_cast<std::uint16_t>(text.size());
    FText += text;
    FNames.push_back(name);
  }
}

/// Puts the states in order and tells the files apart that had a number one after the other.
void THistory::SplitLives() {
  std::sort(FVersions.begin(), FVersions.end(), [this](const TInodeVersion& a, const TInodeVersion& b) {
    const auto key = [this](const TInodeVersion& v) {
      return std::tuple(v.Inode, FJournal->Order(v.Sequence), v.Position);
    };
    return key(a) < key(b);
  });
  for (std::uint32_t i = 0; i < FVersions.size(); ++i) {
    const TInodeVersion& version = FVersions[i];
    const TInodeVersion* before = i == 0 ? nullptr : &FVersions[i - 1];
    const bool sameNumber = before != nullptr && before->Inode == version.Inode;
    const bool same = sameNumber && before->Generation == version.Generation && before->Born == version.Born &&
                      before->Type == version.Type;
    if (same) {
      ++FLives.back().VersionCount;
      continue;
    }
    const std::uint32_t order = FJournal->Order(version.Sequence);
    if (sameNumber) FLives.back().Until = order;
    TFileLife life;
    life.Inode = version.Inode;
    life.FirstVersion = i;
    life.VersionCount = 1;
    life.From = sameNumber ? order : 0;  // what was before is not known
    life.Until = UINT32_MAX;
    life.Type = version.Type;
    FLives.push_back(life);
  }
}

std::span<TFileLife> THistory::LivesOf(std::uint32_t inode) {
  const auto first = std::lower_bound(FLives.begin(), FLives.end(), inode,
                                      [](const TFileLife& life, std::uint32_t wanted) { return life.Inode < wanted; });
  auto end = first;
  while (end != FLives.end() && end->Inode == inode) ++end;
  return {first, end};
}

const TInodeVersion* THistory::BestOf(const TFileLife& life) const {
  for (std::uint32_t i = life.VersionCount; i-- > 0;) {
    const TInodeVersion& version = FVersions[life.FirstVersion + i];
    if (version.HasContent) return &version;
  }
  return nullptr;
}

const TInodeVersion& THistory::VersionAt(const TFileLife& life, std::uint32_t order) const {
  std::uint32_t found = life.FirstVersion;
  for (std::uint32_t i = 1; i < life.VersionCount; ++i) {
    if (FJournal->Order(FVersions[life.FirstVersion + i].Sequence) > order) break;
    found = life.FirstVersion + i;
  }
  return FVersions[found];
}

}  // namespace brenlow::ext

// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/apfs/apfs_tree.h"

#include <algorithm>

#include "core/engine.h"
#include "core/extent_reader.h"

namespace brenlow::apfs {

namespace {
constexpr int MostLevels = 32;
}

/// Records of one object and type.
struct TTrees::TRange {
  std::int64_t Object = 0;
  std::uint8_t Type = 0;

  /// Below 0 for a key before the range, 0 in it, above 0 after it.
  int Place(TBytes key) const {
    const std::int64_t id = KeyId(key);
    if (id != Object) return id < Object ? -1 : 1;
    return KeyType(key) - Type;
  }
};

std::int64_t BlockOf(const TAPFSIDs& ids, std::int64_t object) {
  const auto found = std::lower_bound(ids.begin(), ids.end(), object,
                                      [](const TAPFSID& entry, std::int64_t id) { return entry.ObjectID < id; });
  return found != ids.end() && found->ObjectID == object ? found->NewID : -1;
}

TByteDynArray TTrees::Block(std::int64_t block) const {
  if (block < 0 || block >= FInfo.TotalBlockCount || FInfo.BlockSize == 0) return {};
  TByteDynArray bytes(FInfo.BlockSize);
  if (!FEngine.Content().ReadPlace(FDrive, block * FInfo.BlockSize, bytes)) return {};
  return bytes;
}

void TTrees::WalkMap(std::int64_t block, std::uint64_t last, int depth, TVisited& visited,
                     std::vector<std::pair<TAPFSID, std::uint64_t>>& found) const {
  constexpr std::uint32_t deletedFlag = 1;
  if (depth > MostLevels || !visited.insert(block).second) return;
  const TByteDynArray bytes = Block(block);
  const auto node = TNode::From(bytes, ObjectMap);
  if (!node) return;
  FEngine.Pump();
  TNode::TEntry entry;
  for (std::uint32_t i = 0; i < node->Count(); ++i) {
    if (!node->Entry(i, entry)) continue;
    if (!node->IsLeaf()) {
      WalkMap(Id(entry.Value, 0), last, depth + 1, visited, found);
      continue;
    }
    const std::uint64_t transaction = ReadLe64(entry.Key, 8);
    const bool deleted = (ReadLe32(entry.Value, 0) & deletedFlag) != 0;
    if (transaction <= last) found.push_back({{Id(entry.Key, 0), deleted ? -1 : Id(entry.Value, 8)}, transaction});
  }
}

TAPFSIDs TTrees::LoadMap(std::int64_t mapBlock, std::uint64_t last) const {
  const TByteDynArray map = Block(mapBlock);
  if (TypeOf(map) != ObjectMap) return {};
  std::vector<std::pair<TAPFSID, std::uint64_t>> found;
  TVisited visited;
  WalkMap(Id(map, 48), last, 0, visited, found);
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return a.first.ObjectID != b.first.ObjectID ? a.first.ObjectID < b.first.ObjectID : a.second < b.second;
  });
  TAPFSIDs ids;
  for (const auto& [id, transaction] : found) {
    if (!ids.empty() && ids.back().ObjectID == id.ObjectID) ids.pop_back();
    ids.push_back(id);
  }
  return ids;
}

bool TTrees::WalkNode(const TAPFSVolume& volume, std::int64_t id, int depth, const TRange* range, TVisited& visited,
                      const TRecordSink& sink, bool& whole) const {
  const std::int64_t block = BlockOf(volume.IDs, id);
  if (depth > MostLevels || block < 0 || !visited.insert(block).second) {
    whole = false;
    return true;
  }
  const TByteDynArray bytes = Block(block);
  const auto node = TNode::From(bytes, FileSystemTree);
  // A block that bears another number was given to something else since: its records are not this object's.
  if (!node || Id(bytes, 8) != id) {
    whole = false;
    return true;
  }
  FEngine.Pump();
  TNode::TEntry entry;
  TNode::TEntry next;
  for (std::uint32_t i = 0; i < node->Count(); ++i) {
    if (!node->Entry(i, entry)) {
      whole = false;
      continue;
    }
    const int order = range != nullptr ? range->Place(entry.Key) : 0;
    if (order > 0) return true;
    if (node->IsLeaf()) {
      const auto place = block * FInfo.BlockSize + static_cast<std::int64_t>(entry.Offset);
      if (order == 0 && !sink(entry, place)) return false;
      continue;
    }
    // A child ends where the next one begins.
    if (range != nullptr && node->Entry(i + 1, next) && range->Place(next.Key) < 0) continue;
    if (!WalkNode(volume, Id(entry.Value, 0), depth + 1, range, visited, sink, whole)) return false;
  }
  return true;
}

bool TTrees::Walk(const TAPFSVolume& volume, const TRecordSink& sink) const {
  TVisited visited;
  bool whole = true;
  return WalkNode(volume, volume.RootID, 0, nullptr, visited, sink, whole);
}

bool TTrees::Find(const TAPFSVolume& volume, std::int64_t id, std::uint8_t type, const TRecordSink& sink) const {
  TVisited visited;
  const TRange range{id, type};
  bool whole = true;
  WalkNode(volume, volume.RootID, 0, &range, visited, sink, whole);
  return whole;
}

}  // namespace brenlow::apfs

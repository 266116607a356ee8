// SPDX-License-Identifier: GPL-3.0-or-later
// Blocks of a container, object maps, and the walk over the tree of a volume.
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_set>

#include "core/drive_records.h"
#include "fs/apfs/apfs_info.h"
#include "fs/apfs/apfs_node.h"

namespace brenlow {
class TEngine;
}

namespace brenlow::apfs {

/// Gets a leaf record and the byte of the container at which its key lies; false ends the walk.
using TRecordSink = std::function<bool(const TNode::TEntry& entry, std::int64_t place)>;

class TTrees {
 public:
  TTrees(TEngine& engine, const TDriveInfo& drive) : FEngine(engine), FDrive(drive), FInfo(APFSInfo(drive)) {}

  /// A block by its number; empty when it lies outside or does not read.
  TByteDynArray Block(std::int64_t block) const;
  /// The newest state, not after `last`, of all objects of the map in a block. Empty when there is no map.
  TAPFSIDs LoadMap(std::int64_t mapBlock, std::uint64_t last) const;
  /// All records of a volume, in order. False when the sink ended it.
  bool Walk(const TAPFSVolume& volume, const TRecordSink& sink) const;
  /// The records of one object and type, in order. False when a node on the way could not be read: some may be missing.
  bool Find(const TAPFSVolume& volume, std::int64_t id, std::uint8_t type, const TRecordSink& sink) const;

 private:
  struct TRange;
  using TVisited = std::unordered_set<std::int64_t>;
  bool WalkNode(const TAPFSVolume& volume, std::int64_t id, int depth, const TRange* range, TVisited& visited,
                const TRecordSink& sink, bool& whole) const;
  void WalkMap(std::int64_t block, std::uint64_t last, int depth, TVisited& visited,
               std::vector<std::pair<TAPFSID, std::uint64_t>>& found) const;

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  const TAPFSInfo& FInfo;
};

/// The block of an object; -1 for one that the map does not have.
std::int64_t BlockOf(const TAPFSIDs& ids, std::int64_t object);

}  // namespace brenlow::apfs

// SPDX-License-Identifier: GPL-3.0-or-later
// exFAT volumes without a boot sector, told by what a partition search meets of them: the start of the allocation
// table, the up-case table, the root, which says in which clusters bitmap and up-case table lie, and folders, which
// say in which clusters their own folders lie.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "core/types.h"

namespace brenlow::exfat {

/// Where a volume lies, in sectors of the device.
struct TGeometry {
  std::int64_t DataFirst = 0;  ///< sector of cluster 2
  std::int64_t SectorsPerCluster = 0;
  std::int64_t RootSector = -1;   ///< -1: not known
  std::int64_t TableFirst = -1;   ///< of the allocation table; -1: not known
  std::int64_t MostClusters = 0;  ///< that the bitmap has room for; 0: not known
  int Agreeing = 0;               ///< folders that lie where an entry says
  bool IsByUpCase = false;        ///< told by the distance of root and up-case table, which leaves no doubt

  std::int64_t ClusterAt(std::int64_t sector) const { return (sector - DataFirst) / SectorsPerCluster + 2; }
  bool HasClusterAt(std::int64_t sector) const {
    return sector >= DataFirst && (sector - DataFirst) % SectorsPerCluster == 0;
  }
};

class TTraces {
 public:
  void Clear();
  /// A sector that was read, by its number on the device.
  void Note(std::span<const std::uint8_t> bytes, std::int64_t sector, int bytesPerSector);
  /// Drops what lies in sectors that belong to a volume that is known.
  void Forget(const std::function<bool(std::int64_t sector)>& isExplained);
  /// The volumes that the traces speak for, the surest first, no two with the same data area.
  std::vector<TGeometry> Volumes() const;
  /// Sectors that begin like a folder, ascending.
  const std::vector<std::int64_t>& Folders() const { return FFolders; }

 private:
  struct TRoot {
    std::int64_t Sector;
    std::uint32_t BitmapCluster;
    std::uint64_t BitmapBytes;
    std::uint32_t UpCaseCluster;
    std::uint64_t UpCaseBytes;
  };
  struct TChild {
    std::int64_t Sector;  // of the entry
    std::uint32_t Cluster;
  };

  void NoteRoot(std::span<const std::uint8_t> bytes, std::int64_t sector);
  void NoteFolder(std::span<const std::uint8_t> bytes, std::int64_t sector);
  bool FromRoot(const TRoot& root, TGeometry& geometry) const;
  std::vector<TGeometry> ByVote() const;
  std::vector<std::int64_t> Agreeing(const TGeometry& geometry) const;
  void AddRoot(TGeometry& geometry) const;
  void AddTable(TGeometry& geometry) const;

  std::vector<std::int64_t> FTables;   // starts of allocation tables
  std::vector<std::int64_t> FUpCases;  // starts of up-case tables
  std::vector<TRoot> FRoots;
  std::vector<std::int64_t> FFolders;
  std::vector<TChild> FChildren;
  int FBytesPerSector = 0;
};

}  // namespace brenlow::exfat

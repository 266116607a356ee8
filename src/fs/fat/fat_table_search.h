// SPDX-License-Identifier: GPL-3.0-or-later
// Volumes without a boot sector, told by their two allocation tables: where these begin says how wide the
// entries are, how long the tables are, where the data begins and, on FAT32, where the root is. Only the size
// of a cluster is left; folders that name their own cluster vote for it.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "core/types.h"

namespace brenlow::fat {

/// Two tables of one volume, in absolute sectors of the device.
struct TTablePair {
  TFileSystem Width = TFileSystem::fsUnknown;
  std::int64_t First = 0;  ///< sector of the first table
  std::int64_t Size = 0;   ///< sectors of one table
  /// Folders, or files of the root, that fit clusters of 1, 2, 4, ... 128 sectors.
  std::array<int, 8> Votes{};

  std::int64_t RootArea() const { return First + 2 * Size; }
  /// Sector of cluster 2; on FAT16 after a root of 512 entries.
  std::int64_t DataFirst() const;
  /// Sectors per cluster that most votes say, 0 without a vote.
  int SectorsPerCluster() const;
  int MostVotes() const;
};

class TTableSearch {
 public:
  void Clear();
  /// A sector that was read. True when it completes a pair: the last one of `Pairs`.
  bool Note(std::span<const std::uint8_t> bytes, std::int64_t sector, int bytesPerSector);
  /// A folder begins at the sector and says that this is its cluster. The result is the pair that a second
  /// folder has confirmed with it, -1 for none.
  int Vote(std::int64_t sector, std::uint32_t cluster);
  /// Adds a vote where the sector is the start of the cluster for one of the sizes.
  static bool AddVote(TTablePair& pair, std::int64_t sector, std::uint32_t cluster);

  std::vector<TTablePair> Pairs;

 private:
  struct TStart {
    TFileSystem Width;
    std::int64_t Sector;
    std::uint64_t Content;  // a digest of the whole sector
  };
  std::vector<TStart> FStarts;
};

}  // namespace brenlow::fat

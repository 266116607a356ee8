// SPDX-License-Identifier: GPL-3.0-or-later
// What the FAT driver keeps of one drive.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

namespace fat {

struct TWalkState;

/// Clusters from `First` up to, not including, `End`.
struct TClusterRange {
  std::uint32_t First = 0;
  std::uint32_t End = 0;
};

}  // namespace fat

struct TFATInfo {
  int SectorsPerCluster = 0;
  int FATCount = 0;                       ///< 2 if the boot sector says exactly 2, otherwise 1
  std::uint32_t FATFirstSector = 0;       ///< reserved sectors, relative to the volume
  std::uint32_t FATSize = 0;              ///< sectors of one table
  std::uint32_t RootDirFirstSector = 0;   ///< relative to the volume
  std::uint32_t RootDirFirstCluster = 0;  ///< FAT32 only
  std::uint32_t RootDirMaxFiles = 0;      ///< root entries of FAT12 and FAT16; 0 on FAT32
  std::uint32_t DataFirstSector = 0;      ///< sector of cluster 2, relative to the volume
  /// One entry per cluster, index = cluster number; entries 0 and 1 stay 0.
  TLongWordDynArray FATTable;
  /// Entries that no table gave because their sectors cannot be read, in ascending order; they are 0
  /// in `FATTable`.
  std::vector<fat::TClusterRange> UnknownEntries;
  /// One bit per entry of `FATTable`, set where the entry is 0: lets the search for free
  /// clusters skip 64 used ones at a time.
  std::vector<std::uint64_t> FreeClusters;

  // Partition search: the volume's cluster size is learned from the folders met.
  std::uint32_t LastSector = 0;   ///< sector of the last folder seen
  std::uint32_t LastCluster = 0;  ///< that folder's own cluster
  /// Folders in a row whose distances say one sector a cluster, all with the same start of the data.
  int OneSectorFolders = 0;
  std::int64_t OneSectorDataFirst = 0;
  /// Folders that lie where the learned geometry has them.
  int AgreeingFolders = 0;
  TInt64DynArray WaitingSectors;  ///< folder starts waiting for the cluster size

  /// A deleted entry with a first cluster above 65535 was met: whoever deletes on this volume
  /// keeps the high half of the number.
  bool HighHalvesKept = false;
  /// Clusters above 65535 are or were in use, so a first cluster may have lost its high half.
  bool HighPartUsed = true;

  /// Partition search: what is known of the folders of a volume that was analysed as a whole.
  std::shared_ptr<fat::TWalkState> Walk;
};

inline TFATInfo& FATInfo(TDriveInfo& drive) { return drive.Systems.Get<TFATInfo>(); }
inline const TFATInfo& FATInfo(const TDriveInfo& drive) { return drive.Systems.Get<TFATInfo>(); }

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// What the exFAT driver keeps of one drive.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"
#include "fs/cluster_set.h"

namespace brenlow {

namespace exfat {

struct TWalkState;

/// Adjacent clusters.
struct TRun {
  std::int64_t Cluster = 0;
  std::int64_t Count = 0;
};

/// The allocation bitmap as it was read.
struct TUsage {
  TClusterSet Used;
  TClusterSet Unknown;        ///< clusters whose bits cannot be read
  std::int64_t KnownEnd = 0;  ///< from this cluster on the bitmap tells nothing at all
  bool IsUnknown(std::int64_t cluster) const { return cluster >= KnownEnd || Unknown.Has(cluster); }
};

/// What the rows of a volume have no room for, by the byte position of their entry in the volume.
struct TEntryNotes {
  /// Bytes of a file that were written, where that is less than its size: the rest reads as zeros.
  std::unordered_map<std::int64_t, std::int64_t> ValidLengths;
  /// Deleted files whose clusters belong to something else by now, and names of which nothing else is left.
  std::unordered_set<std::int64_t> Overwritten;
  /// Entries of a lost folder that were deleted when the folder was still in use.
  std::unordered_set<std::int64_t> DeletedBefore;
  /// Where the rest of a deleted file may lie whose chain is gone.
  std::unordered_map<std::int64_t, std::vector<TRun>> Guesses;
};

}  // namespace exfat

struct TexFATInfo {
  int SectorsPerCluster = 0;
  int FATCount = 0;                       ///< 2 if the boot sector says exactly 2, otherwise 1
  std::uint32_t FATFirstSector = 0;       ///< of the first table, relative to the volume
  std::uint32_t FATSize = 0;              ///< sectors of one table
  std::uint32_t DataFirstSector = 0;      ///< sector of cluster 2, relative to the volume
  std::uint32_t ClusterCount = 0;         ///< clusters are numbered from 2 on
  std::uint32_t RootDirFirstCluster = 0;  ///< 0: not known
  std::uint32_t RootDirFirstSector = 0;   ///< relative to the volume
  std::uint32_t LastSector = 0;           ///< partition search: sector of the last folder seen
  std::uint32_t LastCluster = 0;          ///< partition search: first cluster of the first file in it
  TInt64DynArray WaitingSectors;          ///< partition search: folders waiting for the cluster size

  /// Number of the table and bitmap in force (from 0): TexFAT keeps two and changes between them.
  int ActiveFAT = 0;
  /// Nothing where no bitmap was found.
  std::shared_ptr<const exfat::TUsage> Usage;
  std::uint32_t UpCaseFirstCluster = 0;
  std::uint32_t UpCaseBytes = 0;  ///< packed, as it lies on the volume
  /// Upper case of each UTF-16 unit, 65,536 of them; nothing until it was needed, empty when it cannot be read.
  std::shared_ptr<const std::u16string> UpCase;
  std::shared_ptr<exfat::TEntryNotes> Notes = std::make_shared<exfat::TEntryNotes>();

  /// Partition search: what is known of the folders of a volume that was analysed as a whole.
  std::shared_ptr<exfat::TWalkState> Walk;
};

inline TexFATInfo& exFATInfo(TDriveInfo& drive) { return drive.Systems.Get<TexFATInfo>(); }
inline const TexFATInfo& exFATInfo(const TDriveInfo& drive) { return drive.Systems.Get<TexFATInfo>(); }

}  // namespace brenlow

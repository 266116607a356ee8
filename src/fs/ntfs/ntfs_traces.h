// SPDX-License-Identifier: GPL-3.0-or-later
// What the sectors of a drive tell of lost NTFS volumes: where file records lie, in which clusters a
// folder has its index, where an index block was met, and which boot sectors lead to nothing else.
// Out of these come start and cluster size of a volume without a boot sector, and its table of records.
//
// Format facts: linux-ntfs project documentation; B. Carrier, "File System Forensic Analysis", ch. 13.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "core/types.h"
#include "fs/ntfs/ntfs_info.h"
#include "fs/ntfs/ntfs_record.h"

namespace brenlow::ntfs {

/// Where a volume begins and how large its clusters are. Sectors count from the start of the device.
struct TGeometry {
  std::int64_t FirstSector = 0;
  int SectorsPerCluster = 0;
  int Votes = 0;                  ///< traces that agree on it; below 2 it may be wrong
  std::int64_t SectorsCount = 0;  ///< as a boot sector states it; 0 when none is known
  int MFTRecordSize = 0;          ///< bytes; 0 when not known
};

/// Traces met in a partition search. All of it is bounded, whatever the source holds.
class TSearchTraces {
 public:
  void Clear() { *this = TSearchTraces(); }
  /// Takes note of what begins in the sector `sector` of the device. `bytes` may go on after it.
  void NoteSector(std::span<const std::uint8_t> bytes, std::int64_t sector, int sectorSize);

  /// The volumes that the traces speak for, best first, `known` ones left out. `firstSector` is the
  /// first sector of the drive that was searched. A volume with one vote comes only where there is
  /// nothing better: then it is the likeliest of several.
  std::vector<TGeometry> Volumes(std::span<const TGeometry> known, std::int64_t firstSector, int sectorSize) const;
  /// The table of a volume that ends before the sector `end`, as its records lie. Sectors in it count
  /// from the volume's start.
  std::vector<TMFTRun> Table(std::int64_t firstSector, std::int64_t end) const;
  /// Sectors of the device where record 0 of some table, or its copy, was met within the bounds.
  TInt64DynArray TableStarts(std::int64_t firstSector, std::int64_t end) const;
  /// First cluster of the index of the first folder met; -1 when none has one.
  std::int64_t AnyIndexCluster() const { return FAnyIndexCluster; }
  int MFTRecordSize() const { return FRecordSize; }  ///< bytes, as the records met say; 0 without any

 private:
  struct TFolder {
    std::int64_t Sector;  // of its record
    std::int64_t BlockSize;
    TRuns Runs;
  };
  struct TIndexBlock {
    std::int64_t Sector;
    std::int64_t Vcn;
  };
  struct TByNumber {
    std::vector<TFolder> Folders;
    std::vector<TIndexBlock> Blocks;
  };
  struct TRecordRun {
    std::int64_t FirstNumber;
    std::int64_t FirstSector;
    std::int64_t Count;
  };
  struct TBoot {
    std::int64_t Sector;
    std::int64_t SectorsCount;
    int SectorsPerCluster;
    std::int64_t MFTCluster;
    int RecordSize;
  };
  struct TSize {
    std::int64_t Sector;  // of the record of $BadClus, whose stream is as long as the volume
    std::int64_t Clusters;
  };
  /// A folder and a block of its index that fit a geometry. Votes with one `Trace` count once.
  struct TVote {
    std::int64_t FirstSector;
    int SectorsPerCluster;
    std::int64_t Trace;
    std::int64_t Number;  // of the folder
    std::int64_t Folder;  // sector of its record
  };

  void NoteRecord(std::span<const std::uint8_t> bytes, std::int64_t sector, int sectorSize);
  void NoteFolder(std::span<const std::uint8_t> record, std::int64_t number, std::int64_t sector);
  void NoteIndexBlock(std::span<const std::uint8_t> bytes, std::int64_t sector);
  void NoteBoot(std::span<const std::uint8_t> bytes, std::int64_t sector, int sectorSize);
  TByNumber* Entry(std::int64_t number);
  std::vector<TVote> CastVotes(std::int64_t firstSector, int sectorSize) const;
  void AddByVotes(std::vector<TGeometry>& volumes, std::span<const TGeometry> known, std::int64_t firstSector,
                  int sectorSize) const;
  static TGeometry MostVoted(const std::vector<TVote>& votes, std::int64_t firstSector);
  void AddBoots(std::vector<TGeometry>& volumes, std::span<const TGeometry> known, std::int64_t firstSector) const;
  void SetSize(TGeometry& volume) const;
  /// Where record 0 would lie if the table were in one piece.
  std::int64_t LineOf(const TRecordRun& run) const { return run.FirstSector - run.FirstNumber * FRecordSectors; }

  std::map<std::int64_t, TByNumber> FByNumber;
  std::size_t FNoted = 0;         // folders and blocks kept
  std::uint64_t FSampleMask = 0;  // only numbers whose hash has none of these bits are kept
  std::vector<TRecordRun> FRecords;
  std::vector<TBoot> FBoots;
  std::vector<TSize> FSizes;
  std::int64_t FAnyIndexCluster = -1;
  int FRecordSize = 0;
  std::int64_t FRecordSectors = 2;
};

/// Bytes of a record as its header states them; 0 when they make no sense.
int StatedRecordSize(std::span<const std::uint8_t> record);

}  // namespace brenlow::ntfs

// SPDX-License-Identifier: GPL-3.0-or-later
// What the NTFS driver keeps of one drive.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "core/datetime.h"
#include "core/drive_records.h"
#include "core/file_records.h"
#include "core/types.h"
#include "fs/ntfs/ntfs_references.h"

namespace brenlow {

/// Where a file record lies: `Offset` bytes into `Sector`, counted from the volume's start. Where
/// clusters are smaller than records, a record may go on elsewhere.
struct TMFTRecord {
  std::int64_t Sector = 0;
  int Offset = 0;
  int HeadSectors = 0;          ///< of a record in two pieces: those from `Sector` on; 0 for one piece
  std::int64_t TailSector = 0;  ///< where the rest lies
};

/// Records of consecutive numbers that lie one behind the other. `FirstSector` is 0 for a hole in
/// the table. A table is a list of these: it takes as little room as the table has fragments.
struct TMFTRun {
  std::int64_t FirstNumber = 0;
  std::int64_t Count = 0;
  std::int64_t FirstSector = 0;
  int HeadSectors = 0;  ///< of a single record in two pieces, as in `TMFTRecord`
  std::int64_t TailSector = 0;
};

/// A record whose number is known, met by a partition search.
struct TPartRecMFT {
  std::int64_t MFTNumber = 0;
  std::int64_t SectorNumber = 0;
};

/// A file whose record number is not known yet.
struct TUnknownFirstClusterFile {
  bool blnFolder = false;
  bool blnDeleted = false;
  int aDriveNumber = -1;
  std::int64_t ParentCluster = 0;  ///< `ntfs::ReferenceKey` of the folder
  ntfs::TRecordUse Use;
  std::int64_t FirstCluster = -1;
  std::int64_t FirstSector = -1;
  int OffsetInSector = 0;
  std::int64_t aSize = 0;
  std::int64_t DataStartingSector = -1;
  TString strName;
  TAtributes Atributes;
  TFirstClusterInfo FirstClusterInfo = TFirstClusterInfo::fciNormal;
  TTimeStamp TimeStamp;
};

/// Bytes from `First` to before `End`.
struct TByteRange {
  std::int64_t First = 0;
  std::int64_t End = 0;
};

/// Sectors from `First` to before `End`, counted from the volume's start.
struct TSectorRange {
  std::int64_t First = 0;
  std::int64_t End = 0;
};

struct TNTFSLogInfo {
  std::int64_t FileSize = 0x4000000;  ///< bytes
  std::uint32_t PageSize = 0x1000;    ///< bytes
  std::uint16_t LogPageDataOffset = 0x40;
};

struct TNTFSInfo {
  int SectorsPerCluster = 0;  ///< 0 until known
  int MFTRecordSize = 0;      ///< bytes
  std::int64_t MFTFirstSector = 0;
  std::int64_t MFTMirrorSector = 0;
  std::vector<TMFTRun> MFTStructure;
  std::int64_t MFTRecordCount = 0;  ///< that `MFTStructure` covers
  /// Where the table and its mirror lie, in order and apart from each other; filled in a partition
  /// search when the table was analysed as a whole.
  std::vector<TSectorRange> TableSectors;
  /// By `MFTNumber`, each once; during a partition search only.
  std::vector<TPartRecMFT> PartRecMFTStructure;
  /// One bit a record, set while the record is in use.
  TByteDynArray MFTUsage;
  /// Bytes of it that could not be read, ascending: there the record's own flag decides.
  std::vector<TByteRange> MFTUsageUnknown;
  /// Which use of its number each record belongs to; during an analysis only.
  ntfs::TRecordUses RecordUses;
  /// Old names of folders whose records are used for something else, by `ntfs::ReferenceKey`; during an
  /// analysis only.
  std::unordered_map<std::int64_t, TString> LostFolderNames;
  bool IsMFTStructureFilled = false;
  std::vector<TUnknownFirstClusterFile> UnknownFirstClusterFiles;
  bool SystemDataFolderAdded = false;
  /// A sub-drive made from a found boot sector may be dropped at the end of the search.
  bool CanBeTruncated = false;
  std::int64_t LastMFTNumber = -1;  ///< last one known for certain, during a partition search
  TNTFSLogInfo LogInfo;
  /// File records rebuilt from the log, by `TFileInfo::JournalPosition`; the first one has the
  /// position that means "none".
  std::vector<TByteDynArray> LogMFTs;
};

inline TNTFSInfo& NTFSInfo(TDriveInfo& drive) { return drive.Systems.Get<TNTFSInfo>(); }
inline const TNTFSInfo& NTFSInfo(const TDriveInfo& drive) { return drive.Systems.Get<TNTFSInfo>(); }

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// The deep analysis: finds files by their content alone, one sector after the other.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "analysis/deep/header_index.h"
#include "analysis/deep/pattern_search.h"
#include "core/file_records.h"
#include "core/types.h"
#include "table/signatures.h"

namespace brenlow {

class TEngine;
struct TDriveInfo;
struct TFileStream;

/// Working state of one scan.
struct TDeepAnalyseInfo {
  TIntegerDynArray FileTypes;        ///< files found so far, for each row of the signatures
  TFileInfo aFileInfo;               ///< the open file; `FirstCluster` is its first sector, 0: none is open
  int PredNumberSignature = 0;       ///< row of the open file
  bool SameSignaturesFound = false;  ///< a sub-signature was met in the open file
  bool CheckedForHalfFile = false;   ///< the last sector ended in a half-file marker of the open file's row
  std::int64_t EOFSize = 0;          ///< end found so far, bytes from the open file's start; 0 for none
  bool LastByteIsNil = false;        ///< the last two bytes of the last sector were zero
};

/// Looks at one sector at a time, in ascending order, and keeps one open file: a header opens it,
/// the next header closes it, or a reason to know its end. Found files are rows with
/// `aDeepAnalyse`, a plain run of sectors from `FirstCluster` on (counted from the drive's start),
/// below a folder for each type. A file at sector 0 cannot be tracked.
class TAllFS {
 public:
  /// More files than that a scan does not list: on a disk that is nothing but headers they would fill
  /// the memory (some 250 bytes each). The user is told.
  int MostRows = 2'000'000;

  explicit TAllFS(TEngine& engine);

  /// Asked with the extension (".jpg") before a row is made; unset means yes.
  std::function<bool(TStringView extension)> OnCanFileBeAdded;

  /// Makes ready for a scan. False when there is nothing to look for or to look at.
  bool DoBeforeDeepAnalyse(int driveNumber);
  /// One sector, which lies in `buf` from `iStart` on and has the number `sectorNumber` on the
  /// drive. What follows it in the buffer is looked at where an end or an icon reaches there.
  void DeepAnalyseSystem(std::span<const std::uint8_t> buf, std::size_t iStart, std::int64_t sectorNumber);
  /// Closes the open file.
  void DoAfterDeepAnalyse(int driveNumber, std::int64_t lastSectorNumber);

  /// Where the bytes of such a file lie: from the sector that is its `FirstCluster` on.
  bool MapStream(const TDriveInfo& drive, const TFile& file, TFileStream& result) const;
  /// The size in whole sectors; 0 without a valid drive.
  std::int64_t GetSizeOnDisk(const TFile& file) const;

 private:
  using TBytes = std::span<const std::uint8_t>;
  /// What is looked for inside an open file of a row, laid out for the scan.
  struct TSearches {
    struct TSub {
      TPatternSearch Pattern;
      int Row;  // that the open file moves to
    };
    std::vector<TSub> Subs;
    std::optional<TPatternSearch> SubsPrefix;  // what all patterns of `Subs` begin with
    std::optional<TPatternSearch> Footer;
    std::vector<TSignatureCells> HalfFileMarkers;
    bool EndsAtZeroTail = false;
    bool EndsInZipRecord = false;
    bool IsCompound = false;  // a compound document that must name its program
  };

  static TSearches SearchesFor(const TFileSignatures& signatures, const TFileSignature& row);
  bool IsOpen() const { return DeepAnalyseInfo.aFileInfo.FirstCluster != 0; }
  const TFileSignature& Row(int number) const;
  const TFileSignature& OpenRow() const { return Row(DeepAnalyseInfo.PredNumberSignature); }
  const TSearches& OpenSearches() const;
  std::int64_t BytesBefore(std::int64_t sector) const;

  void CheckHeaders(TBytes bytes, std::int64_t sector);
  bool OpenFile(int row, std::int64_t sector);
  void AddIcon(int row, TBytes bytes, std::int64_t sector);
  void ResolveSubSignature(TBytes sectorBytes);
  void CheckCompoundDirectory(TBytes sectorBytes);
  bool CheckHalfFile(TBytes sectorBytes) const;
  void FindFooter(TBytes bytes, std::int64_t sector);
  void CheckZeroTail(TBytes sectorBytes, std::int64_t sector);
  void CheckZipEnd(TBytes bytes, std::int64_t sector);
  void CloseCurrentFile(std::int64_t sector);
  bool CheckSubSignatures();
  void AddFoundFile();
  bool MakeRow();
  void AddTypeFolder(int row);
  void Forget();

  TEngine& FEngine;
  int FBytesPerSector = 512;
  int FRows = 0;              // made by the scan
  std::int64_t FSectors = 0;  // of the drive under scan: no file goes on beyond
  TDeepAnalyseInfo DeepAnalyseInfo;
  int FCompoundRow = -1;  // row that the directory of the open compound document names

  THeaderIndex FHeaders;
  THeaderIndex FPublishedHeaders;
  TPatternSearch FZipEnd;
  std::vector<TSearches> FSearches;  // by row
  int FIconRow;
  TString FName;  // of the row in the making
};

}  // namespace brenlow

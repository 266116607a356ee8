// SPDX-License-Identifier: GPL-3.0-or-later
// The allocation table, read as far as chains are followed through it: whole tables may be gigabytes.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"
#include "fs/exfat/exfat_info.h"

namespace brenlow {

class TEngine;

namespace exfat {

/// Keeps the parts of tables that were read last.
class TTableReader {
 public:
  explicit TTableReader(TEngine& engine) : FEngine(engine) {}

  /// The entry of a cluster in table number `table` (from 0). False when it lies outside or cannot be read.
  bool Entry(const TDriveInfo& drive, int table, std::int64_t cluster, std::uint32_t& entry);
  /// Drops what was read: sources may have changed.
  void Forget();

 private:
  static constexpr std::int64_t WindowSectors = 128;
  struct TWindow {
    TString Device;
    std::int64_t FirstSector = -1;  // of the device
    TByteDynArray Bytes;            // empty where the window does not read as a whole
    TByteDynArray Single;           // then: the sector that was asked for last
    std::int64_t SingleSector = -1;
  };
  TWindow& WindowAt(const TDriveInfo& drive, std::int64_t sector);

  TEngine& FEngine;
  std::array<TWindow, 8> FWindows;
  std::size_t FNext = 0;  // the window that goes first
};

/// Steps along the chain of a file or folder. Two loops that meet never end: they are told and ended.
class TChain {
 public:
  TChain(TTableReader& tables, int table, std::int64_t first) : FTables(tables), FTable(table), FCluster(first) {}

  enum class TStep {
    Next,    ///< the table names the next cluster
    Guess,   ///< it holds 0 or cannot be read: the adjacent cluster is taken
    End,     ///< the chain ends here
    Broken,  ///< it leads outside of the volume or back to where it was
  };
  /// Moves to the next cluster, unless the chain ends or is broken.
  TStep Step(const TDriveInfo& drive);
  std::int64_t Cluster() const { return FCluster; }

 private:
  TTableReader& FTables;
  int FTable;
  std::int64_t FCluster;
  // Brent's search for cycles: a cluster of the way is remembered at each power of two.
  std::int64_t FMark = 0;
  std::int64_t FSteps = 0;
  std::int64_t FNextMark = 1;
};

}  // namespace exfat
}  // namespace brenlow

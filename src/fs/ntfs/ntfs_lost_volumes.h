// SPDX-License-Identifier: GPL-3.0-or-later
// NTFS in the thorough partition search: what becomes, at the end of the pass, of the records that no
// boot sector has claimed.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/types.h"
#include "fs/ntfs/ntfs_traces.h"

namespace brenlow {

class TEngine;
class TDrives;
struct TDriveInfo;

namespace ntfs {

class TLostVolumes {
 public:
  /// `mainDrive` is the drive under search.
  TLostVolumes(TEngine& engine, int mainDrive);

  /// Takes note of a sector of the pass (counted from the drive's start); `bytes` may go on after it.
  void NoteSector(std::span<const std::uint8_t> bytes, std::int64_t sector);

  /// After the pass: adds the volumes that the traces speak for, gives volumes whose table is gone one,
  /// and hands all of them the records that candidates had of them.
  void PlaceVolumes();
  /// After a stop, without any read: candidates get the geometry that the traces up to now speak for.
  void PlaceCandidates();
  /// True for a sub-drive that only holds records without a volume of their own.
  static bool IsCandidate(const TDriveInfo& drive);

 private:
  struct TVolume {
    std::int64_t First;  // sector of the device
    std::int64_t End;
    int Drive;
  };
  struct TMet {  // a record to be entered again
    int Drive;
    std::int64_t Sector;  // of the volume
    int Offset;
    auto operator<=>(const TMet&) const = default;
  };

  TDriveInfo& Drive(int number) const;
  bool IsConfirmed(int sub) const;
  std::vector<TGeometry> KnownGeometries() const;
  std::int64_t EndOf(std::int64_t firstSector, const std::vector<TGeometry>& volumes) const;
  std::vector<TVolume> ConfirmedVolumes() const;
  std::vector<TMet> TakeFromCandidates(const TIntegerDynArray& withNewTable);
  void ProbeCandidates();

  TEngine& FEngine;
  TDrives& FDrives;
  int FMain;
  std::int64_t FFirst;
  std::int64_t FSectors;
  int FSectorSize;
  TSearchTraces FTraces;
};

}  // namespace ntfs
}  // namespace brenlow

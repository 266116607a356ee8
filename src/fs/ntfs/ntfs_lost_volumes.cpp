// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs_lost_volumes.h"

#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "fs/ntfs/ntfs.h"
#include "table/files.h"

namespace brenlow::ntfs {

namespace {

constexpr std::size_t MostNewTables = 256;  // each takes a look at all records that were met

}  // namespace

TLostVolumes::TLostVolumes(TEngine& engine, int mainDrive)
    : FEngine(engine),
      FDrives(engine.Drives()),
      FMain(mainDrive),
      FFirst(Drive(mainDrive).FirstSector),
      FSectors(Drive(mainDrive).SectorsCount),
      FSectorSize(engine.Drives().GetBytesPerSector(mainDrive)) {}

TDriveInfo& TLostVolumes::Drive(int number) const { return FDrives.List[static_cast<std::size_t>(number)]; }

void TLostVolumes::NoteSector(std::span<const std::uint8_t> bytes, std::int64_t sector) {
  FTraces.NoteSector(bytes, FFirst + sector, FSectorSize);
}

bool TLostVolumes::IsCandidate(const TDriveInfo& drive) {
  return drive.FileSystem == TFileSystem::fsNTFS &&
         (NTFSInfo(drive).CanBeTruncated || NTFSInfo(drive).SectorsPerCluster < 1);
}

bool TLostVolumes::IsConfirmed(int sub) const {
  return Drive(sub).FileSystem == TFileSystem::fsNTFS && !IsCandidate(Drive(sub));
}

std::vector<TGeometry> TLostVolumes::KnownGeometries() const {
  std::vector<TGeometry> known;
  for (const int sub : Drive(FMain).SubDrives) {
    const TDriveInfo& drive = Drive(sub);
    if (!IsConfirmed(sub)) continue;
    known.push_back({drive.FirstSector, NTFSInfo(drive).SectorsPerCluster, 0, drive.SectorsCount, 0});
  }
  return known;
}

/// Where a volume of unknown length ends at the latest: with the drive, or where the next one begins.
std::int64_t TLostVolumes::EndOf(std::int64_t firstSector, const std::vector<TGeometry>& volumes) const {
  std::int64_t end = FFirst + FSectors;
  const auto consider = [&](std::int64_t start) {
    if (start > firstSector) end = std::min(end, start);
  };
  for (const TGeometry& volume : volumes) consider(volume.FirstSector);
  for (const TGeometry& volume : KnownGeometries()) consider(volume.FirstSector);
  return end;
}

void TLostVolumes::PlaceVolumes() {
  TIntegerDynArray withNewTable;
  const std::vector<TGeometry> volumes = FTraces.Volumes(KnownGeometries(), FFirst, FSectorSize);
  for (const TGeometry& volume : volumes) {
    const std::int64_t end = EndOf(volume.FirstSector, volumes);
    const int sub = FDrives.PartRecAddSubdrive(FMain, TFileSystem::fsNTFS);
    if (sub < 0) break;
    Drive(sub).BytesPerSector = FSectorSize;
    FEngine.NTFS().PartRecPlaceVolume(Drive(sub), volume, FTraces, end);
    withNewTable.push_back(sub);
  }
  for (const int sub : Drive(FMain).SubDrives) {
    TDriveInfo& drive = Drive(sub);
    if (!IsConfirmed(sub) || NTFSInfo(drive).MFTRecordCount > 0 || withNewTable.size() >= MostNewTables) continue;
    if (FEngine.NTFS().PartRecTakeTable(drive, FTraces)) withNewTable.push_back(sub);
  }
  const std::vector<TMet> met = TakeFromCandidates(withNewTable);
  for (const int sub : withNewTable) {
    if (FEngine.Analysing) FEngine.NTFS().PartRecAnalyseTable(sub);
  }
  for (const TMet& record : met) {
    if (!FEngine.Analysing) break;
    const bool entered = TNTFS::IsInTable(Drive(record.Drive), record.Sector);
    if (!entered) FEngine.NTFS().PartRecAnalyseAgain(record.Drive, record.Sector, record.Offset);
    FEngine.Pump();
  }
  ProbeCandidates();
}

void TLostVolumes::PlaceCandidates() {
  const std::vector<TGeometry> volumes = FTraces.Volumes(KnownGeometries(), FFirst, FSectorSize);
  if (!volumes.empty()) {
    const TGeometry& best = volumes.front();
    for (const int sub : Drive(FMain).SubDrives) {
      TDriveInfo& drive = Drive(sub);
      if (!IsCandidate(drive) || FDrives.IsEmpty(sub)) continue;
      // The rows stay where they are: their sectors count from the default start.
      drive.SectorsCount += drive.FirstSector - best.FirstSector;
      drive.FirstSector = best.FirstSector;
      NTFSInfo(drive).SectorsPerCluster = best.SectorsPerCluster;
      FEngine.NTFS().PartRecTakeTable(drive, FTraces);
      // Its records may be of more than one volume.
      const bool certain = volumes.size() == 1 && best.Votes >= 2;
      drive.GeometrySource = certain ? TPlaceSource::FromCopy : TPlaceSource::Estimated;
    }
  }
  ProbeCandidates();
}

/// Records that nothing tells the volume of: as if it were all of the drive.
void TLostVolumes::ProbeCandidates() {
  for (const int sub : Drive(FMain).SubDrives) {
    TDriveInfo& drive = Drive(sub);
    if (!IsCandidate(drive) || NTFSInfo(drive).SectorsPerCluster > 0 || FDrives.IsEmpty(sub)) continue;
    drive.GeometrySource = TPlaceSource::Estimated;
    FEngine.NTFS().GetSectorsPerClusterByIndex(drive, FTraces.AnyIndexCluster());
  }
}

std::vector<TLostVolumes::TVolume> TLostVolumes::ConfirmedVolumes() const {
  std::vector<TVolume> volumes;
  for (const int sub : Drive(FMain).SubDrives) {
    const TDriveInfo& drive = Drive(sub);
    if (IsConfirmed(sub)) volumes.push_back({drive.FirstSector, drive.FirstSector + drive.SectorsCount, sub});
  }
  std::sort(volumes.begin(), volumes.end(), [](const TVolume& a, const TVolume& b) { return a.First < b.First; });
  return volumes;
}

/// Takes the records of confirmed volumes out of the candidates, which met them before the volume was
/// known, and those that were met of volumes that have a table only now. What is left of a candidate
/// that holds nothing but system files goes too. The result is ordered by volume and place.
std::vector<TLostVolumes::TMet> TLostVolumes::TakeFromCandidates(const TIntegerDynArray& withNewTable) {
  const std::vector<TVolume> volumes = ConfirmedVolumes();
  std::vector<bool> gives(FDrives.List.size());
  for (const int sub : Drive(FMain).SubDrives) gives[static_cast<std::size_t>(sub)] = IsCandidate(Drive(sub));
  for (const int sub : withNewTable) gives[static_cast<std::size_t>(sub)] = true;
  std::vector<TMet> met;
  const auto take = [&](int from, std::int64_t sector, int offset) {
    if (sector < 0) return false;
    const std::int64_t absolute = Drive(from).FirstSector + sector;
    const auto after = std::upper_bound(volumes.begin(), volumes.end(), absolute,
                                        [](std::int64_t s, const TVolume& volume) { return s < volume.First; });
    if (after == volumes.begin() || absolute >= std::prev(after)->End) return false;
    const TVolume& volume = *std::prev(after);
    met.push_back({volume.Drive, absolute - volume.First, offset});
    return true;
  };
  for (const int sub : Drive(FMain).SubDrives) {
    if (!gives[static_cast<std::size_t>(sub)]) continue;
    TNTFSInfo& info = NTFSInfo(Drive(sub));
    std::erase_if(info.UnknownFirstClusterFiles, [&](const TUnknownFirstClusterFile& file) {
      return take(sub, file.FirstSector, file.OffsetInSector);
    });
    info.LastMFTNumber = -1;
  }
  FEngine.Files().EraseRows([&](const TFileInfo& file) {
    const auto number = static_cast<std::size_t>(file.aDriveNumber);
    return number < gives.size() && gives[number] && take(file.aDriveNumber, file.FirstSector, file.OffsetInSector);
  });
  std::sort(met.begin(), met.end());
  met.erase(std::unique(met.begin(), met.end()), met.end());
  return met;
}

}  // namespace brenlow::ntfs

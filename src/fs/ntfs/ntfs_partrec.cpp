// SPDX-License-Identifier: GPL-3.0-or-later
// NTFS in a partition search: records met anywhere on the drive, numbers for them, and the volumes
// that they confirm.
#include <algorithm>
#include <map>
#include <set>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"
#include "fs/ntfs/ntfs_lost_volumes.h"
#include "fs/ntfs/ntfs_traces.h"
#include "table/files.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr int UsualRecordSize = 1024;          // bytes, until a boot sector says otherwise
constexpr std::int64_t FarthestAnchor = 1024;  // sectors
constexpr std::int64_t VolumeRecord = 3;
constexpr std::int64_t MirroredRecords = 4;
constexpr std::size_t MostAnchors = 1 << 16;

std::int64_t RecordSectors(const TDriveInfo& drive) {
  return std::max<std::int64_t>(NTFSInfo(drive).MFTRecordSize / std::max(drive.BytesPerSector, 1), 1);
}

/// Sector of a record of a table that lies in one piece.
std::int64_t SectorOfRecord(const TDriveInfo& drive, std::int64_t number) {
  return NTFSInfo(drive).MFTFirstSector + number * NTFSInfo(drive).MFTRecordSize / std::max(drive.BytesPerSector, 1);
}

}  // namespace

TNTFS::TNTFS(TEngine& engine) : FEngine(engine) {}
TNTFS::~TNTFS() = default;

void TNTFS::PartRecDoBeforeAnalyse(int parentDrive) {
  LastNTFSFileIsSystem = false;
  FLostVolumes = std::make_unique<TLostVolumes>(FEngine, parentDrive);
}

void TNTFS::PartRecClear() { FLostVolumes.reset(); }

void TNTFS::PartRecNoteSector(std::span<const std::uint8_t> bytes, int /*parentDrive*/, std::int64_t sector) {
  FLostVolumes->NoteSector(bytes, sector);
}

int TNTFS::PartRecConfirm(int parentDrive, int found) {
  TDrives& drives = FEngine.Drives();
  const int target = drives.PartRecAddSubdrive(parentDrive, TFileSystem::fsNTFS);
  if (target < 0) return -1;
  drives.PartRecApplyFoundDriveInfoToDrive(target, found);
  NTFSInfo(drives.List[static_cast<std::size_t>(target)]).CanBeTruncated = false;
  PartRecDriveAdded(target);
  return target;
}

void TNTFS::PartRecFinishVolumes(int /*parentDrive*/) {
  if (FEngine.Analysing) {
    FLostVolumes->PlaceVolumes();
  } else {
    FLostVolumes->PlaceCandidates();
  }
}

bool TNTFS::PartRecIsWorthKeeping(int driveNumber) const {
  const TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (!TLostVolumes::IsCandidate(drive)) return !FEngine.Drives().IsEmpty(driveNumber);
  const TFileArray& list = FEngine.Files().List;
  bool holds = !NTFSInfo(drive).UnknownFirstClusterFiles.empty();
  for (std::size_t i = 0; i < list.size() && !holds; ++i) {
    const TFile& row = list[i];
    holds = row.FileInfo.aDriveNumber == driveNumber && row.ParentCluster != SpecialCluster::NTFSSystemData &&
            row.FileInfo.FirstCluster != SpecialCluster::NTFSSystemData;
  }
  return holds;
}

void TNTFS::PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                 std::int64_t sectorNumber, bool canCheckNewDrive) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  const int bytesPerSector = std::max(drives.GetBytesPerSector(driveNumber), 512);
  for (int offset = 0; offset < bytesPerSector; offset += 512) {
    const std::size_t at = start + static_cast<std::size_t>(offset);
    if (!ntfs::IsMFT(buffer, at)) continue;
    TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
    TNTFSInfo& info = NTFSInfo(drive);
    if (info.MFTRecordSize == 0) info.MFTRecordSize = StatedRecordSize(buffer.subspan(at));
    if (info.MFTRecordSize == 0) info.MFTRecordSize = UsualRecordSize;
    // The table was analysed when the volume was confirmed.
    if (IsInTable(drive, sectorNumber)) continue;
    AnalyseRecord(buffer, at, driveNumber, -1, sectorNumber, offset, canCheckNewDrive);
  }
}

// ---- volumes --------------------------------------------------------------------------------

/// The test for a new volume: the first record of a run of system files may lie where a found boot
/// sector expects it.
TNTFS::TNewDrive TNTFS::CheckNewDrive(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                      std::int64_t sectorNumber, int offsetInSector, TStringView name) {
  TDrives& drives = FEngine.Drives();
  TPartRecInfo& search = drives.PartRecInfo;
  if (search.FoundDrives.empty()) return TNewDrive::None;
  const int number = SystemFileNumber(name);
  const TDriveInfo& current = drives.List[static_cast<std::size_t>(driveNumber)];
  const std::int64_t absolute = current.FirstSector + sectorNumber;
  // System files of another volume, whose mirror may come just before, are another run.
  const bool goesOn = FLastSystemSector >= 0 && absolute == FLastSystemSector + RecordSectors(current);
  const bool wasSystem = LastNTFSFileIsSystem && goesOn;
  LastNTFSFileIsSystem = number >= 0;
  if (number >= 0) FLastSystemSector = absolute;
  if (wasSystem || number < 0) return TNewDrive::None;
  for (std::size_t i = 0; i < search.FoundDrives.size(); ++i) {
    const TDriveInfo& found = search.FoundDrives[i];
    if (found.FileSystem != TFileSystem::fsNTFS) continue;
    if (found.FirstSector + SectorOfRecord(found, number) != absolute) continue;
    const int target = drives.PartRecDriveForFound(search.MainDrive, static_cast<int>(i));
    if (target < 0) return TNewDrive::None;
    NTFSInfo(drives.List[static_cast<std::size_t>(target)]).CanBeTruncated = false;
    drives.PartRecCheckSubDrivesForEnd(sectorNumber, true);
    PartRecDriveAdded(target);
    if (target != driveNumber) return TNewDrive::Analysed;
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
    AnalyseRecord(buffer, start, driveNumber, -1, absolute - drive.FirstSector, offsetInSector, false);
    return TNewDrive::Taken;
  }
  return TNewDrive::None;
}

void TNTFS::FillTableSectors(TDriveInfo& drive) {
  TNTFSInfo& info = NTFSInfo(drive);
  const std::int64_t perRecord = RecordSectors(drive);
  std::vector<TSectorRange> ranges;
  if (info.MFTMirrorSector > 0) {
    ranges.push_back({info.MFTMirrorSector, info.MFTMirrorSector + MirroredRecords * perRecord});
  }
  for (const TMFTRun& run : info.MFTStructure) {
    if (run.FirstSector > 0) ranges.push_back({run.FirstSector, run.FirstSector + run.Count * perRecord});
  }
  std::sort(ranges.begin(), ranges.end(),
            [](const TSectorRange& a, const TSectorRange& b) { return a.First < b.First; });
  info.TableSectors.clear();
  for (const TSectorRange& range : ranges) {
    const bool meets = !info.TableSectors.empty() && range.First <= info.TableSectors.back().End;
    if (meets) {
      info.TableSectors.back().End = std::max(info.TableSectors.back().End, range.End);
    } else {
      info.TableSectors.push_back(range);
    }
  }
}

bool TNTFS::IsInTable(const TDriveInfo& volume, std::int64_t sector) {
  const auto& ranges = NTFSInfo(volume).TableSectors;
  const auto after = std::upper_bound(ranges.begin(), ranges.end(), sector,
                                      [](std::int64_t s, const TSectorRange& range) { return s < range.First; });
  return after != ranges.begin() && sector < std::prev(after)->End;
}

bool TNTFS::IsNumberInTable(const TDriveInfo& drive, std::int64_t number) {
  const auto& runs = NTFSInfo(drive).MFTStructure;
  const auto after = std::upper_bound(runs.begin(), runs.end(), number,
                                      [](std::int64_t n, const TMFTRun& run) { return n < run.FirstNumber; });
  if (after == runs.begin()) return false;
  const TMFTRun& run = *std::prev(after);
  return run.FirstSector > 0 && number < run.FirstNumber + run.Count;
}

void TNTFS::PartRecDriveAdded(int driveNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  if (!GetDriveInfo(drives.List[static_cast<std::size_t>(driveNumber)], true, false)) return;
  PartRecAnalyseTable(driveNumber);
}

void TNTFS::PartRecAnalyseTable(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  FIndexes.clear();
  // Without a record of it, neither table nor mirror may be there any more.
  if (NTFSInfo(drive).MFTRecordCount > 0) FillTableSectors(drive);
  AnalyseMFTRecords(driveNumber, false);
  SettleParents(drive);
  if (FEngine.Analysing) AnalyseLogFile(driveNumber);
  if (FEngine.Analysing) FindLostFolderNames(drive);
}

// ---- volumes without a boot sector ----------------------------------------------------------

bool TNTFS::PartRecTakeTable(TDriveInfo& drive, const TSearchTraces& traces) {
  TNTFSInfo& info = NTFSInfo(drive);
  info.MFTStructure = traces.Table(drive.FirstSector, drive.FirstSector + drive.SectorsCount);
  info.MFTRecordCount =
      info.MFTStructure.empty() ? 0 : info.MFTStructure.back().FirstNumber + info.MFTStructure.back().Count;
  info.MFTUsage.clear();
  info.IsMFTStructureFilled = true;
  return info.MFTRecordCount > 0;
}

void TNTFS::PartRecPlaceVolume(TDriveInfo& drive, const TGeometry& geometry, const TSearchTraces& traces,
                               std::int64_t end) {
  ClearMemory();
  TNTFSInfo& info = NTFSInfo(drive);
  drive.FirstSector = geometry.FirstSector;
  drive.SectorsCount = geometry.SectorsCount > 0 ? geometry.SectorsCount : end - geometry.FirstSector;
  drive.GeometrySource = geometry.Votes >= 2 ? TPlaceSource::FromCopy : TPlaceSource::Estimated;
  info = TNTFSInfo();
  info.SectorsPerCluster = geometry.SectorsPerCluster;
  info.MFTRecordSize = geometry.MFTRecordSize > 0 ? geometry.MFTRecordSize : traces.MFTRecordSize();
  if (info.MFTRecordSize == 0) info.MFTRecordSize = UsualRecordSize;
  FEngine.Drives().SetDefaultInfo(drive);
  // The record of the table that was met, or its copy in the mirror, when its runs lead to records.
  PartRecTakeTable(drive, traces);
  const std::vector<TMFTRun> met = info.MFTStructure;
  const std::int64_t metCount = info.MFTRecordCount;
  const auto agrees = [&] {
    return std::any_of(met.begin(), met.end(), [&](const TMFTRun& run) {
      TMFTRecord place;
      const bool there = run.FirstNumber > 0 && run.FirstNumber < info.MFTRecordCount;
      return there && GetSectorByMFTNumber(drive, run.FirstNumber, place, true) && place.Sector == run.FirstSector;
    });
  };
  bool whole = false;
  for (const std::int64_t sector : traces.TableStarts(drive.FirstSector, drive.FirstSector + drive.SectorsCount)) {
    whole = FillMFTStructureFrom(drive, sector - drive.FirstSector) && agrees();
    if (whole) break;
  }
  if (!whole) {
    info.MFTStructure = met;
    info.MFTRecordCount = metCount;
    info.MFTUsage.clear();
  }
  const bool hasStart = !info.MFTStructure.empty() && info.MFTStructure.front().FirstNumber == 0;
  if (hasStart) info.MFTFirstSector = info.MFTStructure.front().FirstSector;
  ComputeFreeSize(drive);
  if (drive.VolumeName.empty()) ReadVolumeName(drive);
}

void TNTFS::PartRecAnalyseAgain(int driveNumber, std::int64_t sector, int offsetInSector) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TByteDynArray record;
  if (ReadRecord(drive, {sector, offsetInSector}, record)) {
    AnalyseRecord(record, 0, driveNumber, -1, sector, offsetInSector, false);
  }
}

void TNTFS::PartRecChangeVolumeName(TDriveInfo& drive) {
  if (!drive.VolumeName.empty() || NTFSInfo(drive).MFTRecordSize < 1 || drive.BytesPerSector < 1) return;
  TByteDynArray record;
  TParsed parsed;
  if (!ReadRecord(drive, {SectorOfRecord(drive, VolumeRecord), 0}, record)) return;
  if (!AnalyseMFTRecord(drive, record, 0, false, parsed, VolumeRecord, -1, 0, false)) return;
  const bool isVolume =
      std::any_of(parsed.Names.begin(), parsed.Names.end(), [](const TName& name) { return name.Text == u"$Volume"; });
  if (isVolume) drive.VolumeName = TString(Trim(parsed.VolumeName));
}

// ---- record numbers -------------------------------------------------------------------------

/// Notes a record whose number is certain, unless it follows from the last one noted.
void TNTFS::AddAnchor(TDriveInfo& drive, std::int64_t number, std::int64_t sectorNumber) {
  TNTFSInfo& volume = NTFSInfo(drive);
  const bool follows =
      volume.LastMFTNumber >= 0 && sectorNumber - FLastSector == (number - volume.LastMFTNumber) * RecordSectors(drive);
  volume.LastMFTNumber = number;
  FLastSector = sectorNumber;
  auto& anchors = volume.PartRecMFTStructure;
  if ((follows && !anchors.empty()) || anchors.size() >= MostAnchors) return;
  const auto at = std::lower_bound(anchors.begin(), anchors.end(), number,
                                   [](const TPartRecMFT& a, std::int64_t n) { return a.MFTNumber < n; });
  const bool known = at != anchors.end() && at->MFTNumber == number;
  if (!known) anchors.insert(at, {number, sectorNumber});
}

/// Gives a row found by its sector a number: the record's own, that of a system file or of a folder by
/// its children, or one from the nearest record before it.
void TNTFS::EstimateMFTNumber(TDriveInfo& drive, TFileInfo& info, std::int64_t parent, std::int64_t sectorNumber,
                              std::int64_t ownNumber) {
  const TNTFSInfo& volume = NTFSInfo(drive);
  const int system = parent == RootRecord ? SystemFileNumber(info.strName) : -1;
  if (ownNumber >= 0) {
    info.FirstCluster = ownNumber;
  } else if (system >= 0) {
    info.FirstCluster = system;
  }
  if (info.FirstCluster >= 0) {
    AddAnchor(drive, info.FirstCluster, sectorNumber);
  } else if (volume.LastMFTNumber >= 0 && sectorNumber - FLastSector < FarthestAnchor) {
    info.FirstCluster = volume.LastMFTNumber + (sectorNumber - FLastSector) / RecordSectors(drive);
    info.FirstClusterInfo = TFirstClusterInfo::fciUnknown;
  }
}

/// Keeps a row without a number until all anchors are known.
void TNTFS::AddToUFCF(TDriveInfo& drive, const TFileInfo& info, const TName& name, const TRecordUse& use) {
  if (OnCanFileBeAddedToUFCF && !OnCanFileBeAddedToUFCF(info)) return;
  TUnknownFirstClusterFile file;
  file.blnFolder = info.blnFolder;
  file.blnDeleted = info.blnDeleted;
  file.aDriveNumber = info.aDriveNumber;
  file.ParentCluster = ReferenceKey(name.Parent);
  file.Use = use;
  file.FirstCluster = info.FirstCluster;
  file.FirstSector = info.FirstSector;
  file.OffsetInSector = info.OffsetInSector;
  file.aSize = info.aSize;
  file.DataStartingSector = info.DataStartingSector;
  file.strName = info.strName;
  file.Atributes = info.Atributes;
  file.FirstClusterInfo = info.FirstClusterInfo;
  file.TimeStamp = info.TimeStamp;
  NTFSInfo(drive).UnknownFirstClusterFiles.push_back(std::move(file));
  ++FEngine.Files().FoundCount;
}

void TNTFS::PartRecDoAfterAnalyse(int parentDrive) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(parentDrive)) return;
  const TIntegerDynArray subs = drives.List[static_cast<std::size_t>(parentDrive)].SubDrives;
  double total = 0;
  for (const int sub : subs) {
    total += static_cast<double>(NTFSInfo(drives.List[static_cast<std::size_t>(sub)]).UnknownFirstClusterFiles.size());
  }
  double done = 0;
  for (const int sub : subs) {
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(sub)];
    if (drive.FileSystem == TFileSystem::fsNTFS) ResolveUFCF(sub, done, total);
  }
}

/// Enters the kept rows, with the numbers that the anchors before them lead to.
void TNTFS::ResolveUFCF(int driveNumber, double& done, double total) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  // The last anchor, by number, of those not above a sector.
  std::map<std::int64_t, TPartRecMFT> bySector;
  for (const TPartRecMFT& anchor : NTFSInfo(drive).PartRecMFTStructure) bySector[anchor.SectorNumber] = anchor;
  const TPartRecMFT* best = nullptr;
  for (auto& [sector, anchor] : bySector) {
    if (best != nullptr && best->MFTNumber > anchor.MFTNumber) anchor = *best;
    best = &anchor;
  }
  const std::vector<TUnknownFirstClusterFile> files = std::move(NTFSInfo(drive).UnknownFirstClusterFiles);
  NTFSInfo(drive).UnknownFirstClusterFiles.clear();
  // After a stop too: these rows are found, and entering them takes no reads.
  for (const TUnknownFirstClusterFile& file : files) {
    TFileInfo info;
    TFiles::ClearInfo(info, driveNumber);
    info.blnFolder = file.blnFolder;
    info.blnDeleted = file.blnDeleted;
    info.FirstSector = file.FirstSector;
    info.OffsetInSector = file.OffsetInSector;
    info.aSize = file.aSize;
    info.DataStartingSector = file.DataStartingSector;
    info.strName = file.strName;
    info.Atributes = file.Atributes;
    info.TimeStamp = file.TimeStamp;
    info.FirstCluster = SpecialCluster::NoKnownPlace;
    if (const auto after = bySector.upper_bound(file.FirstSector); after != bySector.begin()) {
      const TPartRecMFT& anchor = std::prev(after)->second;
      info.FirstCluster = anchor.MFTNumber + (file.FirstSector - anchor.SectorNumber) / RecordSectors(drive);
      info.FirstClusterInfo = TFirstClusterInfo::fciUnknown;
    }
    NTFSInfo(drive).RecordUses.Enter(info.FirstCluster, file.Use, false);
    AddRow(drive, driveNumber, info, ReferenceOf(file.ParentCluster), false);
    FEngine.AnalyseProgress(++done / total);
    FEngine.Pump();
  }
}

/// A folder known by an estimate goes where the same folder is known for certain.
void TNTFS::DropEstimatedFolderDuplicates(TDriveInfo& drive) {
  const TFiles& files = FEngine.Files();
  for (const std::int64_t parent : TDrives::GetFoundPosParentClusters(drive)) {
    if (!FEngine.Analysing) return;
    std::set<std::pair<TString, bool>> certain;
    std::vector<std::uint32_t> doomed;
    for (const std::int64_t number : drive.ParentClusters.Folders(parent)) {
      const TFileInfo& info = files.List[static_cast<std::size_t>(number)].FileInfo;
      const std::pair<TString, bool> key(info.strName, info.blnDeleted);
      if (info.FirstClusterInfo == TFirstClusterInfo::fciNormal) {
        certain.insert(key);
      } else if (info.FirstClusterInfo == TFirstClusterInfo::fciUnknown && certain.contains(key)) {
        doomed.push_back(static_cast<std::uint32_t>(number));
      }
    }
    for (auto number = doomed.rbegin(); number != doomed.rend(); ++number) {
      TDrives::DeleteParentCluster(drive, parent, *number);
    }
  }
}

}  // namespace brenlow

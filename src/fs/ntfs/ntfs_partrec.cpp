// SPDX-License-Identifier: GPL-3.0-or-later
// NTFS in a partition search: records met anywhere on the drive, numbers for them, and the volumes
// that they confirm.
#include <algorithm>
#include <map>
#include <set>

#include "analysis/files.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr int UsualRecordSize = 1024;          // bytes, until a boot sector says otherwise
constexpr std::int64_t FarthestAnchor = 1024;  // sectors
constexpr std::int64_t VolumeRecord = 3;
constexpr std::int64_t MirroredRecords = 4;

std::int64_t RecordSectors(const TDriveInfo& drive) {
  return std::max<std::int64_t>(drive.NTFSInfo.MFTRecordSize / std::max(drive.BytesPerSector, 1), 1);
}

/// Sector of a record of a table that lies in one piece.
std::int64_t SectorOfRecord(const TDriveInfo& drive, std::int64_t number) {
  return drive.NTFSInfo.MFTFirstSector + number * drive.NTFSInfo.MFTRecordSize / std::max(drive.BytesPerSector, 1);
}

}  // namespace

void TNTFS::PartRecAnalyseSector(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                                 std::int64_t sectorNumber, bool canCheckNewDrive) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  const int bytesPerSector = std::max(drives.GetBytesPerSector(driveNumber), 512);
  for (int offset = 0; offset < bytesPerSector; offset += 512) {
    const std::size_t at = start + static_cast<std::size_t>(offset);
    if (!ntfs::IsMFT(buffer, at)) continue;
    TNTFSInfo& info = drives.List[static_cast<std::size_t>(driveNumber)].NTFSInfo;
    if (info.MFTRecordSize == 0) info.MFTRecordSize = UsualRecordSize;
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
  const bool wasSystem = search.LastNTFSFileIsSystem;
  search.LastNTFSFileIsSystem = number >= 0;
  if (wasSystem || number < 0) return TNewDrive::None;
  const std::int64_t absolute = drives.List[static_cast<std::size_t>(driveNumber)].FirstSector + sectorNumber;
  for (std::size_t i = 0; i < search.FoundDrives.size(); ++i) {
    const TDriveInfo& found = search.FoundDrives[i];
    if (found.FileSystem != TFileSystem::fsNTFS) continue;
    if (found.FirstSector + SectorOfRecord(found, number) != absolute) continue;
    const int target = drives.PartRecDriveForFound(search.MainDrive, static_cast<int>(i));
    if (target < 0) return TNewDrive::None;
    drives.List[static_cast<std::size_t>(target)].NTFSInfo.CanBeTruncated = false;
    if (OnPartRecConfirmed) OnPartRecConfirmed(sectorNumber);
    PartRecDriveAdded(target);
    if (target != driveNumber) return TNewDrive::Analysed;
    const TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
    AnalyseRecord(buffer, start, driveNumber, -1, absolute - drive.FirstSector, offsetInSector, false);
    return TNewDrive::Taken;
  }
  return TNewDrive::None;
}

bool TNTFS::IsInTable(const TDriveInfo& volume, std::int64_t sector) const {
  const TNTFSInfo& info = volume.NTFSInfo;
  const std::int64_t perRecord = RecordSectors(volume);
  const auto lies = [&](std::int64_t first, std::int64_t records) {
    return first > 0 && sector >= first && sector < first + records * perRecord;
  };
  return lies(info.MFTMirrorSector, MirroredRecords) ||
         std::any_of(info.MFTStructure.begin(), info.MFTStructure.end(),
                     [&](const TMFTRun& run) { return lies(run.FirstSector, run.Count); });
}

void TNTFS::PartRecDriveAdded(int driveNumber) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(driveNumber)) return;
  if (!GetDriveInfo(drives.List[static_cast<std::size_t>(driveNumber)], true, false)) return;
  FIndexes.clear();
  AnalyseMFTRecords(driveNumber, false);
  SettleParents(drives.List[static_cast<std::size_t>(driveNumber)]);
  if (FEngine.Analysing) AnalyseLogFile(driveNumber);
  if (FEngine.Analysing) FindLostFolderNames(drives.List[static_cast<std::size_t>(driveNumber)]);
}

void TNTFS::PartRecChangeVolumeName(TDriveInfo& drive) {
  if (!drive.VolumeName.empty() || drive.NTFSInfo.MFTRecordSize < 1 || drive.BytesPerSector < 1) return;
  TByteDynArray record;
  TParsed parsed;
  if (!ReadRecord(drive, {SectorOfRecord(drive, VolumeRecord), 0}, record)) return;
  if (!AnalyseMFTRecord(drive, record, 0, false, parsed, VolumeRecord, -1, 0, false)) return;
  const bool isVolume =
      std::any_of(parsed.Names.begin(), parsed.Names.end(), [](const TName& name) { return name.Text == u"$Volume"; });
  if (isVolume) drive.VolumeName = TString(Trim(parsed.VolumeName));
}

// ---- record numbers -------------------------------------------------------------------------

/// Gives a row found by its sector a number: its own, or one from the nearest record before it.
void TNTFS::EstimateMFTNumber(TDriveInfo& drive, TFileInfo& info, std::int64_t parent, std::int64_t sectorNumber) {
  TNTFSInfo& volume = drive.NTFSInfo;
  const int system = parent == RootRecord ? SystemFileNumber(info.strName) : -1;
  if (system >= 0) info.FirstCluster = system;
  if (info.FirstCluster >= 0) {
    volume.LastMFTNumber = info.FirstCluster;
    FLastSector = sectorNumber;
    auto& anchors = volume.PartRecMFTStructure;
    const auto at = std::lower_bound(anchors.begin(), anchors.end(), info.FirstCluster,
                                     [](const TPartRecMFT& a, std::int64_t n) { return a.MFTNumber < n; });
    const bool known = at != anchors.end() && at->MFTNumber == info.FirstCluster;
    if (!known) anchors.insert(at, {info.FirstCluster, sectorNumber});
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
  drive.NTFSInfo.UnknownFirstClusterFiles.push_back(std::move(file));
  ++FEngine.Files().FoundCount;
}

void TNTFS::PartRecDoAfterAnalyse(int parentDrive) {
  TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(parentDrive)) return;
  const TIntegerDynArray subs = drives.List[static_cast<std::size_t>(parentDrive)].SubDrives;
  double total = 0;
  for (const int sub : subs) {
    total += static_cast<double>(drives.List[static_cast<std::size_t>(sub)].NTFSInfo.UnknownFirstClusterFiles.size());
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
  for (const TPartRecMFT& anchor : drive.NTFSInfo.PartRecMFTStructure) bySector[anchor.SectorNumber] = anchor;
  const TPartRecMFT* best = nullptr;
  for (auto& [sector, anchor] : bySector) {
    if (best != nullptr && best->MFTNumber > anchor.MFTNumber) anchor = *best;
    best = &anchor;
  }
  const std::vector<TUnknownFirstClusterFile> files = std::move(drive.NTFSInfo.UnknownFirstClusterFiles);
  drive.NTFSInfo.UnknownFirstClusterFiles.clear();
  for (const TUnknownFirstClusterFile& file : files) {
    if (!FEngine.Analysing) return;
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
    drive.NTFSInfo.RecordUses.Enter(info.FirstCluster, file.Use, false);
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

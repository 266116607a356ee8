// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/drives.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <type_traits>
#include <utility>

#include "core/device/system_disks.h"
#include "core/device_table.h"
#include "core/driver_calls.h"
#include "core/engine.h"
#include "core/families.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sizes.h"
#include "core/text.h"

namespace brenlow {
namespace {

static_assert(std::is_nothrow_move_constructible_v<TDriveInfo>, "the registry moves its records when it grows");

constexpr std::int64_t SmallestVolume = 0x800000;  // bytes; table entries below it get no row
constexpr int SuperblockSectors = 136;             // up to the superblock at 64 KiB, with its sector

/// The sectors near a volume's start where file systems describe themselves, ascending.
std::set<std::int64_t> DescribingSectors(int bytesPerSector) {
  std::set<std::int64_t> sectors;
  for (const TFamily& family : Families()) {
    for (const TFamilyMember& member : family.Members) sectors.insert(member.SuperblockAt / bytesPerSector);
    for (const std::int64_t copy : family.CopySectors) {
      if (copy != AfterVolume) sectors.insert(copy);
    }
  }
  return sectors;
}

TString SizeCaption(std::int64_t bytes) { return FromUtf8(SizeText(bytes)); }

}  // namespace

// ---- building the list ----------------------------------------------------------------------

void TDrives::Fill() {
  Clear();
  FPhysicalDrives = FEngine.Partitions().GetPhysicalDrives();
  FEngine.Pump();
  FUnallocatedCount = FUnnamedCount = 0;
  AddSystemDisks(FPhysicalDrives, true);
}

void TDrives::DeviceInserted() {
  CloseChanged();
  TPhysicalDrives disks = FEngine.Partitions().GetPhysicalDrives();
  const auto has = [](const TPhysicalDrives& list, const TPhysicalDrive& disk) {
    return std::any_of(list.begin(), list.end(), [&](const TPhysicalDrive& d) {
      return d.Drive == disk.Drive && d.DiskSize == disk.DiskSize && d.Serial == disk.Serial &&
             (d.Sequence == disk.Sequence || d.Sequence == 0 || disk.Sequence == 0);
    });
  };
  const TPhysicalDrives before = std::exchange(FPhysicalDrives, std::move(disks));
  for (const TPhysicalDrive& disk : before) {
    if (has(FPhysicalDrives, disk)) continue;
    FEngine.Devices().Close(disk.Drive);
    if (!DeleteUnanalysed(disk.Drive)) FGone.push_back(disk);
  }
  TPhysicalDrives added;
  for (const TPhysicalDrive& disk : FPhysicalDrives) {
    if (has(before, disk) || TakeReturned(disk)) continue;
    // Rows of another device that had this name must not read from this one.
    for (TPhysicalDrive& gone : FGone) {
      if (gone.Drive != disk.Drive) continue;
      const TString nowhere = gone.Drive + u"~" + NumberText(++FGoneCount);
      Rekey(gone.Drive, nowhere);
      gone.Drive = nowhere;
    }
    added.push_back(disk);
  }
  AddSystemDisks(added, false);
}

/// Closes what another device, or the same one put in again, has taken the name of: its table is to be
/// read again, and what failed before is tried again.
void TDrives::CloseChanged() {
  for (const TSystemDisk& disk : FEngine.Partitions().SystemLists.Disks()) {
    const TString key = TextFromPath(disk.Path);
    const bool unchanged = std::any_of(FPhysicalDrives.begin(), FPhysicalDrives.end(), [&](const TPhysicalDrive& d) {
      return d.Drive == key && d.Sequence == disk.Sequence && d.DiskSize == disk.Size;
    });
    if (unchanged) continue;
    FEngine.Devices().Close(key);
    FEngine.Reader().ForgetFaults(key);
  }
}

/// Gives a device that was gone its rows back. False when it is a new one.
bool TDrives::TakeReturned(const TPhysicalDrive& disk) {
  const auto isSame = [&](const TPhysicalDrive& gone) {
    if (gone.DiskSize != disk.DiskSize || gone.Model != disk.Model || gone.Serial != disk.Serial) return false;
    // Without a serial number, the name and the table must do.
    return !disk.Serial.empty() ||
           (gone.Drive == disk.Drive && std::equal(gone.Volumes.begin(), gone.Volumes.end(), disk.Volumes.begin(),
                                                   disk.Volumes.end(), [](const TVolume& a, const TVolume& b) {
                                                     return a.StartingSector == b.StartingSector &&
                                                            a.SectorCount == b.SectorCount;
                                                   }));
  };
  const auto gone = std::find_if(FGone.begin(), FGone.end(), isSame);
  if (gone == FGone.end()) return false;
  Rekey(gone->Drive, disk.Drive);
  FGone.erase(gone);
  return true;
}

/// Lets the rows of one device lead to another key.
void TDrives::Rekey(const TString& from, const TString& to) {
  FEngine.Devices().Close(from);
  for (TDriveInfo& drive : List) {
    if (drive.Drive == from) drive.Drive = to;
  }
  FEngine.DriveListChanged();
}

/// A device that is gone takes its rows along, unless something was found on it. False when they stay.
bool TDrives::DeleteUnanalysed(const TString& device) {
  const auto isOf = [&](const TDriveInfo& drive) { return drive.Drive == device; };
  const bool analysed =
      std::any_of(List.begin(), List.end(), [&](const TDriveInfo& drive) { return isOf(drive) && HasResults(drive); });
  if (analysed) return false;
  while (true) {
    const auto found = std::find_if(List.begin(), List.end(), isOf);
    if (found == List.end()) return true;
    Delete(static_cast<int>(found - List.begin()));
  }
}

/// Volumes first, then the disks that they lie on. `all`: also the mounted volumes that lie on none.
void TDrives::AddSystemDisks(const TPhysicalDrives& disks, bool all) {
  const std::size_t before = List.size();
  AddSystemVolumes(disks, all);
  for (const TPhysicalDrive& disk : disks) {
    TDriveInfo like;
    if (disk.DiskGeometry.MediaType == RemovableMedia) like.DriveTypes.Add(TDriveType::dtRemovable);
    TPhysicalDrive shown = disk;
    const TDriveInfo drive = DriveOfDisk(disk);
    std::vector<TDriveInfo> wholes = WholeVolumes(drive, Recognise(drive), drive.BytesPerSector, shown);
    AddTableVolumes(shown, like);
    AddWholeVolumes(std::move(wholes));
  }
  for (const TPhysicalDrive& disk : disks) AddPhysicalDrive(disk);
  if (!OnAdded) return;
  for (std::size_t i = before; i < List.size(); ++i) OnAdded(static_cast<int>(i));
}

void TDrives::AddSystemVolumes(const TPhysicalDrives& disks, bool all) {
  for (const TMountedVolume& mounted : FEngine.Partitions().SystemLists.MountedVolumes()) {
    const TString disk = TextFromPath(mounted.DiskPath);
    const auto known =
        std::find_if(disks.begin(), disks.end(), [&](const TPhysicalDrive& d) { return d.Drive == disk; });
    if (known == disks.end() && !all) continue;
    TDriveInfo drive;
    drive.BytesPerSector = known == disks.end() ? 512 : static_cast<int>(known->DiskGeometry.BytesPerSector);
    drive.Drive = known == disks.end() ? TextFromPath(mounted.DevicePath) : disk;
    drive.FirstSector = known == disks.end() ? 0 : mounted.StartByte / drive.BytesPerSector;
    drive.SectorsCount = mounted.Size / drive.BytesPerSector;
    drive.DriveLetter = TextFromPath(mounted.MountPoint);
    drive.ReceivedType = TReceivedType::rtBySystem;
    drive.DriveTypes = {TDriveType::dtVolume};
    if (mounted.Removable) drive.DriveTypes.Add(TDriveType::dtRemovable);
    if (known != disks.end()) {
      const auto entry = std::find_if(known->Volumes.begin(), known->Volumes.end(), [&](const TVolume& volume) {
        return volume.StartingSector == static_cast<std::uint64_t>(drive.FirstSector);
      });
      if (entry != known->Volumes.end()) drive.PartitionName = PartitionName(entry->GPTRecord);
    }
    drive.CaptionKind = TCaptionKind::SystemVolume;
    AddVolume(std::move(drive), TFileSystem::fsUnknown);
  }
}

/// Adds a volume of known bounds with the file system that lies there, else the `promised` one, and once
/// more with what another system has left there. The result is the new numbers.
TIntegerDynArray TDrives::AddVolume(TDriveInfo drive, TFileSystem promised) {
  const TDriveInfo bounds = drive;
  const TRecognised found = Recognise(drive);
  const bool known = found.System != TFileSystem::fsUnknown;
  drive.FileSystem = known ? found.System : promised;
  drive.GeometrySource = found.Source;
  drive.CanBeAnalysed = true;
  GetInfo(drive, false, true, false);
  SetDefaultInfo(drive);
  TIntegerDynArray added{Add(drive, false)};
  const int leftover = AddLeftover(bounds, found.Leftover);
  if (leftover >= 0) added.push_back(leftover);
  return added;
}

/// The volume that was there before another system formatted it; -1 when nothing of it is left.
int TDrives::AddLeftover(const TDriveInfo& bounds, TFileSystem system) {
  if (system == TFileSystem::fsUnknown) return -1;
  TDriveInfo drive = bounds;
  drive.FileSystem = system;
  drive.GeometrySource = TPlaceSource::FromCopy;
  drive.ReceivedType = TReceivedType::rtAutodetected;
  drive.DriveTypes.Add(TDriveType::dtFound);
  drive.DriveLetter.clear();
  drive.CaptionKind = TCaptionKind::TableVolume;
  drive.CanBeAnalysed = true;
  if (!GetInfo(drive, false, true, false) || !FEngine.Drivers().HoldsFolders(drive)) return -1;
  SetDefaultInfo(drive);
  return Add(drive, false);
}

/// Adds a row for every partition of a disk and every gap between them that is large enough and
/// not in the list. Further fields come from `like`. The result is the new numbers.
TIntegerDynArray TDrives::AddTableVolumes(const TPhysicalDrive& disk, const TDriveInfo& like) {
  TIntegerDynArray added;
  TVolumes gaps;
  AddUnallocatedSpaces(disk, gaps);
  for (const TVolume& volume : disk.Volumes) {
    const TIntegerDynArray numbers = AddTableVolume(disk, volume, false, like);
    added.insert(added.end(), numbers.begin(), numbers.end());
  }
  for (const TVolume& gap : gaps) {
    const TIntegerDynArray numbers = AddTableVolume(disk, gap, true, like);
    added.insert(added.end(), numbers.begin(), numbers.end());
  }
  return added;
}

/// Volumes that fill a disk without a table, or lie beside its table. The result is the new numbers.
TIntegerDynArray TDrives::AddWholeVolumes(std::vector<TDriveInfo> wholes) {
  TIntegerDynArray added;
  for (TDriveInfo& whole : wholes) {
    const bool listed = std::any_of(List.begin(), List.end(), [&](const TDriveInfo& d) {
      return d.Drive == whole.Drive && d.FirstSector == 0 && !d.DriveTypes.Has(TDriveType::dtPhysical) &&
             d.FileSystem == whole.FileSystem;
    });
    if (listed) continue;
    whole.DriveTypes.Remove(TDriveType::dtPhysical);
    whole.DriveTypes.Add(TDriveType::dtVolume);
    whole.ReceivedType = TReceivedType::rtAutodetected;
    whole.CaptionKind = TCaptionKind::TableVolume;
    SetDefaultInfo(whole);
    added.push_back(Add(whole, false));
  }
  return added;
}

void TDrives::AddUnallocatedSpaces(const TPhysicalDrive& disk, TVolumes& volumes) const {
  if (disk.Volumes.empty() || disk.DiskGeometry.BytesPerSector == 0) return;
  TVolumes sorted = disk.Volumes;
  std::sort(sorted.begin(), sorted.end(),
            [](const TVolume& a, const TVolume& b) { return a.StartingSector < b.StartingSector; });
  const auto end = static_cast<std::uint64_t>(disk.DiskSize) / disk.DiskGeometry.BytesPerSector;
  std::uint64_t position = 0;
  const auto addGap = [&](std::uint64_t until) {
    if (until <= position) return;
    TVolume gap;
    gap.StartingSector = position;
    gap.SectorCount = until - position;
    volumes.push_back(gap);
  };
  for (const TVolume& volume : sorted) {
    addGap(std::min(volume.StartingSector, end));
    position = std::max(position, volume.StartingSector + volume.SectorCount);
  }
  addGap(end);
}

/// The file system that the table's type of a partition means, where there is a driver for it.
TFileSystem TDrives::Promised(PARTITION_STYLE style, const TVolume& volume) const {
  TFileSystem system = TFileSystem::fsUnknown;
  if (style == PARTITION_STYLE::PARTITION_STYLE_MBR) {
    system = FileSystemOfIndicator(volume.MBRRecord.Structure.SystemIndicator);
  } else if (style == PARTITION_STYLE::PARTITION_STYLE_GPT) {
    system = FileSystemOfGuid(volume.GPTRecord.PartitionType);
  }
  return FEngine.Drivers().HasDriver(system) ? system : TFileSystem::fsUnknown;
}

TIntegerDynArray TDrives::AddTableVolume(const TPhysicalDrive& disk, const TVolume& volume, bool unallocated,
                                         const TDriveInfo& like) {
  const auto bytesPerSector = static_cast<int>(disk.DiskGeometry.BytesPerSector);
  if (volume.SectorCount < static_cast<std::uint64_t>(SmallestVolume / bytesPerSector)) return {};
  // Beyond this no byte has an address: garbage.
  const auto mostSectors = static_cast<std::uint64_t>(INT64_MAX / bytesPerSector);
  if (volume.StartingSector > mostSectors || volume.SectorCount > mostSectors - volume.StartingSector) return {};
  // A volume of which the source holds nothing: a table of garbage, or the head of an image.
  if (disk.DiskSize > 0 && volume.StartingSector >= static_cast<std::uint64_t>(disk.DiskSize / bytesPerSector))
    return {};
  if (volume.PartitionType.Has(TPartitionType::ptReserved)) return {};
  const auto start = static_cast<std::int64_t>(volume.StartingSector);
  const bool listed = std::any_of(List.begin(), List.end(), [&](const TDriveInfo& d) {
    return d.Drive == disk.Drive && d.FirstSector == start && !d.DriveTypes.Has(TDriveType::dtPhysical);
  });
  if (listed) return {};

  TDriveInfo drive = like;
  drive.Drive = disk.Drive;
  drive.PartitionType = volume.PartitionType;
  drive.PartitionName = PartitionName(volume.GPTRecord);
  drive.ReceivedType = unallocated ? TReceivedType::rtByUnallocatedSpace : TReceivedType::rtByMBR;
  drive.DriveTypes.Add(TDriveType::dtVolume);
  drive.DriveTypes.Remove(TDriveType::dtPhysical);
  drive.FirstSector = start;
  drive.SectorsCount = static_cast<std::int64_t>(volume.SectorCount);
  drive.BytesPerSector = bytesPerSector;
  if (!unallocated) {
    drive.CaptionKind = TCaptionKind::TableVolume;
    return AddVolume(std::move(drive), Promised(disk.PartitionStyle, volume));
  }
  SetDefaultInfo(drive);
  drive.CaptionKind = TCaptionKind::UnallocatedSpace;
  drive.CaptionNumber = ++FUnallocatedCount;
  drive.CanBeAnalysed = true;
  return {Add(drive, false)};
}

/// A disk of the system as a drive.
TDriveInfo TDrives::DriveOfDisk(const TPhysicalDrive& disk) {
  TDriveInfo drive;
  drive.Drive = disk.Drive;
  drive.Serial = disk.Serial;
  drive.DiskGeometry = disk.DiskGeometry;
  drive.BytesPerSector = static_cast<int>(disk.DiskGeometry.BytesPerSector);
  if (drive.BytesPerSector > 0 && disk.DiskSize > 0) drive.SectorsCount = disk.DiskSize / drive.BytesPerSector;
  drive.DriveTypes = {TDriveType::dtPhysical};
  if (disk.DiskGeometry.MediaType == RemovableMedia) drive.DriveTypes.Add(TDriveType::dtRemovable);
  drive.CanBeAnalysed = true;
  return drive;
}

void TDrives::AddPhysicalDrive(const TPhysicalDrive& disk) {
  TDriveInfo drive = DriveOfDisk(disk);
  drive.Caption = disk.Model;
  if (disk.Model.empty()) {
    drive.CaptionKind = TCaptionKind::PhysicalDrive;
    drive.CaptionNumber = ++FUnnamedCount;
  }
  for (int i = 0; i < static_cast<int>(List.size()); ++i) {
    if (List[static_cast<std::size_t>(i)].Drive == disk.Drive && !IsPhysical(i)) drive.Volumes.push_back(i);
  }
  SetDefaultInfo(drive);
  Add(drive, false);
}

void TDrives::Clear() {
  List.clear();
  FPhysicalDrives.clear();
  FGone.clear();
  Current = -1;
  FUnallocatedCount = 0;
  FEngine.Devices().CloseAll();
  FEngine.Reader().ForgetFaults();
}

int TDrives::Add(const TDriveInfo& drive, bool canAddToTreeView) {
  List.push_back(drive);
  FEngine.DriveListChanged();
  UpdateCaption(List.back());
  FEngine.Pump();
  const int number = static_cast<int>(List.size()) - 1;
  if (canAddToTreeView && OnAdded) OnAdded(number);
  return number;
}

void TDrives::Delete(int number) {
  if (IsWrongNumber(number)) return;
  if (IsPhysical(number)) {
    for (int i = static_cast<int>(List.size()) - 1; i >= 0; --i) {
      const auto& volumes = List[static_cast<std::size_t>(number)].Volumes;
      if (std::find(volumes.begin(), volumes.end(), i) == volumes.end()) continue;
      Delete(i);
      if (i < number) --number;
    }
  }
  DeleteSubdrives(number);
  FEngine.ClearDriveFiles(number, true);
  if (OnBeforeDeleted) OnBeforeDeleted(number);
  for (TDriveInfo& drive : List) {
    ForEachDriveNumber(drive, [number](int& n) { n = n == number ? NoDrive : n > number ? n - 1 : n; });
    DropNoDrives(drive);
  }
  const TString key = List[static_cast<std::size_t>(number)].Drive;
  List.erase(List.begin() + number);
  FEngine.DriveListChanged();
  FEngine.Devices().Close(key);
  const bool isLast =
      std::none_of(List.begin(), List.end(), [&](const TDriveInfo& drive) { return drive.Drive == key; });
  if (isLast && TDeviceTable::IsComposite(key)) FEngine.Devices().Remove(key);
  if (OnDeleted) OnDeleted(number);
}

TDriveInfo TDrives::PartOf(const TDriveInfo& parent) const {
  TDriveInfo drive;
  drive.Drive = parent.Drive;
  drive.Serial = parent.Serial;
  drive.DriveTypes = parent.DriveTypes;
  drive.DriveTypes.Remove(TDriveType::dtPhysical);
  drive.DriveTypes.Add(TDriveType::dtVolume);
  drive.BytesPerSector = GetBytesPerSector(parent);
  drive.CanBeAnalysed = true;
  return drive;
}

int TDrives::AddSubdrive(int driveNumber, int driveIcon) {
  if (IsWrongNumber(driveNumber)) return -1;
  const TDriveInfo& parent = List[static_cast<std::size_t>(driveNumber)];
  TDriveInfo drive = PartOf(parent);
  drive.DriveLetter = parent.DriveLetter;
  drive.DriveIcon = driveIcon;
  drive.BytesPerSector = parent.BytesPerSector;
  drive.FirstSector = parent.FirstSector;
  drive.SectorsCount = parent.SectorsCount;
  drive.IsSubDrive = true;
  SetDefaultInfo(drive);
  const int number = Add(drive, false);
  List[static_cast<std::size_t>(driveNumber)].SubDrives.push_back(number);
  return number;
}

void TDrives::DeleteSubdrives(int driveNumber) {
  if (IsWrongNumber(driveNumber)) return;
  // Sub-drives are always added after their parent, so its number stays.
  while (!List[static_cast<std::size_t>(driveNumber)].SubDrives.empty()) {
    Delete(List[static_cast<std::size_t>(driveNumber)].SubDrives.back());
  }
}

TIntegerDynArray TDrives::AllSubDrives(int driveNumber) const {
  TIntegerDynArray all;
  if (IsWrongNumber(driveNumber)) return all;
  for (const int sub : List[static_cast<std::size_t>(driveNumber)].SubDrives) {
    all.push_back(sub);
    const TIntegerDynArray below = AllSubDrives(sub);
    all.insert(all.end(), below.begin(), below.end());
  }
  return all;
}

void TDrives::UpdateSubDrivesCaptions(int driveNumber) {
  if (IsWrongNumber(driveNumber)) return;
  int count = 0;
  for (const int sub : List[static_cast<std::size_t>(driveNumber)].SubDrives) {
    TDriveInfo& drive = List[static_cast<std::size_t>(sub)];
    drive.CaptionKind = TCaptionKind::SubDrive;
    if (drive.VolumeName.empty()) drive.CaptionNumber = ++count;
    UpdateCaption(drive);
  }
}

void TDrives::UpdateCaption(TDriveInfo& drive) const {
  const TLanguage& language = FEngine.Language();
  const TString number = NumberText(drive.CaptionNumber);
  const auto nameOr = [&](const TString& text) { return drive.VolumeName.empty() ? text : drive.VolumeName; };
  const TString size = u" " + SizeCaption(drive.SectorsCount * drive.BytesPerSector);
  switch (drive.CaptionKind) {
    case TCaptionKind::OwnName:
      break;
    case TCaptionKind::SystemVolume: {
      const bool removable = drive.DriveTypes.Has(TDriveType::dtRemovable);
      const TString name = nameOr(language[removable ? TText::RemovableVolume : TText::Volume]);
      drive.Caption = name + u" (" + drive.DriveLetter + u")";
      break;
    }
    case TCaptionKind::TableVolume:
      drive.Caption = nameOr(language[TText::Volume]) + size;
      break;
    case TCaptionKind::UnallocatedSpace:
      drive.Caption = language.Format(TText::UnallocatedSpace, {number});
      break;
    case TCaptionKind::PhysicalDrive:
      drive.Caption = language.Format(TText::PhysicalDrive, {number}) + size;
      break;
    case TCaptionKind::VirtualPartition:
      drive.Caption = language.Format(TText::VirtualPartition, {number});
      break;
    case TCaptionKind::SubDrive:
      drive.Caption = nameOr(language.Format(TText::Partition, {number})) + size;
      break;
  }
}

void TDrives::UpdateLanguage() {
  for (TDriveInfo& drive : List) UpdateCaption(drive);
}

void TDrives::CopyInfo(int source, int destination) {
  if (IsWrongNumber(source) || IsWrongNumber(destination)) return;
  TDriveInfo& to = List[static_cast<std::size_t>(destination)];
  TDriveInfo copy = List[static_cast<std::size_t>(source)];
  copy.Volumes = to.Volumes;
  copy.SubDrives = to.SubDrives;
  copy.IsSubDrive = to.IsSubDrive;
  copy.ParentClusters.Clear();
  copy.FileFirstClusters.clear();
  copy.Analysed = copy.DeepAnalysed = TAnalyseInformation::aiNone;
  to = std::move(copy);
}

void TDrives::CopySystemsInfo(int source, int destination) {
  if (IsWrongNumber(source) || IsWrongNumber(destination)) return;
  CopySystemsInfo(List[static_cast<std::size_t>(source)], List[static_cast<std::size_t>(destination)]);
}

void TDrives::CopySystemsInfo(const TDriveInfo& from, TDriveInfo& to) {
  to.FileSystem = from.FileSystem;
  to.VolumeName = from.VolumeName;
  to.aFreeSize = from.aFreeSize;
  to.Systems = from.Systems;
  to.GeometrySource = from.GeometrySource;
  SetDefaultInfo(to);
}

void TDrives::SetDefaultInfo(TDriveInfo& drive) {
  drive.DefaultSystem = drive.FileSystem;
  drive.DefaultFirstSector = drive.FirstSector;
  drive.DefaultBytesPerSector = drive.BytesPerSector;
  drive.DefaultSectorsCount = drive.SectorsCount;
  const std::int64_t unit = FEngine.Drivers().AllocationUnit(drive);
  drive.DefaultSectorsPerCluster = drive.BytesPerSector > 0 ? unit / drive.BytesPerSector : 0;
}

void TDrives::ResetDefaultInfo(int number) {
  if (IsWrongNumber(number)) return;
  TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  drive.FirstSector = drive.DefaultFirstSector;
  drive.BytesPerSector = static_cast<int>(drive.DefaultBytesPerSector);
  drive.SectorsCount = drive.DefaultSectorsCount;
  drive.Systems.Clear();
  drive.VolumeName.clear();
  drive.aFreeSize = -1;
  const TRecognised found = Recognise(drive);
  drive.FileSystem = found.System;
  drive.GeometrySource = found.Source;
  GetInfo(drive, false, true, false);
  SetDefaultInfo(drive);
}

// ---- mounting -------------------------------------------------------------------------------

/// Makes the drive the volume that fills it; the volume then says how long it is and, where the source
/// does not, how large its sectors are. False when it cannot be read as that.
bool TDrives::WholeVolume(TDriveInfo& drive, TFileSystem system, TPlaceSource source, int statedSectorSize) {
  TDriveInfo volume = drive;
  volume.FileSystem = system;
  volume.GeometrySource = source;
  if (!FEngine.Drivers().HasDriver(system)) {
    drive = std::move(volume);
    return true;
  }
  volume.SectorsCount = 0;
  // A copy lies where sectors of the right size are counted: those of the drive are tried then.
  for (const int bytesPerSector : {statedSectorSize, drive.BytesPerSector}) {
    TDriveInfo attempt = volume;
    attempt.BytesPerSector = bytesPerSector;
    if (!GetInfo(attempt, false, true, false) || attempt.SectorsCount <= 0) continue;
    drive = std::move(attempt);
    return true;
  }
  return false;
}

/// The volumes that fill a drive: what its boot area says first, then its table, then copies of lost boot
/// sectors. Where two of them are sound both count; what is not believed is removed from `disk`.
std::vector<TDriveInfo> TDrives::WholeVolumes(const TDriveInfo& drive, const TRecognised& found, int statedSectorSize,
                                              TPhysicalDrive& disk) {
  std::vector<TDriveInfo> wholes;
  const auto offer = [&](TFileSystem system, TPlaceSource source, bool mustHoldFolders) {
    TDriveInfo volume = drive;
    if (system == TFileSystem::fsUnknown || !WholeVolume(volume, system, source, statedSectorSize)) return;
    if (!mustHoldFolders || FEngine.Drivers().HoldsFolders(volume)) wholes.push_back(std::move(volume));
  };
  const bool inBootArea = found.System != TFileSystem::fsUnknown && found.Source == TPlaceSource::Stored;
  bool hasTable = disk.TableIsSound && !disk.Volumes.empty();
  if (inBootArea) {
    // Boot code may look like a table: one beside the boot sector of a volume must be sound and lead to
    // volumes. Beside what is known by name only, which formatting may have left behind, either will do.
    const bool served = FEngine.Drivers().HasDriver(found.System);
    const bool leads = CountKnownSystems(drive, disk.Volumes) > 0;
    hasTable = served ? hasTable && leads : hasTable || leads;
    if (served || !hasTable) offer(found.System, found.Source, false);
  } else if (!hasTable || found.SoundCopy) {
    offer(found.System, found.Source, hasTable);
  }
  offer(found.Leftover, TPlaceSource::FromCopy, true);
  if (!wholes.empty() && !hasTable) disk.Volumes.clear();
  return wholes;
}

/// How many volumes of a disk have a known file system where the table says that they begin.
int TDrives::CountKnownSystems(const TDriveInfo& drive, const TVolumes& volumes) {
  int known = 0;
  TDriveInfo volume = drive;
  for (const TVolume& entry : volumes) {
    if (entry.StartingSector == 0 || entry.StartingSector >= static_cast<std::uint64_t>(drive.SectorsCount)) continue;
    volume.FirstSector = static_cast<std::int64_t>(entry.StartingSector);
    if (GetSystem(volume) != TFileSystem::fsUnknown) ++known;
  }
  return known;
}

/// True where the header of a GPT lies in the second sector of 4096 bytes and not of 512.
bool TDrives::HasNative4KTable(const TDriveInfo& drive) {
  constexpr std::string_view signature = "EFI PART";
  TByteDynArray head(8192);
  FEngine.Reader().ReadDeviceSectors(drive.Drive, head.data(), 512, 0, 16);
  const auto isAt = [&](std::ptrdiff_t at) {
    return std::equal(signature.begin(), signature.end(), head.begin() + at);
  };
  return isAt(4096) && !isAt(512);
}

/// Looks for volumes that fill the source, which are the result, and for partitions. A source without a
/// known sector size is read with 512 bytes, and with 4096 where that shows more (disks with native
/// 4 KiB sectors keep their tables in those units).
std::vector<TDriveInfo> TDrives::DetectWholeSource(TDriveInfo& drive, TPhysicalDrive& disk) {
  const int stated = drive.BytesPerSector;
  const std::int64_t size = drive.SectorsCount * GetBytesPerSector(drive);
  int most = -1;
  int chosen = stated > 0 ? stated : HasNative4KTable(drive) ? 4096 : 512;
  std::vector<TDriveInfo> wholes;
  for (const int bytesPerSector : {chosen, 4096}) {
    drive.BytesPerSector = bytesPerSector;
    drive.SectorsCount = size / bytesPerSector;
    const TRecognised recognised = Recognise(drive);
    const bool isVolume = FEngine.Drivers().HasDriver(recognised.System) && recognised.Source == TPlaceSource::Stored;
    TPhysicalDrive found;
    // A volume's boot sector that holds no table spares the hunt for one.
    if (!isVolume || FEngine.Partitions().HasTableSector(drive)) FEngine.Partitions().GetPhysicalDrive(drive, found);
    wholes = WholeVolumes(drive, recognised, stated, found);
    const int known = stated > 0 ? 0 : CountKnownSystems(drive, found.Volumes);
    if (!wholes.empty() || known > most || (disk.Volumes.empty() && !found.Volumes.empty())) {
      most = known;
      chosen = bytesPerSector;
      disk = std::move(found);
    }
    if (!wholes.empty() || known > 0 || stated > 0 || bytesPerSector == 4096) break;
  }
  drive.BytesPerSector = chosen;
  drive.SectorsCount = size / chosen;
  return wholes;
}

TMountFailure LastFailure(const TDeviceTable& devices) {
  return {devices.LastError(), false, devices.LastProblem(), devices.LastDetail()};
}

int TDrives::Mount(TStringView fileName, bool canAddToTreeView, TMountFailure* failure) {
  TMountFailure unused;
  TMountFailure& reason = failure != nullptr ? *failure : unused;
  reason = TMountFailure();
  for (int i = 0; i < static_cast<int>(List.size()); ++i) {
    const TDriveInfo& known = List[static_cast<std::size_t>(i)];
    if (known.Drive == fileName && known.FirstSector == 0 && !known.IsSubDrive) return i;
  }
  FEngine.Reader().ForgetFaults(TString(fileName));
  FEngine.Devices().Close(fileName);  // a new request: one that failed before is tried again
  const IDevice* device = FEngine.Devices().Get(fileName);
  if (device == nullptr) {
    reason = LastFailure(FEngine.Devices());
    return -1;
  }
  if (device->Size() < 512) {
    reason.TooSmall = true;
    return -1;
  }
  TDriveInfo drive;
  drive.Drive = fileName;
  const TStringView name = fileName.substr(fileName.rfind(u'/') + 1);
  drive.Caption = name.ends_with(u".dsk") ? name.substr(0, name.size() - 4) : name;
  drive.DriveTypes = {TDriveType::dtMounted};
  if (LowerCase(name).ends_with(u".vmdk")) drive.DriveTypes.Add(TDriveType::dtVMWare);
  drive.BytesPerSector = device->SectorSize();
  drive.SectorsCount = device->Size() / (drive.BytesPerSector > 0 ? drive.BytesPerSector : 512);
  drive.CanBeAnalysed = true;

  TPhysicalDrive disk;
  std::vector<TDriveInfo> wholes = DetectWholeSource(drive, disk);
  const bool isVolume = wholes.size() == 1 && disk.Volumes.empty();
  if (isVolume) drive = std::move(wholes.front());
  drive.DriveTypes.Add(isVolume ? TDriveType::dtVolume : TDriveType::dtPhysical);
  if (!isVolume) drive.DiskGeometry.BytesPerSector = static_cast<std::uint32_t>(drive.BytesPerSector);
  SetDefaultInfo(drive);
  const int number = Add(drive, false);
  if (!isVolume) {
    TDriveInfo like;
    like.DriveTypes = {TDriveType::dtMounted};
    TIntegerDynArray volumes = AddTableVolumes(disk, like);
    for (TDriveInfo& whole : wholes) whole.DriveTypes = like.DriveTypes;
    const TIntegerDynArray others = AddWholeVolumes(std::move(wholes));
    volumes.insert(volumes.end(), others.begin(), others.end());
    List[static_cast<std::size_t>(number)].Volumes = std::move(volumes);
  }
  if (canAddToTreeView && OnAdded) {
    for (int i = number; i < static_cast<int>(List.size()); ++i) OnAdded(i);
  }
  return number;
}

// ---- questions and facts --------------------------------------------------------------------

bool TDrives::IsFloppy(const TDriveInfo& drive) {
  return drive.DriveTypes.Has(TDriveType::dtVolume) && (drive.DriveLetter == u"A" || drive.DriveLetter == u"B");
}

bool TDrives::IsDiskIn(int number, bool canShowMessages) {
  if (IsWrongNumber(number) || !IsFloppy(List[static_cast<std::size_t>(number)])) return true;
  const TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  for (;;) {
    FEngine.Devices().Close(drive.Drive);
    const IDevice* device = FEngine.Devices().Get(drive.Drive);
    if (device != nullptr && device->Size() > 0) return true;
    const TString question = FEngine.Language().Format(TText::NoDiskInDrive, {drive.DriveLetter + u":"});
    if (!canShowMessages || !FEngine.OnAskRetry || !FEngine.OnAskRetry(question)) return false;
  }
}

bool TDrives::IsEmpty(int number) const {
  if (IsWrongNumber(number)) return true;
  const TDriveInfo& drive = List[static_cast<std::size_t>(number)];
  return drive.ParentClusters.Empty() && !FEngine.Drivers().HasWaitingFiles(drive);
}

bool TDrives::IsEmpty(int number, std::int64_t parent) const {
  return IsWrongNumber(number) || List[static_cast<std::size_t>(number)].ParentClusters.Empty(parent);
}

bool TDrives::CanCloseDisk(int number) const {
  for (const TDriveType type :
       {TDriveType::dtMounted, TDriveType::dtFound, TDriveType::dtVirtual, TDriveType::dtRaid}) {
    if (HasType(number, type)) return true;
  }
  return false;
}

void TDrives::CloseDisks(TIntegerDynArray numbers) {
  // From the last, so that those still to go keep their numbers. A disk takes its volumes along,
  // which come after it.
  std::sort(numbers.rbegin(), numbers.rend());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  for (const int number : numbers) Delete(number);
}

bool TDrives::CanBeAnalysed(int number) const {
  return !IsWrongNumber(number) && FEngine.Drivers().HasDriver(List[static_cast<std::size_t>(number)].FileSystem);
}

bool TDrives::Same(const TDriveInfo& drive1, const TDriveInfo& drive2) {
  return drive1.Drive == drive2.Drive && drive1.DriveLetter == drive2.DriveLetter &&
         drive1.DriveTypes == drive2.DriveTypes && drive1.FirstSector == drive2.FirstSector &&
         drive1.SectorsCount == drive2.SectorsCount;
}

TIntegerDynArray TDrives::GetParentPhysicalDrives(const TDriveInfo& drive) const {
  TIntegerDynArray parents;
  for (int i = 0; i < static_cast<int>(List.size()); ++i) {
    if (IsPhysical(i) && List[static_cast<std::size_t>(i)].Drive == drive.Drive) parents.push_back(i);
  }
  return parents;
}

int TDrives::GetBytesPerSector(const TDriveInfo& drive) const {
  if (drive.BytesPerSector > 0) return drive.BytesPerSector;
  if (drive.DriveTypes.Has(TDriveType::dtPhysical)) return 512;
  const TIntegerDynArray parents = GetParentPhysicalDrives(drive);
  if (parents.empty()) return 512;
  const int size = List[static_cast<std::size_t>(parents.front())].BytesPerSector;
  return size > 0 ? size : 512;
}

int TDrives::GetBytesPerSector(int number) const {
  return IsWrongNumber(number) ? 512 : GetBytesPerSector(List[static_cast<std::size_t>(number)]);
}

bool TDrives::GetInfo(TDriveInfo& drive, bool canGetFloppy, bool canGetIfAnalyzed, bool canFillClustersUsage) {
  if (IsFloppy(drive) && !canGetFloppy) return false;
  if (!canGetIfAnalyzed && drive.BytesPerSector > 0) return true;
  // Drivers know where the copies of their boot sectors are: the first sector may be unreadable.
  const bool result = FEngine.Drivers().GetDriveInfo(drive, canFillClustersUsage);
  if (drive.BytesPerSector <= 0 && drive.SectorsCount > 0) drive.BytesPerSector = GetBytesPerSector(drive);
  return result;
}

std::int64_t TDrives::GetSize(TDriveInfo& drive, bool canGetFloppy) {
  const std::int64_t size = drive.SectorsCount * drive.BytesPerSector;
  if (size != 0 || (IsFloppy(drive) && !canGetFloppy)) return size;
  GetInfo(drive, canGetFloppy, true, false);
  return drive.SectorsCount * drive.BytesPerSector;
}

TFileSystem TDrives::GetSystem(const TDriveInfo& drive) { return Recognise(drive).System; }

TDrives::TRecognised TDrives::Recognise(const TDriveInfo& drive) {
  const int bytesPerSector = GetBytesPerSector(drive);
  std::int64_t sectors = SuperblockSectors;
  if (drive.SectorsCount > 0) sectors = std::min(sectors, drive.SectorsCount);
  TByteDynArray head(static_cast<std::size_t>(sectors) * static_cast<std::size_t>(bytesPerSector));
  std::uint32_t got = FEngine.Reader().ReadDriveSectors(drive, head.data(), drive.FirstSector, sectors);
  if (got == 0) {
    // A bad place somewhere among them: only the sectors where a file system describes itself.
    for (const std::int64_t sector : DescribingSectors(bytesPerSector)) {
      if (sector >= sectors) continue;
      std::uint8_t* place = head.data() + sector * bytesPerSector;
      if (FEngine.Reader().ReadDriveSectors(drive, place, drive.FirstSector + sector, 1) != 0) {
        got = static_cast<std::uint32_t>(head.size());
      }
    }
  }
  head.resize(got);
  TRecognised found;
  IsPartition(head, 0, true, found.System, bytesPerSector);
  const TCopyFound copy = FEngine.Drivers().RecogniseByCopy(drive, head, bytesPerSector, found.System);
  found.SoundCopy = copy.Sound;
  if (found.System != TFileSystem::fsUnknown) {
    if (copy.Sound) found.Leftover = copy.System;
  } else if (copy.System != TFileSystem::fsUnknown) {
    found.System = copy.System;
    found.Source = TPlaceSource::FromCopy;
  }
  return found;
}

bool TDrives::IsPartition(std::span<const std::uint8_t> buffer, std::size_t start, bool addSuperblockOffset,
                          TFileSystem& fileSystem, int bytesPerSector) const {
  fileSystem = FEngine.Drivers().Recognise(buffer, start, addSuperblockOffset, bytesPerSector);
  return fileSystem != TFileSystem::fsUnknown;
}

TStringView TDrives::GetSystemNameBySystem(TFileSystem system) { return FileSystemCaption(system); }

TString TDrives::GetPartitionTypeCaption(const TDriveInfo& drive) const {
  using enum TPartitionType;
  constexpr std::pair<TPartitionType, TText> texts[] = {{ptPrimary, TText::PartitionPrimary},
                                                        {ptLogical, TText::PartitionLogical},
                                                        {ptBoot, TText::PartitionBoot},
                                                        {ptEFI, TText::PartitionEFI},
                                                        {ptReserved, TText::PartitionReserved},
                                                        {ptRecovery, TText::PartitionRecovery},
                                                        {ptLdmMetadata, TText::PartitionLdmMetadata},
                                                        {ptLdmData, TText::PartitionLdmData},
                                                        {ptAppleRaid, TText::PartitionAppleRaid}};
  TString caption;
  for (const auto& [type, text] : texts) {
    if (!drive.PartitionType.Has(type)) continue;
    if (!caption.empty()) caption += u", ";
    caption += FEngine.Language()[text];
  }
  return caption;
}

PARTITION_STYLE TDrives::GetPhysicalPartitionStyle(int number) const {
  TPhysicalDrive disk;
  if (IsWrongNumber(number)) return PARTITION_STYLE::PARTITION_STYLE_RAW;
  FEngine.Partitions().GetPhysicalDrive(List[static_cast<std::size_t>(number)], disk);
  return disk.PartitionStyle;
}

TByteDynArray TDrives::GetDriveData(TDriveInfo& drive, std::int64_t start, std::int64_t size) {
  if (start < 0 || start >= GetSize(drive, false) || size <= 0 || drive.BytesPerSector <= 0) return {};
  if (size > LargestDriveData) return {};
  const std::int64_t bytesPerSector = drive.BytesPerSector;
  const std::int64_t first = start / bytesPerSector;
  std::int64_t count = size / bytesPerSector;
  if (start % bytesPerSector != 0) ++count;
  if (size % bytesPerSector != 0) ++count;
  count = std::min(count, drive.SectorsCount - first);
  TByteDynArray sectors(static_cast<std::size_t>(count * bytesPerSector));
  FEngine.Reader().ReadOrZero(drive, sectors, drive.FirstSector + first, TReadEffort::Content);
  sectors.erase(sectors.begin(), sectors.begin() + static_cast<std::ptrdiff_t>(start % bytesPerSector));
  sectors.resize(static_cast<std::size_t>(size));
  return sectors;
}

TByteDynArray TDrives::GetDriveData(int number, std::int64_t start, std::int64_t size) {
  return IsWrongNumber(number) ? TByteDynArray() : GetDriveData(List[static_cast<std::size_t>(number)], start, size);
}

// ---- parent index ---------------------------------------------------------------------------

void TDrives::AddParentCluster(TDriveInfo& drive, std::int64_t number, std::uint32_t fileIndex, bool isFolder) {
  drive.ParentClusters.Add(number, fileIndex, isFolder);
}

void TDrives::DeleteParentCluster(TDriveInfo& drive, std::int64_t number, std::uint32_t fileIndex) {
  drive.ParentClusters.Delete(number, fileIndex);
}

TInt64DynArray TDrives::GetParentClusters(int driveNumber, std::int64_t number) const {
  if (IsWrongNumber(driveNumber)) return {};
  return List[static_cast<std::size_t>(driveNumber)].ParentClusters.Files(number);
}

TInt64DynArray TDrives::GetParentFolders(int driveNumber, std::int64_t number) const {
  if (IsWrongNumber(driveNumber)) return {};
  return List[static_cast<std::size_t>(driveNumber)].ParentClusters.Folders(number);
}

void TDrives::MergeParentClusters(int source, int destination) {
  if (IsWrongNumber(source) || IsWrongNumber(destination) || source == destination) return;
  List[static_cast<std::size_t>(destination)].ParentClusters.Merge(
      List[static_cast<std::size_t>(source)].ParentClusters);
}

void TDrives::MoveParentClusters(std::span<const std::uint32_t> newNumbers) {
  for (TDriveInfo& drive : List) drive.ParentClusters.Renumber(newNumbers);
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/entries.h"

#include <algorithm>

#include "analysis/file_data.h"
#include "core/driver_calls.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/sizes.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow {
namespace {

TFile& FileOf(TEngine& engine, int number) { return engine.Files().List[static_cast<std::size_t>(number)]; }

/// The drive of a row of the tree; null for files and folders.
const TDriveInfo* DriveOfRow(TEngine& engine, const TFileInfo& info) {
  const TDrives& drives = engine.Drives();
  if (!TFiles::IsRootDir(info) || drives.IsWrongNumber(info.aDriveNumber)) return nullptr;
  return &drives.List[static_cast<std::size_t>(info.aDriveNumber)];
}

TText TypeText(TEntryKind kind) {
  switch (kind) {
    case TEntryKind::PhysicalDrive:
      return TText::TypePhysicalDrive;
    case TEntryKind::RemovableDrive:
      return TText::TypeRemovableDrive;
    case TEntryKind::Image:
      return TText::TypeImage;
    case TEntryKind::UnallocatedSpace:
      return TText::TypeUnallocated;
    case TEntryKind::FoundVolume:
      return TText::TypeFoundVolume;
    case TEntryKind::VirtualVolume:
      return TText::TypeVirtualVolume;
    case TEntryKind::Volume:
    case TEntryKind::UnknownVolume:
      return TText::TypeVolume;
    default:
      return TText::TypeFolder;
  }
}

std::int64_t SizeOf(const TDriveInfo& drive) { return drive.SectorsCount * drive.BytesPerSector; }

TString SizeWithBytes(const TLanguage& language, std::int64_t bytes) {
  const std::string text = SizeText(bytes);
  if (bytes < 1024) return FromUtf8(text);
  return FromUtf8(language.Utf8(TText::SizeAndBytes, {text, std::to_string(bytes)}));
}

TString TimeText(TDateTime time) {
  std::string text = IsoTime(time);
  if (const std::size_t t = text.find('T'); t != std::string::npos) text[t] = ' ';
  return FromUtf8(text.substr(0, text.find('.')));
}

TText StatusText(TEntryStatus status) {
  return status == TEntryStatus::Existing  ? TText::StatusExisting
         : status == TEntryStatus::Deleted ? TText::StatusDeleted
                                           : TText::StatusOverwritten;
}

TString AttributesText(const TLanguage& language, const TAtributes& attributes) {
  TString text;
  const auto add = [&](bool set, TText name) {
    if (set) text += (text.empty() ? u"" : u", ") + language[name];
  };
  add(attributes.blnReadOnly, TText::AttributeReadOnly);
  add(attributes.blnHidden, TText::AttributeHidden);
  add(attributes.blnSystem, TText::AttributeSystem);
  add(attributes.blnArchive, TText::AttributeArchive);
  add(attributes.blnCompressed, TText::AttributeCompressed);
  add(attributes.blnEncrypted, TText::AttributeEncrypted);
  return text;
}

class TSheet {
 public:
  explicit TSheet(TEngine& engine) : FEngine(engine) {}

  void AddDrive(const TDriveInfo& drive, TProperties& sheet) const {
    Add(sheet.General, TText::PropertyType, sheet.Row.Type);
    Add(sheet.General, TText::PropertyFileSystem, sheet.Row.FileSystem);
    Add(sheet.General, TText::PropertyLabel, drive.VolumeName);
    Add(sheet.General, TText::PropertySize, SizeWithBytes(FEngine.Language(), SizeOf(drive)));
    if (drive.aFreeSize >= 0) {
      Add(sheet.General, TText::PropertyFree, SizeWithBytes(FEngine.Language(), drive.aFreeSize));
    }
    Add(sheet.General, TText::PropertyMountPoint, drive.DriveLetter);
    Add(sheet.General, TText::PropertySource, drive.Drive);
    Add(sheet.General, TText::PropertySerial, drive.Serial);
    if (drive.GeometrySource == TPlaceSource::FromCopy) {
      Add(sheet.General, TText::PropertyKnownBy, FEngine.Language()[TText::KnownByCopies]);
    }
    Add(sheet.Details, TText::PropertyPartition, FEngine.Drives().GetPartitionTypeCaption(drive));
    Add(sheet.Details, TText::PropertyPartitionName, drive.PartitionName);
    Add(sheet.Details, TText::PropertyFirstSector, NumberText(drive.FirstSector));
    Add(sheet.Details, TText::PropertySectors, NumberText(drive.SectorsCount));
    Add(sheet.Details, TText::PropertySectorSize, FromUtf8(SizeText(drive.BytesPerSector)));
    if (const std::int64_t unit = FEngine.Drivers().AllocationUnit(drive); unit > 0) {
      Add(sheet.Details, TText::PropertyClusterSize, FromUtf8(SizeText(unit)));
    }
  }

  void AddFile(const TFile& file, TProperties& sheet) const {
    const TFileInfo& info = file.FileInfo;
    const TLanguage& language = FEngine.Language();
    Add(sheet.General, TText::PropertyType, sheet.Row.Type);
    if (!info.blnFolder) Add(sheet.General, TText::PropertySize, SizeWithBytes(language, info.aSize));
    TString status = language[StatusText(sheet.Row.Status)];
    if (sheet.Row.Doubt >= TContentDoubt::Overwritten) status += u", " + language[DoubtText(sheet.Row.Doubt)];
    Add(sheet.General, TText::PropertyStatus, std::move(status));
    Add(sheet.General, TText::PropertyModified, TimeText(info.TimeStamp.dtModified));
    Add(sheet.General, TText::PropertyCreated, TimeText(info.TimeStamp.dtCreated));
    Add(sheet.General, TText::PropertyAccessed, TimeText(info.TimeStamp.dtAccessed));
    Add(sheet.General, TText::PropertyAttributes, AttributesText(language, info.Atributes));
    if (info.FirstCluster >= 0) Add(sheet.Details, TText::PropertyFirstCluster, NumberText(info.FirstCluster));
  }

  /// What the driver has to look up.
  void AddContent(TFile& file, TProperties& sheet) const {
    const TLanguage& language = FEngine.Language();
    Add(sheet.Details, TText::PropertySizeOnDisk, SizeWithBytes(language, FEngine.Files().GetSizeOnDisk(file)));
    TFileFragments fragments;
    GetFileFragments(FEngine, file, fragments);
    if (!fragments.empty()) {
      Add(sheet.Details, TText::PropertyFragments, NumberText(static_cast<std::int64_t>(fragments.size())));
      Add(sheet.Details, TText::PropertyDataSector, NumberText(fragments.front().FirstSectorInDrive));
    }
    TADSDynArray streams;
    FillADS(FEngine, file, streams);
    for (const TADS& stream : streams)
      sheet.Streams.push_back({stream.Name, stream.sType, stream.aSize, stream.IsSystem});
  }

 private:
  /// Adds nothing for unknown values.
  static void Add(std::vector<TProperty>& lines, TText label, TString value) {
    if (!value.empty()) lines.push_back({label, std::move(value)});
  }

  TEngine& FEngine;
};

}  // namespace

TEntryKind KindOf(const TDriveInfo& drive) {
  const TDriveTypes& types = drive.DriveTypes;
  if (drive.CaptionKind == TCaptionKind::UnallocatedSpace) return TEntryKind::UnallocatedSpace;
  if (types.Has(TDriveType::dtVirtual)) return TEntryKind::VirtualVolume;
  if (types.Has(TDriveType::dtMounted) && drive.FirstSector == 0 && drive.CaptionKind == TCaptionKind::OwnName) {
    return TEntryKind::Image;
  }
  if (types.Has(TDriveType::dtFound) || drive.IsSubDrive) return TEntryKind::FoundVolume;
  if (types.Has(TDriveType::dtRemovable)) return TEntryKind::RemovableDrive;
  if (types.Has(TDriveType::dtPhysical)) return TEntryKind::PhysicalDrive;
  return drive.FileSystem == TFileSystem::fsUnknown ? TEntryKind::UnknownVolume : TEntryKind::Volume;
}

TEntryKind KindOf(TEngine& engine, const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (const TDriveInfo* drive = DriveOfRow(engine, info); drive != nullptr) return KindOf(*drive);
  if (!info.blnFolder) return TEntryKind::File;
  if (TFiles::IsLostAndFound(info)) return TEntryKind::LostAndFound;
  if (TFiles::IsDeepAnalyse(info)) return TEntryKind::DeepAnalysis;
  return TFiles::IsRecycleBin(file, SpecialCluster::Root) ? TEntryKind::RecycleBin : TEntryKind::Folder;
}

TFileRow MakeRow(TEngine& engine, int fileNumber, bool inDeletedFolder) {
  TFileRow row;
  if (engine.Files().IsWrongNumber(fileNumber)) return row;
  const TFile& file = FileOf(engine, fileNumber);
  const TFileInfo& info = file.FileInfo;
  row.Number = fileNumber;
  row.Name = info.strName;
  row.Kind = KindOf(engine, file);
  if (const TDriveInfo* drive = DriveOfRow(engine, info); drive != nullptr) {
    row.Name = drive->Caption;
    row.Type = engine.Language()[TypeText(row.Kind)];
    row.Size = SizeOf(*drive);
    row.FreeSize = drive->aFreeSize;
    row.FileSystem = TDrives::GetSystemNameBySystem(drive->FileSystem);
    return row;
  }
  row.Type = info.blnFolder ? engine.Language()[TText::TypeFolder] : engine.Files().GetType(info.strName);
  if (!info.blnFolder) row.Size = info.aSize;
  row.Modified = info.TimeStamp.dtModified;
  row.Created = info.TimeStamp.dtCreated;
  row.Encrypted = info.Atributes.blnEncrypted;
  row.Hidden = info.Atributes.blnHidden;
  const bool asked = !engine.Analysing && !info.blnFolder;
  if (info.blnDeleted || inDeletedFolder) row.Status = TEntryStatus::Deleted;
  if (asked) row.Doubt = DoubtOf(engine, file);
  if (IsOverwritten(row.Doubt)) row.Status = TEntryStatus::Overwritten;
  return row;
}

TDriveSnapshot MakeDrive(TEngine& engine, int driveNumber) {
  const TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TDriveSnapshot snapshot;
  snapshot.Number = driveNumber;
  snapshot.Caption = drive.Caption;
  snapshot.Device = drive.Drive;
  snapshot.FileSystem = TDrives::GetSystemNameBySystem(drive.FileSystem);
  snapshot.PartitionType = engine.Drives().GetPartitionTypeCaption(drive);
  snapshot.Kind = KindOf(drive);
  snapshot.FirstSector = drive.FirstSector;
  snapshot.SectorsCount = drive.SectorsCount;
  snapshot.BytesPerSector = std::max(drive.BytesPerSector, 1);
  snapshot.FreeSize = drive.aFreeSize;
  snapshot.Analysed = drive.Analysed;
  snapshot.DeepAnalysed = drive.DeepAnalysed;
  snapshot.IsSubDrive = drive.IsSubDrive && !drive.DriveTypes.Has(TDriveType::dtFound);
  snapshot.IsPhysical = drive.DriveTypes.Has(TDriveType::dtPhysical);
  snapshot.CanBeAnalysed = engine.Drives().CanBeAnalysed(driveNumber);
  return snapshot;
}

TProperties MakeGeneralProperties(TEngine& engine, int fileNumber, bool inDeletedFolder) {
  TProperties sheet;
  sheet.Row = MakeRow(engine, fileNumber, inDeletedFolder);
  if (sheet.Row.Number < 0) return sheet;
  const TFile& file = FileOf(engine, fileNumber);
  const TSheet writer(engine);
  if (const TDriveInfo* drive = DriveOfRow(engine, file.FileInfo); drive != nullptr) {
    writer.AddDrive(*drive, sheet);
  } else {
    writer.AddFile(file, sheet);
  }
  return sheet;
}

TProperties MakeProperties(TEngine& engine, int fileNumber, bool inDeletedFolder) {
  TProperties sheet = MakeGeneralProperties(engine, fileNumber, inDeletedFolder);
  if (sheet.Row.Number < 0 || engine.Analysing) return sheet;
  TFile& file = FileOf(engine, fileNumber);
  if (!file.FileInfo.blnFolder) TSheet(engine).AddContent(file, sheet);
  return sheet;
}

}  // namespace brenlow

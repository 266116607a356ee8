// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/file_fields.h"

#include "analysis/file_data.h"
#include "cli/file_id.h"
#include "cli/rows.h"
#include "core/datetime.h"
#include "core/drives.h"
#include "core/engine.h"

namespace brenlow::cli {

const char* PlaceCode(TPlaceSource place) {
  switch (place) {
    case TPlaceSource::Stored:
      return "stored";
    case TPlaceSource::FromCopy:
      return "copy";
    case TPlaceSource::Estimated:
      return "estimated";
    case TPlaceSource::ByContent:
      return "content";
  }
  return "";
}

const char* DoubtCode(TContentDoubt doubt) {
  switch (doubt) {
    case TContentDoubt::Overwritten:
      return "overwritten";
    case TContentDoubt::PartlyOverwritten:
      return "partly_overwritten";
    case TContentDoubt::LaterFile:
      return "later_file";
    case TContentDoubt::Contested:
      return "contested";
    case TContentDoubt::PlaceEstimated:
      return "place_estimated";
    case TContentDoubt::OtherType:
      return "other_type";
    case TContentDoubt::OnlyZeros:
      return "only_zeros";
    case TContentDoubt::NameOnly:
      return "name_only";
    default:
      return "";
  }
}

namespace {

const char* KindCode(const TFileInfo& info) {
  if (info.blnFolder) return "folder";
  switch (info.Kind) {
    case TFileKind::Regular:
      return "file";
    case TFileKind::SymbolicLink:
      return "link";
    case TFileKind::Pipe:
      return "pipe";
    case TFileKind::CharacterDevice:
      return "character_device";
    case TFileKind::BlockDevice:
      return "block_device";
    case TFileKind::Socket:
      return "socket";
  }
  return "";
}

/// A time as exactly as the source has it. FAT keeps local times without a zone, of the last access the
/// date only; other systems keep UTC.
std::string TimeField(bool isFAT, TDateTime time, bool isAccess = false) {
  if (!isFAT) return IsoTimeWithOffset(time);
  return isAccess ? IsoTime(time).substr(0, 10) : IsoTime(time);
}

bool IsFAT(TEngine& engine, int driveNumber) {
  if (engine.Drives().IsWrongNumber(driveNumber)) return false;
  const TFileSystem system = engine.Drives().List[static_cast<std::size_t>(driveNumber)].FileSystem;
  return system == TFileSystem::fsFAT12 || system == TFileSystem::fsFAT16 || system == TFileSystem::fsFAT32;
}

}  // namespace

const char* VirtualCode(const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (!info.blnFolder) return "";
  if (info.FirstCluster == SpecialCluster::LostAndFound) return "lost_and_found";
  if (info.FirstCluster == SpecialCluster::NTFSSystemData) return "system_data";
  if (info.FirstCluster == SpecialCluster::DeepAnalyse) return "deep_analysis";
  if (info.aDeepAnalyse || file.ParentCluster == SpecialCluster::DeepAnalyse) return "deep_type";
  return file.ParentCluster == SpecialCluster::LostAndFound && info.FirstSector < 0 ? "lost_folder" : "";
}

TJsonLine FileFields(TEngine& engine, const TTreeEntry& entry) {
  return FileFields(engine, entry, DoubtOf(engine, *entry.File));
}

TJsonLine FileFields(TEngine& engine, const TTreeEntry& entry, TContentDoubt doubt) {
  const TFileInfo& info = entry.File->FileInfo;
  const std::string code = VirtualCode(*entry.File);
  const bool isFAT = IsFAT(engine, info.aDriveNumber);
  // Such folders bear the time of the analysis.
  const TTimeStamp times = code.empty() ? info.TimeStamp : TTimeStamp();
  TJsonLine line;
  line.Text("id", FileIdText(FileId(engine, *entry.File)))
      .Path("path", entry.Path)
      .Text("name", info.strName)
      .Number("size", info.aSize)
      .Flag("folder", info.blnFolder)
      .Text("kind", KindCode(info))
      .TextOrNull("virtual", code)
      .Flag("deleted", entry.Deleted())
      .Flag("overwritten", IsOverwritten(doubt))
      .TextOrNull("doubt", DoubtCode(doubt))
      .Flag("deep", info.aDeepAnalyse)
      .Flag("compressed", info.Atributes.blnCompressed)
      .Flag("encrypted", info.Atributes.blnEncrypted)
      .Number("drive", RowOf(engine, info.aDriveNumber).Number)
      .Number("volume_sector", engine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)].FirstSector)
      .TextOrNull("created", TimeField(isFAT, times.dtCreated))
      .TextOrNull("modified", TimeField(isFAT, times.dtModified))
      .TextOrNull("accessed", TimeField(isFAT, times.dtAccessed, true))
      .Number("first_cluster", info.FirstCluster)
      .Text("place", std::string(PlaceCode(PlaceOf(engine, *entry.File))));
  return line;
}

}  // namespace brenlow::cli

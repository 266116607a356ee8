// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/file_fields.h"

#include "analysis/analysis.h"

namespace brenlow::cli {
namespace {

const char* PlaceName(TPlaceSource place) {
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

}  // namespace

TJsonLine FileFields(TEngine& engine, const TTreeEntry& entry) {
  const TFileInfo& info = entry.File->FileInfo;
  TJsonLine line;
  line.Text("path", entry.Path)
      .Text("name", info.strName)
      .Number("size", info.aSize)
      .Flag("folder", info.blnFolder)
      .Flag("deleted", entry.Deleted())
      .Flag("deep", info.aDeepAnalyse)
      .Flag("compressed", info.Atributes.blnCompressed)
      .Flag("encrypted", info.Atributes.blnEncrypted)
      .Number("drive", info.aDriveNumber + 1)
      .TextOrNull("created", IsoTime(info.TimeStamp.dtCreated))
      .TextOrNull("modified", IsoTime(info.TimeStamp.dtModified))
      .TextOrNull("accessed", IsoTime(info.TimeStamp.dtAccessed))
      .Number("first_cluster", info.FirstCluster)
      .Text("place", std::string(PlaceName(PlaceOf(engine, *entry.File))));
  return line;
}

}  // namespace brenlow::cli

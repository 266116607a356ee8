// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/file_fields.h"

namespace brenlow::cli {

TJsonLine FileFields(const TTreeEntry& entry) {
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
      .Number("first_cluster", info.FirstCluster);
  return line;
}

}  // namespace brenlow::cli

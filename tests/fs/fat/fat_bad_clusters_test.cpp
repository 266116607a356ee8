// SPDX-License-Identifier: GPL-3.0-or-later
// Clusters that the table marks as bad: nobody uses them.
#include <doctest/doctest.h>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("a bad cluster belongs to no file: what begins there is deleted, and not overwritten") {
  struct TCase {
    TFatShape Shape;
    std::uint32_t BadMark;
  };
  const TCase cases[] = {{{12, 512, 1, 1, 2, 512, 3000}, 0xFF7},
                         {{16, 512, 1, 1, 2, 512, 16384}, 0xFFF7},
                         {{32, 512, 1, 32, 2, 0, 60000}, 0x0FFFFFF7}};
  for (const TCase& row : cases) {
    CAPTURE(row.Shape.Width);
    TFatBuilder fat(row.Shape);
    if (row.Shape.Width == 32) fat.Chain({2});
    fat.PutEntry(fat.RootAt(), {"BAD     BIN", 0x20, 10, 300});
    fat.PutEntry(fat.RootAt() + 32, {"\xE5GONE   BIN", 0x20, 11, 300});
    fat.PutEntry(fat.RootAt() + 64, {"\xE5OVER   BIN", 0x20, 12, 300});
    fat.PutEntry(fat.RootAt() + 96, {"LIVE    BIN", 0x20, 12, 200});
    fat.Link(10, row.BadMark);
    fat.Link(11, row.BadMark);
    fat.Chain({12});
    TEngine engine;
    AnalyseDrive(engine, Mount(engine, fat.Image).Number);
    std::string seen;
    for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
      const TFile& file = engine.Files().List[i];
      if (file.FileInfo.blnFolder) continue;
      seen += ToUtf8(file.FileInfo.strName) + (file.FileInfo.blnDeleted ? " deleted" : "") +
              (IsOverwritten(engine, file) ? " overwritten" : "") + "\n";
    }
    CHECK(seen == "BAD.BIN deleted\n?GONE.BIN deleted\n?OVER.BIN deleted overwritten\nLIVE.BIN\n");
  }
}

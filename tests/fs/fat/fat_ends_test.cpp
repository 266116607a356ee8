// SPDX-License-Identifier: GPL-3.0-or-later
// Files at the end of a volume that another one follows.
#include <doctest/doctest.h>

#include <algorithm>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("a file does not go on in the next volume: a deleted one wraps as a guess, a live one is damaged") {
  constexpr int total = 30000;
  TFatBuilder fat(TFatShape{16, 512, 2, 1, 2, 512, total});
  const auto last = static_cast<std::uint32_t>((total - fat.FirstDataSector) / 2 + 1);
  fat.PutEntry(fat.RootAt(), {"\xE5GONE   BIN", 0x20, last, 2048});
  fat.PutEntry(fat.RootAt() + 32, {"LIVE    BIN", 0x20, last - 1, 3072});
  fat.PutEntry(fat.RootAt() + 64, {"USED    BIN", 0x20, 2, 1024});
  fat.Chain({2});
  fat.Chain({last - 1, last + 3});
  fat.Fill(last, std::string(1024, 'a'));
  fat.Fill(3, std::string(1024, 'b'));
  TImage disk(2048 * 512);
  fat.Image.resize(total * 512);
  disk.insert(disk.end(), fat.Image.begin(), fat.Image.end());
  disk.resize(disk.size() + (9 << 20), 'X');
  PutTable(disk, 0, {{0x06, 2048, total}});

  TEngine engine;
  const int number = Mount(engine, disk).Number;
  AnalyseDrive(engine, number);
  engine.Recovering = true;
  const TSectorReader& reader = engine.Reader();
  int seen = 0;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    TFile& file = engine.Files().List[i];
    const std::string name = ToUtf8(file.FileInfo.strName);
    if (name != "?GONE.BIN" && name != "LIVE.BIN") continue;
    ++seen;
    CAPTURE(name);
    const std::uint64_t estimated = reader.EstimatedReads();
    const std::uint64_t failed = reader.FailedReads();
    TByteDynArray data;
    GetFileData(engine, data, file, -1, 0, 1 << 20);
    CHECK(std::find(data.begin(), data.end(), 'X') == data.end());
    if (file.FileInfo.blnDeleted) {
      CHECK(std::string(data.begin(), data.end()) == std::string(1024, 'a') + std::string(1024, 'b'));
      CHECK(reader.EstimatedReads() != estimated);
    } else {
      CHECK(reader.FailedReads() + reader.EstimatedReads() != failed + estimated);
    }
  }
  CHECK(seen == 2);
}

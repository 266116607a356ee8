// SPDX-License-Identifier: GPL-3.0-or-later
// Where the blocks of a deep analysis meet and where a drive ends; asking for rows that are known.
#include <doctest/doctest.h>

#include "analysis/analysis.h"
#include "core/text.h"
#include "support/cpu_time.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::size_t Block = 256;  // sectors that the scan reads at once

void Put(TImage& image, std::size_t at, std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) image[at + i] = static_cast<std::uint8_t>(text[i]);
}

/// "File 00001.jpg 12+4096" for each file that the deep analysis of a range finds.
std::string DeepRows(const TImage& image, std::int64_t first, std::int64_t count) {
  TEngine engine;
  const TMounted source = Mount(engine, image);
  const int range = engine.Drives().CreateVirtual(source.Number, first, count);
  DeepAnalyseDrive(engine, range);
  std::string rows;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    const TFileInfo& info = engine.Files().List[i].FileInfo;
    if (info.blnFolder) continue;
    rows += ToUtf8(info.strName) + " " + std::to_string(info.FirstCluster) + "+" + std::to_string(info.aSize) + "\n";
  }
  return rows;
}

}  // namespace

TEST_CASE("deep analysis: an end across the seam of two blocks is seen") {
  TImage image(700 * 512, 0x20);
  Put(image, 10 * 512, "\xFF\xD8\xFF\xE0 JFIF");
  const std::size_t seam = Block * 512;
  for (const std::size_t at : {seam - 1, 2 * seam - 1, seam - 2, seam}) {
    TImage cut = image;
    Put(cut, at, "\xFF\xD9");
    CAPTURE(at);
    CHECK(DeepRows(cut, 0, 700) == "File 00001.jpg 10+" + std::to_string(at + 2 - 10 * 512) + "\n");
  }
}

TEST_CASE("deep analysis: no file goes on beyond its drive or begins there") {
  TImage image(1000 * 512, 0x20);
  Put(image, 590 * 512, "8BPS");
  Put(image, 605 * 512, "8BPS");  // of the drive behind
  CHECK(DeepRows(image, 0, 600) == "File 00001.psd 590+5120\n");
  CHECK(DeepRows(image, 0, 2 * Block) == "");
  CHECK(DeepRows(image, 300, 2 * Block) ==
        "File 00001.psd 290+7680\nFile 00002.psd 305+" + std::to_string((2 * Block - 305) * 512) + "\n");
  // An icon's own word on its size does not make it larger than the drive.
  const std::string icon{"\0\0\1\0\1\0\x10\x10\0\0\1\0\x20\0\0\x10\0\0\x16\0\0\0", 22};
  Put(image, 598 * 512, icon);
  CHECK(DeepRows(image, 0, 600) == "File 00001.psd 590+4096\nFile 00001.ico 598+1024\n");
}

TEST_CASE("known rows of a full folder are found at once, searching or not") {
  constexpr int count = 20000;
  TEngine engine;
  engine.Drives().Add(TDriveInfo(), false);
  TFiles& files = engine.Files();
  TFileInfo info;
  TFiles::ClearInfo(info, 0);
  info.blnFolder = false;
  const auto name = [&](int i) {
    const TString text = u"file " + NumberText(i);
    return text;
  };
  for (int i = 0; i < count; ++i) {
    const TString text = name(i);
    info.strName = text;
    info.FirstCluster = i;
    files.Add(info, 7, true);
  }
  const TCpuTime time;
  int wrong = 0;
  for (int i = 0; i < count; ++i) {
    const TString text = name(i);
    info.strName = text;
    info.FirstCluster = i;
    wrong += files.GetAddedNumber(info, 7) == i ? 0 : 1;
    info.FirstCluster = -5;
    wrong += files.IsAdded(info, 7) ? 1 : 0;
  }
  CHECK(wrong == 0);
  CHECK(time.Seconds() < 4);  // twice that and more, one by one

  // The first of equals; what is gone is not known any more, and the others have moved.
  info.strName = u"file 5";
  info.FirstCluster = 5;
  files.Add(info, 7, true);
  CHECK(files.GetAddedNumber(info, 7) == 5);
  files.EraseRows([](const TFileInfo& file) { return file.strName == u"file 4"; });
  CHECK(files.GetAddedNumber(info, 7) == 4);
  files.Clear(0, false);
  CHECK_FALSE(files.IsAdded(info, 7));
}

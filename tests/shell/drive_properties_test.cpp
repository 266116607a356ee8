// SPDX-License-Identifier: GPL-3.0-or-later
// What the property sheet of a drive tells.
#include <doctest/doctest.h>

#include <algorithm>

#include "core/language.h"
#include "shell/entries.h"
#include "shell/program.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// The value of a line of a drive's sheet; empty when there is no such line.
TString PropertyOf(TEngine& engine, int driveNumber, TText label) {
  const TFileArray& files = engine.Files().List;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const TFileInfo& info = files[i].FileInfo;
    if (!TFiles::IsRootDir(info) || info.aDriveNumber != driveNumber) continue;
    const TProperties sheet = MakeGeneralProperties(engine, static_cast<int>(i));
    for (const auto* lines : {&sheet.General, &sheet.Details}) {
      for (const TProperty& line : *lines) {
        if (line.Label == label) return line.Value;
      }
    }
    return u"";
  }
  FAIL("the drive has no row");
  return u"";
}

}  // namespace

TEST_CASE("properties of a drive: its name in the partition table, and that only a copy tells of it") {
  TImage image = LoadTestImage("demo-stick.img.zst");
  TProgram sound(image);
  sound.OpenStick();
  CHECK(PropertyOf(sound.Engine, 0, TText::PropertyKnownBy).empty());
  CHECK(PropertyOf(sound.Engine, 0, TText::PropertyPartitionName).empty());
  DriveOf(sound.Engine, 0).PartitionName = u"Holiday pictures";
  CHECK(PropertyOf(sound.Engine, 0, TText::PropertyPartitionName) == u"Holiday pictures");

  std::fill_n(image.begin(), 512, std::uint8_t{0});
  TProgram lost(image);
  lost.OpenStick();
  CHECK(PropertyOf(lost.Engine, 0, TText::PropertyFileSystem) == u"FAT32");
  CHECK(PropertyOf(lost.Engine, 0, TText::PropertyKnownBy) == lost.Engine.Language()[TText::KnownByCopies]);
}

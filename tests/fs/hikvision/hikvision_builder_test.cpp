// SPDX-License-Identifier: GPL-3.0-or-later
// The builder of recorder disks against figures published of a real one, and what such a disk is taken for.
#include "support/hikvision_builder.h"

#include <doctest/doctest.h>

#include <algorithm>

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("Hikvision: places and a row of a built disk are those published of a real one") {
  const THikvisionBuilder disk(
      {.LogsOffset = 0x3D13200, .LogsSize = 0xF42C00, .DataOffset = 0x4C5E000, .BlockSize = 0x40000000, .Blocks = 149},
      {{{.Channel = 4, .Block = 2, .Start = 0x6298FEAB, .End = 0x62997D8A}}});
  CHECK(disk.CopyAt() == 0x4C55E00);
  CHECK(disk.Pieces.at(disk.CopyAt()) == disk.Pieces.at(0x200));

  const std::vector<std::uint8_t> published = {
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0,    0,    0,    0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0,
      0xAB, 0xFE, 0x98, 0x62, 0x8A, 0x7D, 0x99, 0x62, 0, 0xE0, 0xC5, 0x84, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  for (int tree = 0; tree < 2; ++tree) {
    const auto& bytes = disk.Pieces.at(disk.TreeAt(tree));
    const auto row = bytes.begin() + (disk.RowAt(tree, 0, 0) - disk.TreeAt(tree));
    CHECK(std::equal(published.begin(), published.end(), row));
  }
}

TEST_CASE("Hikvision: a disk is named by its master sector, at either size of sectors") {
  const THikvisionBuilder disk({.BlockSize = 0x100000, .Blocks = 4}, {{{.Channel = 1}}});
  for (const int sectorSize : {512, 4096}) {
    CAPTURE(sectorSize);
    TEngine engine;
    const TMounted mounted = Mount(engine, disk.Image(), u"/recorder.img", sectorSize);
    REQUIRE(mounted.Number >= 0);
    CHECK(DriveOf(engine, mounted.Number).FileSystem == TFileSystem::fsHikvisionFS);
  }
  TImage image = disk.Image();
  std::fill_n(image.begin() + 0x200, 512, std::uint8_t{0});
  TEngine engine;
  CHECK(DriveOf(engine, Mount(engine, image).Number).FileSystem != TFileSystem::fsHikvisionFS);
}

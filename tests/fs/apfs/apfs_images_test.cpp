// SPDX-License-Identifier: GPL-3.0-or-later
// APFS containers made by the real system, where the specimens are present.
#include <doctest/doctest.h>

#include <algorithm>
#include <string>

#include "fs/apfs/apfs.h"
#include "fs/apfs/apfs_node.h"
#include "fs/driver_contract.h"
#include "support/images.h"
#include "support/truth.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

bool Has(const std::string& walk, std::string_view text) { return walk.find(text) != std::string::npos; }

}  // namespace

TEST_CASE("APFS: files, folders and links of a container") {
  const auto image = LoadSpecimen("apfs/dfvfs-2022.raw.zst");
  if (!image) return;
  const std::string walk = Walk(*image);
  CHECK(Has(walk, "passwords.txt 116"));
  CHECK(Has(walk, "a_directory/another_file 22"));
  CHECK(Has(walk, "a_link 24"));
}

TEST_CASE("APFS keeps the driver contract on damaged containers, too") {
  auto image = LoadSpecimen("apfs/dfvfs-2022.raw.zst");
  if (!image) return;
  CheckDriverContract({*image, TFileSystem::fsAPFS});
}

TEST_CASE("APFS: the first block is gone, checkpoints lead to the files") {
  auto image = LoadSpecimen("apfs/dfvfs-2022.raw.zst");
  if (!image) return;
  const std::string before = Walk(*image);
  std::fill_n(image->begin(), 4096, std::uint8_t{0});
  CHECK(Walk(*image) == before);
}

TEST_CASE("APFS: content in attributes, as it is and packed") {
  const auto image = LoadSpecimen("apfs/decmpfs.raw.zst");
  if (!image) return;
  const std::string walk = Walk(*image);
  CHECK(Has(walk, "hello.txt 15"));
  CHECK(Has(walk, "big.txt 65529"));
  CHECK(Has(walk, "tiny.bin 256"));
}

TEST_CASE("APFS: an encrypted volume is named, and nothing in it guessed") {
  const auto image = LoadSpecimen("apfs/encrypted.raw.zst");
  if (!image) return;
  TEngine engine;
  const TMounted mounted = Mount(engine, *image);
  REQUIRE(APFSInfo(DriveOf(engine, mounted.Number)).Volumes.size() == 1);
  CHECK(APFSInfo(DriveOf(engine, mounted.Number)).Volumes[0].Encrypted);
  CHECK_FALSE(Has(Walk(*image), "secret"));
}

TEST_CASE("APFS: an inode whose fields overrun its value keeps what came before") {
  TImage value(92 + 4 + 8 + 8);
  value[80] = 0;
  value[81] = 0x80;  // a regular file
  value[92] = 2;     // fields
  value[96] = 4;     // the name,
  value[98] = 3;     // 3 bytes
  value[100] = 8;    // the stream, which does not fit
  value[102] = 40;
  value[104] = 'a';
  value[105] = 'b';
  apfs::TInode inode;
  REQUIRE(apfs::ReadInode(value, inode));
  CHECK(inode.Name == "ab");
  CHECK(inode.Size == 0);
  CHECK(inode.FileType == TFileType::ftRegularFile);
}

TEST_CASE("APFS: a volume superblock alone makes a broken container of 4 KiB blocks") {
  TImage block(4096);
  const auto put = [&](std::size_t at, std::string_view text) {
    std::copy(text.begin(), text.end(), block.begin() + static_cast<std::ptrdiff_t>(at));
  };
  block[24] = 13;
  put(32, "APSB");
  block[88] = 100;
  block[128] = 7;
  TEngine engine;
  TDriveInfo drive;
  drive.BytesPerSector = 512;
  CHECK_FALSE(engine.APFS().GetDriveInfo(drive, block, 0));  // no root
  block[136] = 2;
  REQUIRE(engine.APFS().GetDriveInfo(drive, block, 0));
  CHECK(APFSInfo(drive).IsContainerBroken);
  CHECK(APFSInfo(drive).BlockSize == 4096);
  CHECK(drive.SectorsCount == 800);
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The structures one by one: records of folders, superblocks, checksums, lists of blocks.
#include <doctest/doctest.h>

#include <string>

#include "core/engine.h"
#include "core/text.h"
#include "fs/ext/ext.h"
#include "fs/ext/ext_blocks.h"
#include "fs/ext/ext_checksum.h"
#include "fs/ext/ext_directory.h"
#include "fs/ext/ext_inode.h"
#include "fs/ext/ext_superblock.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::ext;
using namespace brenlow::test;

namespace {

void Put(TByteDynArray& bytes, std::size_t at, std::uint64_t value, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) bytes[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

void PutRecord(TByteDynArray& bytes, std::size_t at, std::uint32_t inode, std::size_t length, const std::string& name,
               std::uint8_t type = 1) {
  Put(bytes, at, inode, 4);
  Put(bytes, at + 4, length, 2);
  bytes[at + 6] = static_cast<std::uint8_t>(name.size());
  bytes[at + 7] = type;
  std::copy(name.begin(), name.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at + 8));
}

/// "name:inode" of each entry, with a minus sign before those that are unlinked.
std::string Names(const TDirectoryEntries& entries) {
  std::string text;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    text += (text.empty() ? "" : " ") + std::string(entries[i].Deleted ? "-" : "") + ToUtf8(entries.Name(i)) + ":" +
            std::to_string(entries[i].Inode);
  }
  return text;
}

/// A folder of one block: ".", "..", then `rest` bytes of one record in use, with room after its name.
TByteDynArray FolderBlock() {
  TByteDynArray block(1024, 0);
  PutRecord(block, 0, 12, 12, ".", 2);
  PutRecord(block, 12, 2, 12, "..", 2);
  PutRecord(block, 24, 20, 1000, "kept.txt");
  return block;
}

TByteDynArray Superblock() {
  const TImage image = LoadTestImage("ext/plain1k.img.zst");
  return {image.begin() + 1024, image.begin() + 2048};
}

}  // namespace

TEST_CASE("unlinked records are found in the room after those in use") {
  TByteDynArray block = FolderBlock();
  PutRecord(block, 40, 21, 984, "gone.txt");
  TDirectoryEntries entries;
  TBlockRules rules{true, true, 100};
  SUBCASE("one after the other") {
    PutRecord(block, 56, 22, 968, "also gone");
    CHECK(WalkDirectoryBlock(block, 0, rules, entries).Whole);
    CHECK(Names(entries) == ".:12 ..:2 kept.txt:20 -gone.txt:21 -also gone:22");
  }
  SUBCASE("past a wiped one") {
    PutRecord(block, 80, 23, 944, "far");
    std::fill_n(block.begin() + 40, 16, std::uint8_t{0});
    WalkDirectoryBlock(block, 0, rules, entries);
    CHECK(Names(entries) == ".:12 ..:2 kept.txt:20 -far:23");
  }
  SUBCASE("numbers that no inode has are garbage") {
    Put(block, 40, 101, 4);
    WalkDirectoryBlock(block, 0, rules, entries);
    CHECK(Names(entries) == ".:12 ..:2 kept.txt:20");
  }
  SUBCASE("a zero byte in a name cuts it, and the walk goes on 8 bytes after the cut") {
    rules.LastInode = 0;
    PutRecord(block, 50, 0x1600, 900, "x");  // the lowest byte of its number is the zero byte
    WalkDirectoryBlock(block, 0, rules, entries);
    CHECK(Names(entries) == ".:12 ..:2 kept.txt:20 -go:21 -x:5632");
  }
}

TEST_CASE("a walk ends where another folder begins, and where a record has no length") {
  TByteDynArray blocks = FolderBlock();
  const TByteDynArray next = FolderBlock();
  blocks.insert(blocks.end(), next.begin(), next.end());
  TDirectoryEntries entries;
  const TBlockWalk walk = WalkDirectoryBlock(blocks, 0, {false, true, 100}, entries);
  CHECK(!walk.Whole);
  CHECK(walk.Consumed == 1024);
  CHECK(entries.size() == 3);
  Put(blocks, 24 + 4, 0, 2);
  entries.Clear();
  CHECK(WalkDirectoryBlock(blocks, 0, {false, true, 100}, entries).Consumed == 24);
  CHECK(entries.size() == 2);
  Put(blocks, 4, 16, 2);  // "." of another length: no folder begins here
  entries.Clear();
  CHECK(WalkDirectoryBlock(blocks, 0, {true, true, 100}, entries).Consumed == 0);
}

TEST_CASE("a block is a folder's only when its records fill it") {
  TByteDynArray block = FolderBlock();
  CHECK(IsFolderBlock(block, 100));
  CHECK(!IsFolderBlock(block, 19));
  Put(block, 24 + 4, 996, 2);
  CHECK(!IsFolderBlock(block, 100));
  CHECK(!IsFolderBlock(TByteDynArray(1024, 0), 100));
  const std::string text = "Any text at all, long enough to be a block. ";
  TByteDynArray other;
  while (other.size() < 1024) other.insert(other.end(), text.begin(), text.end());
  other.resize(1024);
  CHECK(!IsFolderBlock(other, UINT32_MAX));
}

TEST_CASE("records of 64 KiB blocks keep more than 16 bits of length") {
  TByteDynArray block(65536, 0);
  for (const auto& [stored, length] : {std::pair{0xFFFFU, 65536U}, {0U, 65536U}, {12U, 12U}, {0xFFF5U, 0x1FFF4U}}) {
    Put(block, 4, stored, 2);
    CHECK(RecordLength(block, 0) == length);
  }
}

TEST_CASE("superblocks with impossible fields are refused") {
  TExtXInfo info;
  TString name;
  TByteDynArray super = Superblock();
  CHECK(ParseSuperblock(super, 0, true, info, name));
  CHECK(info.BlockSize == 1024);
  CHECK(info.TotalBlockCount == 24 * 1024);
  struct TRow {
    const char* What;
    std::size_t At;
    std::uint64_t Value;
    std::size_t Size;
  };
  for (const TRow& row : {TRow{"odd count of inodes a group", 40, 135, 4},
                          {"no mark", 56, 0, 2},
                          {"inodes below 128 bytes", 88, 64, 2},
                          {"inodes above a block", 88, 2048, 2},
                          {"no blocks a group", 32, 0, 4},
                          {"no clusters a group", 36, 0, 4},
                          {"blocks of 128 KiB", 24, 7, 4},
                          {"blocks of 2 to the power of 80", 24, 70, 4}}) {
    TByteDynArray bad = super;
    Put(bad, row.At, row.Value, row.Size);
    CHECK_MESSAGE(!ParseSuperblock(bad, 0, true, info, name), row.What);
  }
  Put(super, 76, 0, 4);  // revision 0 has inodes of 128 bytes, whatever stands there
  CHECK(!ParseSuperblock(super, 0, true, info, name));
  Put(super, 88, 128, 2);
  CHECK(ParseSuperblock(super, 0, true, info, name));
}

TEST_CASE("without its mark a superblock counts only when its fields agree") {
  TByteDynArray super = Superblock();
  Put(super, 56, 0, 2);
  CHECK(IsPlausible(super, 0));
  Put(super, 0, 1000000, 4);  // more inodes than its groups have
  CHECK(!IsPlausible(super, 0));
  TByteDynArray small(1024, 0);  // small numbers everywhere, as in many a table
  for (std::size_t at = 0; at < small.size(); at += 4) Put(small, at, 2, 4);
  CHECK(!IsPlausible(small, 0));
}

TEST_CASE("a copy of the superblock leads back to the start of the volume") {
  TEngine engine;
  TDriveInfo drive;
  drive.BytesPerSector = 512;
  TByteDynArray super = Superblock();
  bool copy = true;
  CHECK(engine.ExtX().GetFirstSectorFromSuperblock(drive, super, 0, copy) == 2);
  CHECK(!copy);
  Put(super, 90, 3, 2);
  CHECK(engine.ExtX().GetFirstSectorFromSuperblock(drive, super, 0, copy) == 3 * 8192 * 2 + 2);  // after block 0
  CHECK(copy);
  Put(super, 24, 2, 4);  // blocks of 4 KiB begin at 0
  Put(super, 20, 0, 4);
  Put(super, 32, 32768, 4);
  CHECK(engine.ExtX().GetFirstSectorFromSuperblock(drive, super, 0, copy) == 3 * 32768 * 8);
}

TEST_CASE("the seed of a checksum can be had back") {
  const std::string text = "123456789";
  const TByteDynArray bytes(text.begin(), text.end());
  CHECK(~Crc32c(~0U, bytes) == 0xE3069283);  // the check value of CRC-32C
  for (const std::uint32_t seed : {0U, 1U, 0x12345678U, ~0U}) CHECK(Crc32cSeed(Crc32c(seed, bytes), bytes) == seed);
}

TEST_CASE("sets of blocks tell what was in them") {
  TBlockSet set(300);
  CHECK(!set.Add(60, 140));
  CHECK(set.Add(199, 10));
  CHECK(!set.Add(250, 1000));
  CHECK(set.NextAbsent(60) == 209);
  CHECK(set.AbsentRun(209, 100) == 41);
  CHECK(set.NextAbsent(250) == 300);
  CHECK(set.Has(299));
  CHECK(!set.Has(300));
  CHECK(!set.Add(-5, 3));
}

TEST_CASE("times go beyond 2038 and before 1970") {
  CHECK(IsoTime(TimeOf(0x80000000U, 0)).substr(0, 4) == "1901");
  CHECK(IsoTime(TimeOf(0x80000000U, 1)).substr(0, 4) == "2038");
  CHECK(IsoTime(TimeOf(0, 3 | 500'000'000U << 2)).substr(0, 4) == "2378");
  CHECK(TimeOf(0, 0) == 0);
}

TEST_CASE("crafted lists of blocks end") {
  TEngine engine;
  TImage image = LoadTestImage("ext/plain1k.img.zst");
  TByteDynArray inode(256, 0);
  Put(inode, 0, 0x81A4, 2);
  Put(inode, 4, 0xFFFFFFFF, 4);
  Put(inode, 108, 0x7FFF, 4);
  const std::size_t block = 20000;
  SUBCASE("an extent tree that leads to itself") {
    Put(inode, 32, 0x80000, 4);
    for (TByteDynArray* node : {&inode}) {
      Put(*node, 40, 0xF30A, 2);
      Put(*node, 42, 4, 2);
      Put(*node, 46, 5, 2);
      for (std::size_t i = 0; i < 4; ++i) Put(*node, 52 + i * 12 + 4, block, 4);
    }
    Put(image, block * 1024, 0xF30A, 2);
    Put(image, block * 1024 + 2, 84, 2);
    Put(image, block * 1024 + 6, 4, 2);
    for (std::size_t i = 0; i < 84; ++i) Put(image, block * 1024 + 12 + i * 12 + 4, block, 4);
  }
  SUBCASE("blocks of pointers that hold their own number") {
    for (std::size_t i = 0; i < 15; ++i) Put(inode, 40 + i * 4, block, 4);
    for (std::size_t i = 0; i < 256; ++i) Put(image, block * 1024 + i * 4, block, 4);
  }
  const int number = Mount(engine, image).Number;
  TDriveInfo& drive = DriveOf(engine, number);
  REQUIRE(engine.ExtX().GetDriveInfo(drive, true));
  TVolumeReader reader(engine, drive);
  TInode parsed;
  REQUIRE(ParseInode(inode, reader, TBlockList::Read, parsed));
  CHECK(parsed.Truncated);
  CHECK(parsed.Blocks.size() < 30000);
}

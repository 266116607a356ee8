// SPDX-License-Identifier: GPL-3.0-or-later
// Structures of XFS one by one: superblock, inodes, extents, directories, the log.
#include "fs/xfs/xfs.h"

#include <doctest/doctest.h>

#include <cstring>

#include "fs/xfs/xfs_directory.h"
#include "fs/xfs/xfs_inode.h"
#include "fs/xfs/xfs_log.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;
using namespace brenlow::xfs;

namespace {

void Put(TImage& image, std::size_t at, std::size_t size, std::uint64_t value) {
  for (std::size_t i = 0; i < size; ++i) image[at + i] = static_cast<std::uint8_t>(value >> (8 * (size - 1 - i)));
}

void PutText(TImage& image, std::size_t at, std::string_view text) {
  std::copy(text.begin(), text.end(), image.begin() + static_cast<std::ptrdiff_t>(at));
}

/// A superblock of 4 groups of 1,000 blocks of 4 KiB.
TImage Superblock(int version) {
  TImage image(512);
  PutText(image, 0, "XFSB");
  Put(image, 0x04, 4, 4096);
  Put(image, 0x08, 8, 4000);
  Put(image, 0x30, 8, 2048 + 5);
  Put(image, 0x38, 8, 128);
  Put(image, 0x54, 4, 1000);
  Put(image, 0x58, 4, 4);
  Put(image, 0x60, 4, 100);
  Put(image, 0x64, 2, 0xB4A0U | static_cast<unsigned>(version));
  Put(image, 0x66, 2, 512);
  Put(image, 0x68, 2, 512);
  Put(image, 0x6A, 2, 8);
  PutText(image, 0x6C, "twelve chars");
  image[0x7B] = 3;
  image[0x7C] = 10;
  Put(image, 0x80, 8, 64);
  Put(image, 0x90, 8, 3000);
  return image;
}

TXFSInfo Geometry() {
  TEngine engine;
  TDriveInfo drive;
  REQUIRE(engine.XFS().GetDriveInfo(drive, Superblock(5), 0));
  TXFSInfo info = XFSInfo(drive);
  info.FlagInodeTypeInDir = true;
  return info;
}

std::string NamesText(const std::function<void(const TEntrySink&)>& walk) {
  std::string text;
  walk([&](const TFileEntry& entry) {
    text += std::string(entry.FileName) + "=" + std::to_string(entry.Inode) + (entry.Deleted ? "! " : " ");
    return true;
  });
  return text;
}

/// An entry with a type byte at a place of a directory block; its size.
std::size_t PutEntry(TImage& block, std::size_t at, std::uint64_t inode, std::string_view name) {
  const std::size_t size = (12 + name.size() + 7) / 8 * 8;
  Put(block, at, 8, inode);
  block[at + 8] = static_cast<std::uint8_t>(name.size());
  PutText(block, at + 9, name);
  block[at + 9 + name.size()] = 1;
  Put(block, at + size - 2, 2, at);
  return size;
}

}  // namespace

TEST_CASE("the superblock of XFS gives geometry, label and features") {
  TEngine engine;
  TDriveInfo drive;
  const TImage image = Superblock(5);
  REQUIRE(engine.XFS().GetDriveInfo(drive, image, 0));
  CHECK(drive.BytesPerSector == 512);
  CHECK(drive.SectorsCount == 32000);
  CHECK(drive.aFreeSize == 3000 * 4096);
  CHECK(drive.VolumeName == u"twelve chars");
  std::int64_t sector = 0;
  CHECK(engine.XFS().BlockNumberToSectorNumber(drive, (3 << 10) + 999, sector));
  CHECK(sector == 3999 * 8);
  CHECK_FALSE(engine.XFS().BlockNumberToSectorNumber(drive, (3 << 10) + 1000, sector));
  CHECK_FALSE(engine.XFS().BlockNumberToSectorNumber(drive, 4 << 10, sector));
  TXFS::TInodeSectors place;
  CHECK(engine.XFS().InodeNumberToSectorNumber(drive, (1 << 13) + 129, place));
  CHECK(place.Group == 1);
  CHECK(place.Sector == 1016 * 8 + 1);

  // Each field that must not be 0.
  for (const std::size_t field : {0x04U, 0x08U, 0x54U, 0x58U, 0x66U, 0x68U, 0x6AU, 0x7BU}) {
    TImage bad = image;
    std::fill_n(bad.begin() + static_cast<std::ptrdiff_t>(field), 2, std::uint8_t{0});
    std::fill_n(bad.begin() + static_cast<std::ptrdiff_t>(field),
                field == 0x08  ? 8
                : field < 0x60 ? 4
                               : 2,
                std::uint8_t{0});
    CHECK_FALSE(engine.XFS().IsPartition(bad, 0));
  }
  CHECK_FALSE(engine.XFS().IsPartition(image, 1));
}

TEST_CASE("the type byte of directory entries is found by either reading of the features") {
  const auto hasType = [](int version, std::size_t field, std::uint32_t features) {
    TEngine engine;
    TDriveInfo drive;
    TImage image = Superblock(version);
    Put(image, field, 4, features);
    REQUIRE(engine.XFS().GetDriveInfo(drive, image, 0));
    return XFSInfo(drive).FlagInodeTypeInDir;
  };
  CHECK(hasType(4, 0xC8, 522));    // the decimal rule
  CHECK(hasType(4, 0xCC, 250));    // in the second field
  CHECK(hasType(4, 0xC8, 0x28A));  // as mkfs.xfs makes it
  CHECK_FALSE(hasType(4, 0xC8, 0x8A));
  CHECK(hasType(5, 0xD8, 1));
  CHECK_FALSE(hasType(5, 0xC8, 0x28A));
}

TEST_CASE("a copy of the superblock leads to the start of the volume") {
  TEngine engine;
  TImage disk((200 + 32000) * 512);
  const std::size_t copy = (100 + 3 * 8000) * 512;
  PutText(disk, copy + 512, "XAGF");
  Put(disk, copy + 512 + 8, 4, 3);
  const int number = Mount(engine, disk).Number;
  TDriveInfo volume = DriveOf(engine, number);
  volume.FirstSector = 100 + 3 * 8000;
  REQUIRE(engine.XFS().SetVolumeBounds(volume, Superblock(5)));
  CHECK(volume.FirstSector == 100);
  CHECK(volume.SectorsCount == 32000);
  CHECK(XFSInfo(volume).SuperBlockSector == 3 * 8000);
  // A group that the volume does not have.
  TImage wrong = disk;
  Put(wrong, copy + 512 + 8, 4, 4);
  const int other = Mount(engine, wrong, u"/wrong.img").Number;
  volume = DriveOf(engine, other);
  volume.FirstSector = 100 + 3 * 8000;
  CHECK_FALSE(engine.XFS().SetVolumeBounds(volume, Superblock(5)));
}

TEST_CASE("times of an inode are seconds and nanoseconds, or one number of nanoseconds") {
  TImage inode(512);
  PutText(inode, 0, "IN");
  Put(inode, 2, 2, 0x81A4);
  inode[4] = 2;
  inode[5] = 2;
  Put(inode, 0x28, 4, 1'000'000'000);  // 2001-09-09T01:46:40Z
  Put(inode, 0x2C, 4, 250'000'000);
  Put(inode, 0x30, 4, 1'100'000'000);
  TInodeCore core;
  REQUIRE(ReadInodeCore(inode, core));
  CHECK(core.FileType == TFileType::ftRegularFile);
  CHECK(IsoTime(core.dtModified) == IsoTime(FromUtc(25569 + 1'000'000'000.25 / 86400)));
  CHECK(core.dtCreated == core.dtMetadataModified);
  inode[4] = 3;
  Put(inode, 0x78, 8, 8 | 16);
  Put(inode, 0x28, 8, (1'000'000'000ULL + 2'147'483'648ULL) * 1'000'000'000 + 250'000'000);
  Put(inode, 0x90, 8, (1'200'000'000ULL + 2'147'483'648ULL) * 1'000'000'000);
  Put(inode, 0x18, 8, 77);
  REQUIRE(ReadInodeCore(inode, core));
  CHECK(IsoTime(core.dtModified) == IsoTime(FromUtc(25569 + 1'000'000'000.25 / 86400)));
  CHECK(IsoTime(core.dtCreated) == IsoTime(FromUtc(25569 + 1'200'000'000.0 / 86400)));
  CHECK(core.DataExtentCount == 77);
}

TEST_CASE("extents are unpacked, and what is left of them in a free inode is told from older ones") {
  const TImage record = {0, 0, 0, 0, 0, 0, 0x20, 0, 0, 0, 0, 0x24, 0x68, 0xA0, 0, 8};
  const xfs::TExtent extent = UnpackExtent(record);
  CHECK(extent.Offset == 0x10);
  CHECK(extent.Block == 0x12345);
  CHECK(extent.Count == 8);
  CHECK_FALSE(extent.Unwritten);

  const TXFSInfo info = Geometry();
  const auto put = [](TImage& fork, std::size_t index, std::uint64_t offset, std::uint64_t block, std::uint64_t count) {
    Put(fork, index * 16, 8, offset << 9 | block >> 43);
    Put(fork, index * 16 + 8, 8, block << 21 | count);
  };
  TImage fork(64);
  put(fork, 0, 0, 100, 5);
  put(fork, 1, 5, 300, 2);
  CHECK(LeftoverExtents(info, fork).size() == 2);
  put(fork, 2, 3, 500, 9);  // goes back in the file
  CHECK(LeftoverExtents(info, fork).size() == 2);
  put(fork, 2, 7, 104, 9);  // the blocks of the first one
  CHECK(LeftoverExtents(info, fork).size() == 2);
  put(fork, 2, 7, 998, 9);  // beyond the end of its group
  CHECK(LeftoverExtents(info, fork).size() == 2);
  put(fork, 2, 7, 990, 9);
  CHECK(LeftoverExtents(info, fork).size() == 3);
}

TEST_CASE("a directory in the inode gives its parent and its names") {
  const TXFSInfo info = Geometry();
  const TImage fork = {1, 0, 0, 0, 0, 0x80, 5, 0, 0x60, 'a', '.', 't', 'x', 't', 1, 0, 0, 0, 0x83};
  std::int64_t parent = 0;
  std::int64_t size = 0;
  CHECK(NamesText([&](const TEntrySink& sink) { WalkShortDirectory(info, fork, parent, size, sink); }) == "a.txt=131 ");
  CHECK(parent == 0x80);
  CHECK(size == 19);
  // Without the type byte the same bytes name another inode, or none.
  TXFSInfo plain = info;
  plain.FlagInodeTypeInDir = false;
  CHECK(NamesText([&](const TEntrySink& sink) { WalkShortDirectory(plain, fork, parent, size, sink); }) ==
        "a.txt=16777216 ");
  const TImage cut(fork.begin(), fork.end() - 1);
  CHECK_FALSE(WalkShortDirectory(info, cut, parent, size, [](const TFileEntry&) { return true; }));
}

TEST_CASE("a directory block gives names, and those in its free slots, joined or not") {
  const TXFSInfo info = Geometry();
  TImage block(4096);
  PutText(block, 0, "XDB3");
  Put(block, 0x28, 8, 200);
  std::size_t at = 64;
  at += PutEntry(block, at, 200, ".");
  at += PutEntry(block, at, 128, "..");
  at += PutEntry(block, at, 201, "kept");
  const std::size_t slot = at;
  for (const std::string_view name : {"gone one", "gone two", "gone three"}) at += PutEntry(block, at, 300 + at, name);
  const std::size_t third = at;
  at += PutEntry(block, at, 202, "last");
  Put(block, at, 2, 0xFFFF);
  Put(block, at + 2, 2, 4096 - 8 - at);
  Put(block, 4096 - 10, 2, at);
  const auto names = [&] { return NamesText([&](const TEntrySink& sink) { WalkDirectoryBlock(info, block, sink); }); };
  CHECK(ReadDirectoryBlock(info, block).Owner == 200);
  CHECK(ReadDirectoryBlock(info, block).Parent == 128);
  CHECK(names().starts_with("kept=201 gone one=" + std::to_string(300 + slot) + " "));

  // The three become one slot: its head takes the place of the first four bytes, its last two are its place.
  Put(block, slot, 2, 0xFFFF);
  Put(block, slot + 2, 2, third - slot);
  Put(block, third - 2, 2, slot);
  const std::string deleted = names();
  CHECK(deleted.starts_with("kept=201 gone one=" + std::to_string(300 + slot) + "! gone two="));
  CHECK(deleted.find("gone three=") != std::string::npos);
  CHECK(deleted.ends_with("last=202 "));
  // A slot without an end stops the walk.
  Put(block, slot + 2, 2, 0);
  CHECK(names() == "kept=201 ");
}

namespace {

struct TLogNotes final : ILogSink {
  void Inode(TLoggedInode inode) override { Inodes.push_back(std::move(inode)); }
  void Block(const TLoggedBlock& block) override { Blocks.push_back(block.Pieces.size()); }
  bool GoOn(double) override { return true; }
  std::vector<TLoggedInode> Inodes;
  std::vector<std::size_t> Blocks;
};

void PutOperation(TImage& body, std::size_t& at, std::uint8_t flags, const TImage& payload) {
  Put(body, at, 4, 0x1234);
  Put(body, at + 4, 4, payload.size());
  body[at + 8] = 0x69;
  body[at + 9] = flags;
  std::copy(payload.begin(), payload.end(), body.begin() + static_cast<std::ptrdiff_t>(at + 12));
  at += 12 + payload.size();
}

/// A log of one record: an inode of version 3 with a local fork, written by a little-endian machine.
TImage LogOfOneInode(std::int64_t inode, const TImage& fork) {
  TImage item(56);
  item[0] = 0x3B;
  item[1] = 0x12;
  item[2] = 3;
  item[4] = 3;  // core and local data
  for (std::size_t i = 0; i < 8; ++i) item[16 + i] = static_cast<std::uint8_t>(inode >> (8 * i));
  TImage core(176);
  core[0] = 'N';
  core[1] = 'I';
  core[2] = 0xED;
  core[3] = 0x41;
  core[4] = 3;
  core[5] = 1;
  core[0x38] = static_cast<std::uint8_t>(fork.size());
  core[0x10] = 2;
  TImage body(1024);
  std::size_t at = 0;
  PutOperation(body, at, 1, {});
  PutOperation(body, at, 0, TImage{'N', 'A', 'R', 'T', 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0});
  PutOperation(body, at, 0, item);
  PutOperation(body, at, 0, core);
  PutOperation(body, at, 0, fork);
  PutOperation(body, at, 2, {});
  TImage log(64 * 512);
  Put(log, 0, 4, 0xFEEDBABE);
  Put(log, 4, 4, 7);
  Put(log, 8, 4, 2);
  Put(log, 12, 4, body.size());
  Put(log, 16, 8, std::uint64_t{7} << 32);
  Put(log, 320, 4, 32768);
  for (std::size_t sector = 0; sector < 2; ++sector) {
    std::memcpy(&log[44 + 4 * sector], &body[sector * 512], 4);
    Put(body, sector * 512, 4, 7);
  }
  std::copy(body.begin(), body.end(), log.begin() + 512);
  return log;
}

TLogNotes WalkNotes(const TXFSInfo& info, const TImage& log) {
  TLogNotes notes;
  const auto read = [&](std::int64_t from, std::span<std::uint8_t> buffer) {
    std::copy_n(log.begin() + from, buffer.size(), buffer.begin());
  };
  WalkLog(info, static_cast<std::int64_t>(log.size()), read, notes);
  return notes;
}

}  // namespace

TEST_CASE("a logged inode comes back as on the disk, with the words that the cycle numbers stood on") {
  const TXFSInfo info = Geometry();
  TImage fork(300);
  for (std::size_t i = 0; i < fork.size(); ++i) fork[i] = static_cast<std::uint8_t>(i);
  const TImage log = LogOfOneInode(140, fork);
  const TLogNotes notes = WalkNotes(info, log);
  REQUIRE(notes.Inodes.size() == 1);
  const TLoggedInode& inode = notes.Inodes[0];
  CHECK(inode.Inode == 140);
  CHECK(inode.HasFork);
  TInodeCore core;
  REQUIRE(ReadInodeCore(inode.Image, core));
  CHECK(core.FileType == TFileType::ftDirectory);
  CHECK(core.Links == 2);
  CHECK(core.Size == (300 & 0xFF));
  CHECK(std::equal(fork.begin(), fork.end(), inode.Image.begin() + 176));

  // A sector of a later cycle lies over the second half: the item is not whole any more.
  TImage newer = log;
  Put(newer, 40 * 512, 4, 0xFEEDBABE);
  Put(newer, 40 * 512 + 4, 4, 8);
  Put(newer, 40 * 512 + 8, 4, 2);
  Put(newer, 40 * 512 + 16, 8, std::uint64_t{8} << 32);
  Put(newer, 2 * 512, 4, 8);
  CHECK(WalkNotes(info, newer).Inodes.empty());
}

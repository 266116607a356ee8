// SPDX-License-Identifier: GPL-3.0-or-later
// Disk images: written, stopped, resumed, read back; virtual disks.
#include "support/images.h"

#include <doctest/doctest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <utility>

#include "core/images/dsk_image.h"
#include "core/images/image_file.h"
#include "core/images/image_writer.h"
#include "core/lznt1.h"
#include "core/sector_reader.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;
namespace fs = std::filesystem;

namespace {

/// Zeros, text, noise and a short last block.
TImage Mixed(std::size_t sectors) {
  TImage image(sectors * 512);
  std::mt19937 random(3);
  for (std::size_t i = 0; i < image.size(); ++i) {
    const std::size_t kind = i / 70000 % 3;
    image[i] = kind == 0   ? 0
               : kind == 1 ? static_cast<std::uint8_t>("what it says "[i % 13])
                           : static_cast<std::uint8_t>(random());
  }
  return image;
}

TImage FileBytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteFile(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

/// All bytes that a path reads as; nothing when it does not open.
TImage ReadAll(const std::string& path) {
  const TOpenedDevice opened = OpenSource(path);
  if (!opened.Device) return {};
  TImage bytes(static_cast<std::size_t>(opened.Device->Size()));
  bytes.resize(opened.Device->Read(0, bytes));
  return bytes;
}

std::string Le(std::uint64_t value, int size) {
  std::string text;
  for (int i = 0; i < size; ++i, value >>= 8) text += static_cast<char>(value & 0xFF);
  return text;
}

struct TSaved {
  TTemporaryFolder Folder;
  TEngine Engine;
  TMounted Source;
  std::string Path = Folder.Path() + "/disk.dsk";
  std::string Map = Folder.Path() + "/disk.map";

  explicit TSaved(TImage image) : Source(Mount(Engine, std::move(image))) { REQUIRE(Source.Number == 0); }
  TImageResult Save(bool compressed, const std::string& map = "") {
    return Engine.Drives().Save(0, 0, DriveOf(Engine, 0).SectorsCount, Folder.Path() + "/disk.img", compressed, map);
  }
};

}  // namespace

TEST_CASE("a stop of all scans ends an image, and two runs never write one image") {
  TSaved t(Mixed(4000));
  TImageResult second;
  bool begun = false;
  t.Engine.Drives().OnProgressChanged = [&](double position) {
    if (position <= 0 || std::exchange(begun, true)) return;
    TEngine other;
    const TMounted source = Mount(other, Mixed(4000));
    second = other.Drives().Save(source.Number, 0, 4000, t.Path, false, "");
    t.Engine.StopScans();
  };
  const TImageResult first = t.Save(false);
  CHECK(second.SystemError == EWOULDBLOCK);
  CHECK(second.Path == t.Path + ".partial");
  CHECK(first.Stopped);
  CHECK(first.SystemError == 0);
  CHECK_FALSE(fs::exists(t.Path));
  CHECK(fs::exists(t.Path + ".partial"));
  t.Engine.Drives().OnProgressChanged = nullptr;
  CHECK_FALSE(t.Save(false).Stopped);
  CHECK((FileBytes(t.Path) == Mixed(4000)));
}

TEST_CASE("images: raw and compressed ones read back as the source, names end in .dsk") {
  for (const std::size_t sectors : {std::size_t{384}, std::size_t{1000}}) {  // whole blocks, and a rest
    TSaved t(Mixed(sectors));
    const TImage& source = t.Source.Device->Image;
    CHECK(t.Save(false).Path == t.Path);
    CHECK(FileBytes(t.Path) == source);
    CHECK(ReadAll(t.Path) == source);
    const TImageResult result = t.Save(true);
    CHECK((result.SystemError == 0 && !result.Stopped));
    CHECK(fs::file_size(t.Path) < source.size() / 2);
    CHECK(ReadAll(t.Path) == source);
    const TOpenedDevice opened = OpenSource(t.Path);
    TImage piece(100000);
    CHECK(opened.Device->Read(33333, piece) == piece.size());
    CHECK(std::equal(piece.begin(), piece.end(), source.begin() + 33333));
    CHECK(opened.Device->Read(static_cast<std::int64_t>(source.size()) - 10, piece) == 10);
    CHECK_FALSE(fs::exists(t.Path + ".partial"));
  }
}

TEST_CASE("images: a compressed image stores what does not shrink, and damage gives short reads") {
  TImage noise(3 * 65536);
  std::mt19937 random(1);
  for (std::uint8_t& byte : noise) byte = static_cast<std::uint8_t>(random());
  std::fill(noise.begin() + 65536, noise.begin() + 2 * 65536, std::uint8_t{7});
  TSaved t(noise);
  t.Save(true);
  TImage file = FileBytes(t.Path);
  CHECK(file[24] == 0xFF);
  CHECK(file[25] == 0xFF);
  CHECK(ReadAll(t.Path) == noise);
  // A length of 0: not reached. A broken block ends the read.
  TImage cut = file;
  cut[26] = cut[27] = 0;
  WriteFile(t.Path, std::string(cut.begin(), cut.end()));
  CHECK(ReadAll(t.Path).size() == 65536);
  TImage broken = file;
  broken[24 + 6 + 65536 + 1] = 0;
  broken[24 + 6 + 65536 + 2] = 0xFF;
  broken[24 + 6 + 65536 + 3] = 0xFF;
  broken[24 + 6 + 65536 + 4] = 0xFF;
  broken[24 + 6 + 65536 + 0] = 0xFF;
  WriteFile(t.Path, std::string(broken.begin(), broken.end()));
  CHECK(ReadAll(t.Path).size() == 65536);
  // Sizes that do not fit together: the bytes as they stand.
  file[16] = 9;
  WriteFile(t.Path, std::string(file.begin(), file.end()));
  CHECK(ReadAll(t.Path) == file);
}

TEST_CASE("images: a block that would pack into 65,535 bytes, the mark of a stored one, is stored") {
  TImage block(65536);
  std::mt19937 random(5);
  for (std::uint8_t& byte : block) byte = static_cast<std::uint8_t>(random());
  // The last chunk of 4 KiB packs a little, so that it makes up for the marks of the others.
  std::fill_n(block.end() - 540, 540, std::uint8_t{0});
  std::fill_n(block.end() - 3096, 23, std::uint8_t{1});
  TByteDynArray packed;
  REQUIRE(CompressLZNT1(block, packed, block.size()));
  REQUIRE(packed.size() == dsk::StoredRaw);
  block.resize(2 * 65536, 'x');
  TSaved t(block);
  t.Save(true);
  CHECK(fs::file_size(t.Path) > 65536 + 24 + 4);
  CHECK(ReadAll(t.Path) == block);
}

TEST_CASE("images: any block of a long table is found, in any order") {
  constexpr std::size_t blocks = 700;
  TByteDynArray packed[2];
  CompressLZNT1(TImage(65536, 'a'), packed[0], 65536);
  CompressLZNT1(TImage(65536, 'b'), packed[1], 65536);
  packed[1].resize(packed[1].size() + 2);  // another length; the stream ends before
  const auto isRaw = [](std::size_t i) { return i % 100 == 99; };
  std::string lengths;
  std::string stream;
  for (std::size_t i = 0; i < blocks; ++i) {
    const TByteDynArray& stored = packed[i % 3 == 0];
    lengths += Le(isRaw(i) ? 0xFFFF : stored.size(), 2);
    stream += isRaw(i) ? std::string(65536, 'r') : std::string(stored.begin(), stored.end());
  }
  TTemporaryFolder folder;
  WriteFile(folder.Path() + "/long.dsk", "DSK FILE" + Le(blocks * 65536, 8) + Le(blocks, 8) + lengths + stream);
  const TOpenedDevice opened = OpenSource(folder.Path() + "/long.dsk");
  REQUIRE(opened.Device->Size() == blocks * 65536);
  int wrong = 0;
  for (std::size_t i = 0; i < 3 * blocks; ++i) {
    const std::size_t number = i < blocks ? i : i * 7919 % blocks;
    TImage bytes(10);
    opened.Device->Read(static_cast<std::int64_t>(number * 65536 + 65526), bytes);
    const char content = isRaw(number) ? 'r' : number % 3 == 0 ? 'b' : 'a';
    wrong += bytes == TImage(10, static_cast<std::uint8_t>(content)) ? 0 : 1;
  }
  CHECK(wrong == 0);
}

TEST_CASE("images: bad places become zeros, and the map says where they are") {
  TSaved t(Mixed(8000));
  TImage expected = t.Source.Device->Image;
  t.Source.Device->BadSectors = {300, 301, 5000};
  for (const std::int64_t sector : t.Source.Device->BadSectors) {
    std::fill_n(expected.begin() + sector * 512, 512, std::uint8_t{0});
  }
  const TImageResult result = t.Save(false, t.Map);
  CHECK(result.UnreadableSectors == 3);
  CHECK(FileBytes(t.Path) == expected);
  TRescueMap map(0);
  REQUIRE(TRescueMap::Load(t.Map, map) == 0);
  CHECK(map.Count(TMapStatus::Bad) == 3 * 512);
  CHECK(map.At(301 * 512) == TMapStatus::Bad);
  CHECK(map.EndOfRange(300 * 512) == 302 * 512);

  // The image with its map fails where the source did.
  TOpenedDevice opened = OpenSource(t.Path);
  const auto mapped = WithRescueMap(std::move(opened.Device), map);
  TImage bytes(512 * 4);
  CHECK(mapped->Read(298 * 512, bytes) == 1024);
  CHECK(mapped->Read(300 * 512, bytes) == 0);
  CHECK(mapped->Read(302 * 512, bytes) == bytes.size());

  // The places that read by now are filled in, nothing else is read again.
  t.Source.Device->BadSectors = {301};
  const int before = t.Source.Device->Accesses;
  CHECK(t.Save(false, t.Map).UnreadableSectors == 1);
  CHECK(t.Source.Device->Accesses - before == 3);
  std::copy_n(t.Source.Device->Image.begin() + 300 * 512, 512, expected.begin() + 300 * 512);
  std::copy_n(t.Source.Device->Image.begin() + 5000 * 512, 512, expected.begin() + 5000 * 512);
  CHECK(FileBytes(t.Path) == expected);

  // A compressed image loses no more than the sector either.
  TSaved packed(Mixed(1000));
  packed.Source.Device->BadSectors = {300};
  CHECK(packed.Save(true).UnreadableSectors == 1);
}

TEST_CASE("images: a copy that was stopped never has the name of a whole one, and goes on") {
  TSaved t(Mixed(8000));
  int reports = 0;
  t.Engine.Drives().OnProgressChanged = [&](double) {
    if (++reports == 3) t.Engine.Drives().CanSave = false;
  };
  TImageResult result = t.Save(false, t.Map);
  CHECK(result.Stopped);
  CHECK(result.Path == t.Path + ".partial");
  CHECK_FALSE(fs::exists(t.Path));
  const int before = t.Source.Device->Accesses;
  t.Engine.Drives().OnProgressChanged = nullptr;
  result = t.Save(false, t.Map);
  CHECK_FALSE(result.Stopped);
  CHECK(FileBytes(t.Path) == t.Source.Device->Image);
  CHECK(t.Source.Device->Accesses - before == 6);  // of eight units two were there

  reports = 0;
  t.Engine.Drives().OnProgressChanged = [&](double) {
    if (++reports == 10) t.Engine.Drives().CanSave = false;
  };
  fs::remove(t.Path);
  result = t.Save(true);
  CHECK(result.Stopped);
  CHECK_FALSE(fs::exists(t.Path));
  CHECK(ReadAll(t.Path + ".partial").size() == 9 * 65536);  // what there is can be read

  // A map of another source is refused, and nothing is touched.
  t.Engine.Drives().OnProgressChanged = nullptr;
  WriteFile(t.Map, "0 ?\n0 0x1000 +\n");
  CHECK(t.Save(false, t.Map).SystemError == EINVAL);
  WriteFile(t.Map, "rubbish\n0x0 nonsense\n");
  CHECK(t.Save(false, t.Map).SystemError == EINVAL);
}

TEST_CASE("rescue map: ranges join, split and read back") {
  TRescueMap map(10000);
  map.Set(1000, 500, TMapStatus::Finished);
  map.Set(1500, 500, TMapStatus::Finished);
  map.Set(1200, 100, TMapStatus::Bad);
  CHECK(map.EndOfRange(0) == 1000);
  CHECK(map.EndOfRange(1000) == 1200);
  CHECK(map.EndOfRange(1300) == 2000);
  CHECK(map.Count(TMapStatus::Finished) == 900);
  CHECK(map.Find(1100, [](TMapStatus s) { return s == TMapStatus::Bad; }) == 1200);
  CHECK(map.Find(1250, [](TMapStatus s) { return s == TMapStatus::Bad; }) == 1250);
  CHECK(map.Find(1300, [](TMapStatus s) { return s == TMapStatus::Bad; }) == 10000);
  map.Set(9900, 500, TMapStatus::Finished);
  map.Set(1200, 100, TMapStatus::Finished);
  CHECK(map.EndOfRange(1000) == 2000);
  TTemporaryFolder folder;
  const std::string path = folder.Path() + "/map";
  REQUIRE(map.Save(path) == 0);
  TRescueMap again(0);
  REQUIRE(TRescueMap::Load(path, again) == 0);
  CHECK(again.Size() == 10000);
  CHECK(again.Count(TMapStatus::Finished) == 1100);
  // As the program that the form comes from writes it.
  WriteFile(path,
            "# Mapfile. Created by GNU ddrescue version 1.27\n# Command line: ddrescue a b c\n0x00000400     ?         "
            "      1\n"
            "#      pos        size  status\n0x00000000  0x00000400  +\n0x00000400  0x00000200  -\n0x00000600  "
            "0x00001000  *\n");
  REQUIRE(TRescueMap::Load(path, again) == 0);
  CHECK(again.Size() == 0x1600);
  CHECK(again.At(0x500) == TMapStatus::Bad);
}

TEST_CASE("virtual disks: VMware descriptors, holes, and what is refused") {
  TTemporaryFolder folder;
  const std::string top = folder.Path();
  // A sparse extent of 32 grains of 8 sectors: grains 0 and 3 lie in the file, the later one first; 5 is zeros.
  std::string sparse(64 * 512, '\0');
  const auto put = [&](std::size_t at, const std::string& bytes) { sparse.replace(at, bytes.size(), bytes); };
  put(0, "KDMV" + Le(1, 4) + Le(5, 4) + Le(250, 8) + Le(8, 8));
  put(0x38, Le(2, 8));
  put(2 * 512, Le(4, 4));
  put(4 * 512, Le(24, 4) + Le(0, 8) + Le(16, 4) + Le(0, 4) + Le(1, 4));
  put(16 * 512, std::string(8 * 512, 'b'));
  put(24 * 512, std::string(8 * 512, 'a'));
  WriteFile(top + "/s.vmdk", sparse);  // small, but by its magic no text
  TImage disk = ReadAll(top + "/s.vmdk");
  REQUIRE(disk.size() == 250 * 512);
  const auto all = [&](std::size_t first, std::size_t count, char byte) {
    return std::all_of(disk.begin() + static_cast<std::ptrdiff_t>(first * 512),
                       disk.begin() + static_cast<std::ptrdiff_t>((first + count) * 512),
                       [byte](std::uint8_t b) { return b == static_cast<std::uint8_t>(byte); });
  };
  CHECK((all(0, 8, 'a') && all(8, 16, 0) && all(24, 8, 'b') && all(32, 218, 0)));
  const TOpenedDevice opened = OpenSource(top + "/s.vmdk");
  CHECK(opened.Device->NextData(0) == 0);
  CHECK(opened.Device->NextData(9 * 512) == 24 * 512);
  CHECK(opened.Device->NextData(32 * 512) == 250 * 512);

  WriteFile(top + "/flat.bin", std::string(512, 'x') + std::string(4 * 512, 'f'));
  const std::string head = "# Disk DescriptorFile\r\nversion=1\r\n# Extent description\r\n";
  WriteFile(top + "/d.vmdk",
            head + "RW 4 FLAT \"flat.bin\" 1\r\nRW 3 ZERO\r\nRW 250 SPARSE \"s.vmdk\"\r\n\r\n#DDB\r\nRW 9 ZERO\r\n");
  disk = ReadAll(top + "/d.vmdk");
  REQUIRE(disk.size() == 257 * 512);
  CHECK((all(0, 4, 'f') && all(4, 3, 0) && all(7, 8, 'a') && all(31, 8, 'b')));

  // Extents lie beside the descriptor, nowhere else.
  WriteFile(top + "/evil.vmdk", head + "RW 4 FLAT \"../" + fs::path(top).filename().string() + "/flat.bin\" 0\n");
  CHECK(OpenSource(top + "/evil.vmdk").Device == nullptr);
  WriteFile(top + "/x.vhd", std::string(1024, 'v'));  // without a head of its own: flat
  CHECK(ReadAll(top + "/x.vhd").size() == 1024);
}

TEST_CASE("virtual disks of other origin read as what they hold") {
  struct TSample {
    const char* File;
    const char* Name;
    std::size_t Size;       // bytes
    std::uint32_t Content;  // CRC-32 of the disk as another program converts it
  };
  constexpr TSample samples[] = {{"vdisk/basic.vdi.zst", "x.vdi", 10485760, 0x8DCF1297},
                                 {"vdisk/dynamic.vhd.zst", "x.vhd", 10485760, 0x13D45026},
                                 {"vdisk/image.vhd.zst", "x.vhd", 104448, 0x91A89AFA},
                                 {"vdisk/fixed.vhdx.zst", "x.vhdx", 10485760, 0xE748D824},
                                 {"vdisk/ext2-sparse.vmdk.zst", "x.vmdk", 4194304, 0x46F988AE},
                                 {"vdisk/stream-optimized.vmdk.zst", "x.vmdk", 1048576, 0xA738EA1C}};
  for (const auto& [file, name, size, content] : samples) {
    const auto bytes = LoadSpecimen(file);
    if (!bytes) continue;
    CAPTURE(file);
    TTemporaryFolder folder;
    const std::string path = folder.Path() + "/" + name;
    WriteFile(path, std::string(bytes->begin(), bytes->end()));
    const TImage disk = ReadAll(path);
    CHECK(disk.size() == size);
    CHECK(Crc32(disk) == content);
  }
}

TEST_CASE("virtual partitions: a range of a drive with the file system that it has") {
  TEngine engine;
  const TImage stick = LoadTestImage("demo-stick.img.zst");
  TImage disk(1000 * 512);
  disk.insert(disk.end(), stick.begin(), stick.end());
  Mount(engine, disk);
  const int number = engine.Drives().CreateVirtual(0, 1000, static_cast<std::int64_t>(stick.size() / 512));
  REQUIRE(number > 0);
  CHECK(DriveOf(engine, number).FileSystem == TFileSystem::fsFAT32);
  CHECK(DriveOf(engine, number).Caption == u"Virtual partition 1");
  CHECK(engine.Drives().CanCloseDisk(number));
  CHECK(engine.Drives().CreateVirtual(99, 0, 1) == -1);
}

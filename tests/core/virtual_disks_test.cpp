// SPDX-License-Identifier: GPL-3.0-or-later
// Virtual disks: told by magic, read with their parents and logs, refused with a reason.
#include <doctest/doctest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>

#include "core/images/image_file.h"
#include "core/images/vhdx_log.h"
#include "support/cpu_time.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::size_t MiB = 1 << 20;

void WriteFile(const std::string& path, const TImage& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TImage ReadAll(const std::string& path) {
  const TOpenedDevice opened = OpenSource(path);
  if (!opened.Device) return {};
  TImage bytes(static_cast<std::size_t>(opened.Device->Size()));
  bytes.resize(opened.Device->Read(0, bytes));
  return bytes;
}

/// A file that is written piece by piece.
struct TFileBuilder {
  TImage Bytes;
  explicit TFileBuilder(std::size_t size) : Bytes(size) {}
  void Number(std::size_t at, std::uint64_t value, int size, bool littleEndian = true) {
    for (int i = 0; i < size; ++i) {
      const int shift = 8 * (littleEndian ? i : size - 1 - i);
      Bytes[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> shift);
    }
  }
  void Text(std::size_t at, const std::string& text) {
    std::copy(text.begin(), text.end(), Bytes.begin() + static_cast<std::ptrdiff_t>(at));
  }
  void Fill(std::size_t at, std::size_t size, char byte) {
    std::fill_n(Bytes.begin() + static_cast<std::ptrdiff_t>(at), size, static_cast<std::uint8_t>(byte));
  }
};

std::string Wide(const std::string& text, bool littleEndian) {
  std::string wide;
  for (const char c : text) wide += littleEndian ? std::string{c, '\0'} : std::string{'\0', c};
  return wide;
}

bool AllAre(const TImage& disk, std::size_t at, std::size_t size, char byte) {
  return at + size <= disk.size() &&
         std::all_of(disk.begin() + static_cast<std::ptrdiff_t>(at),
                     disk.begin() + static_cast<std::ptrdiff_t>(at + size),
                     [byte](std::uint8_t b) { return b == static_cast<std::uint8_t>(byte); });
}

// ---- builders -------------------------------------------------------------------------------

/// A disk of two blocks of 1 MiB, of which the table says where they lie.
TImage MakeVdi(std::uint32_t type, char guid, char parent, std::uint32_t first, std::uint32_t second, char content) {
  TFileBuilder file(4 * MiB);
  file.Number(0x40, 0xBEDA107F, 4);
  file.Number(0x4C, type, 4);
  file.Number(0x154, 512, 4);
  file.Number(0x158, MiB, 4);
  file.Number(0x170, 2 * MiB, 8);
  file.Number(0x178, MiB, 4);
  file.Fill(0x188, 16, guid);
  file.Fill(0x1A8, 16, parent);
  file.Number(512, first, 4);
  file.Number(516, second, 4);
  file.Fill(MiB, 2 * MiB, content);
  return file.Bytes;
}

void PutVhdFooter(TFileBuilder& file, std::size_t at, std::uint32_t kind, std::uint64_t size, char guid) {
  file.Text(at, "conectix");
  file.Number(at + 0x10, 512, 8, false);
  file.Number(at + 0x30, size, 8, false);
  file.Number(at + 0x3C, kind, 4, false);
  file.Fill(at + 0x44, 16, guid);
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < 512; ++i) sum += file.Bytes[at + i];
  file.Number(at + 0x40, ~sum, 4, false);
}

/// One block of 2 MiB at 4096, of whose sectors those of `bits` (of the first 8) are its own.
TImage MakeVhd(std::uint32_t kind, char guid, char parent, std::uint8_t bits, char content) {
  TFileBuilder file(4096 + 512 + 2 * MiB + 512);
  PutVhdFooter(file, 0, kind, 2 * MiB, guid);
  file.Text(512, "cxsparse");
  file.Number(512 + 0x10, 2048, 8, false);
  file.Number(512 + 0x1C, 1, 4, false);
  file.Number(512 + 0x20, 2 * MiB, 4, false);
  file.Fill(512 + 0x28, 16, parent);
  file.Text(512 + 0x40, Wide("C:\\disks\\parent.vhd", false));
  file.Number(2048, 8, 4, false);
  file.Bytes[4096] = bits;
  file.Fill(4096 + 512, 2 * MiB, content);
  PutVhdFooter(file, file.Bytes.size() - 512, kind, 2 * MiB, guid);
  return file.Bytes;
}

struct TVhdx {
  TFileBuilder File{6 * MiB};
  static constexpr std::size_t Log = MiB, Metadata = 2 * MiB, Table = 3 * MiB, Block = 4 * MiB, Bitmap = 5 * MiB;

  /// Two blocks of 1 MiB; the first has its content, `state` says how much of it.
  TVhdx(std::uint64_t state, char content) {
    File.Text(0, "vhdxfile");
    File.Text(0x30000, "regi");
    File.Number(0x30008, 2, 4);
    const auto region = [&](std::size_t at, const char* id, std::size_t place) {
      File.Text(at, std::string(id, 16));
      File.Number(at + 16, place, 8);
      File.Number(at + 24, MiB, 4);
    };
    region(0x30010, "\x66\x77\xC2\x2D\x23\xF6\x00\x42\x9D\x64\x11\x5E\x9B\xFD\x4A\x08", Table);
    region(0x30030, "\x06\xA2\x7C\x8B\x90\x47\x9A\x4B\xB8\xFE\x57\x5F\x05\x0F\x88\x6E", Metadata);
    File.Text(Metadata, "metadata");
    const auto item = [&](std::size_t number, const char* id, std::size_t offset) {
      File.Text(Metadata + 32 + 32 * number, std::string(id, 16));
      File.Number(Metadata + 32 + 32 * number + 16, offset, 4);
      File.Number(Metadata + 10, number + 1, 2);
    };
    item(0, "\x37\x67\xA1\xCA\x36\xFA\x43\x4D\xB3\xB6\x33\xF0\xAA\x44\xE7\x6B", 0x10000);
    item(1, "\x24\x42\xA5\x2F\x1B\xCD\x76\x48\xB2\x11\x5D\xBE\xD8\x3B\xF4\xB8", 0x10010);
    item(2, "\x1D\xBF\x41\x81\x6F\xA9\x09\x47\xBA\x47\xF2\x33\xA8\xFA\xAB\x5F", 0x10020);
    File.Number(Metadata + 0x10000, MiB, 4);
    File.Number(Metadata + 0x10010, 2 * MiB, 8);
    File.Number(Metadata + 0x10020, 512, 4);
    File.Number(Table, Block | state, 8);
    File.Fill(Block, MiB, content);
    PutHead('\0', 'd');
  }
  void PutHead(char log, char data) {
    File.Text(0x10000, "head");
    File.Number(0x10008, 1, 8);
    File.Fill(0x10020, 16, data);
    File.Fill(0x10030, 16, log);
    File.Number(0x10044, MiB, 4);
    File.Number(0x10048, Log, 8);
    File.Number(0x10004, Crc32C(std::span(File.Bytes).subspan(0x10000, 4096), 4), 4);
  }
  void MakeDifference(const std::string& parent, const std::string& linkage) {
    File.Number(Metadata + 0x10004, 2, 4);
    File.Text(Metadata + 32 + 96, std::string("\x2D\x5F\xD3\xA8\x0B\xB3\x4D\x45\xAB\xF7\xD3\xD8\x48\x34\xAB\x0C", 16));
    File.Number(Metadata + 32 + 96 + 16, 0x11000, 4);
    File.Number(Metadata + 10, 4, 2);
    const std::size_t locator = Metadata + 0x11000;
    File.Number(locator + 18, 2, 2);
    std::size_t at = 100;
    const auto pair = [&](std::size_t number, const std::string& key, const std::string& value) {
      for (const auto& [field, text] : {std::pair{std::size_t{0}, key}, std::pair{std::size_t{1}, value}}) {
        File.Text(locator + at, Wide(text, true));
        File.Number(locator + 20 + number * 12 + field * 4, at, 4);
        File.Number(locator + 20 + number * 12 + 8 + field * 2, text.size() * 2, 2);
        at += text.size() * 2;
      }
    };
    pair(0, "parent_linkage", linkage);
    pair(1, "relative_path", parent);
    File.Number(Table + 4096 * 8, Bitmap | 6, 8);  // after the entries of a chunk of 4 GiB
  }
  /// An entry of the log that writes one sector of 4096 bytes, and zeros another.
  void PutLogEntry(std::size_t at, std::uint64_t number, std::size_t tail, std::size_t place, const TImage& sector,
                   std::size_t zerosAt) {
    const std::size_t entry = Log + at;
    File.Text(entry, "loge");
    File.Number(entry + 8, 8192, 4);
    File.Number(entry + 12, tail, 4);
    File.Number(entry + 16, number, 8);
    File.Number(entry + 24, 2, 4);
    File.Fill(entry + 32, 16, 'L');
    File.Text(entry + 64, "desc");
    std::copy_n(sector.end() - 4, 4, File.Bytes.begin() + static_cast<std::ptrdiff_t>(entry + 68));
    std::copy_n(sector.begin(), 8, File.Bytes.begin() + static_cast<std::ptrdiff_t>(entry + 72));
    File.Number(entry + 80, place, 8);
    File.Number(entry + 88, number, 8);
    File.Text(entry + 96, "zero");
    File.Number(entry + 104, 4096, 8);
    File.Number(entry + 112, zerosAt, 8);
    File.Number(entry + 120, number, 8);
    const std::size_t data = entry + 4096;
    std::copy(sector.begin(), sector.end(), File.Bytes.begin() + static_cast<std::ptrdiff_t>(data));
    File.Text(data, "data");
    File.Number(data + 4, number >> 32, 4);
    File.Number(data + 4092, number, 4);
    File.Number(entry + 4, Crc32C(std::span(File.Bytes).subspan(entry, 8192), 4), 4);
  }
};

}  // namespace

TEST_CASE("virtual disks that QEMU made read as what it reads from them, whatever their name") {
  struct TSample {
    const char* File;
    const char* Name;
    std::uint32_t Content;  // CRC-32 of `qemu-img convert -O raw`
  };
  constexpr std::uint32_t base = 0xAD96D7A4;
  constexpr std::uint32_t child = 0x0845F2A2;
  constexpr TSample samples[] = {
      {"base.raw", "base.raw", base},      {"v2.qcow2", "old.img", base},         {"zlib.qcow2", "packed.dd", base},
      {"zstd.qcow2", "zstd.qcow2", base},  {"child.qcow2", "child.qcow2", child}, {"grand.qcow2", "grand", 0xA5F77DDF},
      {"stream.vmdk", "stream.bin", base}, {"base.vmdk", "base.vmdk", base},      {"child.vmdk", "child.vmdk", child}};
  TTemporaryFolder folder;
  for (const TSample& sample : samples) {
    WriteFile(folder.Path() + "/" + sample.Name, LoadTestImage("vdisk/" + std::string(sample.File) + ".zst"));
  }
  for (const TSample& sample : samples) {
    CAPTURE(sample.File);
    const TImage disk = ReadAll(folder.Path() + "/" + sample.Name);
    CHECK(disk.size() == 3146752);
    CHECK(Crc32(disk) == sample.Content);
  }
  // All files that a difference is read from count as the source.
  std::vector<TFileIdentity> origins;
  OpenSource(folder.Path() + "/grand").Device->AddOrigins(origins);
  CHECK(origins.size() == 3);
  // What was made zeros is passed over, though the parent has bytes there.
  const TOpenedDevice opened = OpenSource(folder.Path() + "/child.qcow2");
  CHECK(opened.Device->NextData(20 * 65536) == 21 * 65536);
  CHECK(opened.Device->NextData(65536 + 100) == 65536 + 100);
}

TEST_CASE("a difference without its parent, or with another one, is refused by that name") {
  TTemporaryFolder folder;
  const std::string top = folder.Path();
  WriteFile(top + "/child.qcow2", LoadTestImage("vdisk/child.qcow2.zst"));
  WriteFile(top + "/child.vmdk", LoadTestImage("vdisk/child.vmdk.zst"));
  for (const auto& [name, parent] : {std::pair{"child.qcow2", "base.raw"}, std::pair{"child.vmdk", "base.vmdk"}}) {
    const TOpenedDevice opened = OpenSource(top + "/" + name);
    CHECK_FALSE(opened.Device);
    CHECK((opened.Problem == TImageProblem::ParentMissing));
    CHECK(opened.Detail == parent);
  }
  TImage other = LoadTestImage("vdisk/base.vmdk.zst");
  const std::string cid = "CID=";
  const auto at = std::search(other.begin(), other.end(), cid.begin(), cid.end());
  REQUIRE(at != other.end());
  at[4] = at[4] == '0' ? '1' : '0';
  WriteFile(top + "/base.vmdk", other);
  CHECK((OpenSource(top + "/child.vmdk").Problem == TImageProblem::ParentChanged));
  // A disk that is its own parent ends.
  std::filesystem::copy_file(top + "/child.qcow2", top + "/base.raw");
  TImage loop = LoadTestImage("vdisk/grand.qcow2.zst");  // names child.qcow2, of that format
  WriteFile(top + "/child.qcow2", loop);
  CHECK((OpenSource(top + "/child.qcow2").Problem == TImageProblem::Damaged));
}

TEST_CASE("differences of VDI, VHD and VHDX take from the parent what they lack, sector by sector") {
  TTemporaryFolder folder;
  const std::string top = folder.Path();
  constexpr std::uint32_t none = 0xFFFFFFFF, zeros = 0xFFFFFFFE;
  WriteFile(top + "/unrelated.vdi", MakeVdi(1, 'u', '\0', 0, 1, 'U'));
  WriteFile(top + "/parent.vdi", MakeVdi(1, 'p', '\0', 0, 1, 'P'));
  WriteFile(top + "/child.vdi", MakeVdi(4, 'c', 'p', none, zeros, 'C'));
  TImage disk = ReadAll(top + "/child.vdi");
  CHECK((AllAre(disk, 0, MiB, 'P') && AllAre(disk, MiB, MiB, '\0')));

  WriteFile(top + "/parent.vhd", MakeVhd(3, 'p', '\0', 0xFF, 'P'));
  WriteFile(top + "/child.vhd", MakeVhd(4, 'c', 'p', 0xA0, 'C'));  // sectors 0 and 2

  disk = ReadAll(top + "/child.vhd");
  REQUIRE(disk.size() == 2 * MiB);
  CHECK((AllAre(disk, 0, 512, 'C') && AllAre(disk, 512, 512, 'P') && AllAre(disk, 1024, 512, 'C')));
  CHECK(AllAre(disk, 1536, 2 * MiB - 1536, 'P'));
  WriteFile(top + "/parent.vhd", MakeVhd(3, 'x', '\0', 0xFF, 'P'));
  CHECK((OpenSource(top + "/child.vhd").Problem == TImageProblem::ParentChanged));

  TVhdx parent(6, 'P');
  parent.File.Number(TVhdx::Table + 8, TVhdx::Block | 6, 8);
  WriteFile(top + "/parent.vhdx", parent.File.Bytes);
  TVhdx child(7, 'C');
  child.MakeDifference(".\\parent.vhdx", "{64646464-6464-6464-6464-646464646464}");
  child.File.Bytes[TVhdx::Bitmap] = 0x05;  // sectors 0 and 2
  WriteFile(top + "/child.avhdx", child.File.Bytes);
  disk = ReadAll(top + "/child.avhdx");
  REQUIRE(disk.size() == 2 * MiB);
  CHECK((AllAre(disk, 0, 512, 'C') && AllAre(disk, 512, 512, 'P') && AllAre(disk, 1024, 512, 'C')));
  CHECK(AllAre(disk, 1536, 2 * MiB - 1536, 'P'));
  parent.PutHead('\0', 'e');  // written to since
  WriteFile(top + "/parent.vhdx", parent.File.Bytes);
  CHECK((OpenSource(top + "/child.avhdx").Problem == TImageProblem::ParentChanged));
}

TEST_CASE("a bundle's descriptor tells the parent of a difference") {
  TTemporaryFolder folder;
  const auto make = [](std::uint32_t first, std::uint32_t second, char content) {
    TFileBuilder file(3 * MiB);
    file.Text(0, "WithouFreSpacExt");
    file.Number(28, 2048, 4);
    file.Number(32, 2, 4);
    file.Number(36, 4096, 8);
    file.Number(64, first, 4);
    file.Number(68, second, 4);
    file.Fill(MiB, 2 * MiB, content);
    return file.Bytes;
  };
  WriteFile(folder.Path() + "/a.hds", make(1, 2, 'P'));
  WriteFile(folder.Path() + "/b.hds", make(0, 1, 'C'));
  std::ofstream(folder.Path() + "/DiskDescriptor.xml")
      << "<Parallels_disk_image><StorageData><Storage><Image><GUID>{1}</GUID><Type>Compressed</Type><File>a.hds</File>"
         "</Image><Image><GUID>{2}</GUID><File>b.hds</File></Image></Storage></StorageData><Snapshots><Shot>"
         "<GUID>{1}</GUID><ParentGUID>{0}</ParentGUID></Shot><Shot><GUID>{2}</GUID><ParentGUID>{1}</ParentGUID></Shot>"
         "</Snapshots></Parallels_disk_image>";
  const TImage disk = ReadAll(folder.Path() + "/b.hds");
  CHECK((AllAre(disk, 0, MiB, 'P') && AllAre(disk, MiB, MiB, 'C')));
  CHECK(AllAre(ReadAll(folder.Path() + "/a.hds"), 0, 2 * MiB, 'P'));
}

TEST_CASE("the log of a VHDX is carried out in memory, or the disk is refused") {
  TTemporaryFolder folder;
  const std::string path = folder.Path() + "/logged.vhdx";
  TVhdx disk(0, 'N');  // the table on disk knows no block
  disk.PutHead('L', 'd');
  TImage table(4096);
  const std::uint64_t entry = TVhdx::Block | 6;
  for (int i = 0; i < 8; ++i) table[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(entry >> (8 * i));
  table[4095] = 0;
  WriteFile(path, disk.File.Bytes);
  CHECK(AllAre(ReadAll(path), 0, 2 * MiB, '\0'));  // no entry of this log: nothing to carry out
  disk.PutLogEntry(8192, 7, 8192, TVhdx::Table, TImage(4096, 'x'), TVhdx::Bitmap);  // an older sequence
  disk.PutLogEntry(0, 10, 1040384, TVhdx::Table, table, TVhdx::Block + 4096);
  disk.PutLogEntry(1040384, 9, 1040384, TVhdx::Table, TImage(4096, 'y'), TVhdx::Bitmap);  // ends where the ring does
  const TImage before = disk.File.Bytes;
  WriteFile(path, disk.File.Bytes);
  const TImage content = ReadAll(path);
  REQUIRE(content.size() == 2 * MiB);
  CHECK((AllAre(content, 0, 4096, 'N') && AllAre(content, 4096, 4096, '\0')));
  CHECK((AllAre(content, 8192, MiB - 8192, 'N') && AllAre(content, MiB, MiB, '\0')));
  std::ifstream file(path, std::ios::binary);
  CHECK(TImage(std::istreambuf_iterator<char>(file), {}) == before);
  // Entry 10 begins at 9, which is damaged; what entry 7 says is older than what was carried out.
  disk.File.Bytes[TVhdx::Log + 1040384 + 5000] ^= 1;
  disk.File.Fill(TVhdx::Log + 8192, 4096, '\0');
  WriteFile(path, disk.File.Bytes);
  CHECK((OpenSource(path).Problem == TImageProblem::Damaged));
}

TEST_CASE("a fixed VHD ends before its footer") {
  TTemporaryFolder folder;
  TFileBuilder file(MiB + 512);
  file.Fill(0, MiB, 'f');
  PutVhdFooter(file, MiB, 2, MiB, 'g');
  for (const char* name : {"/fixed.vhd", "/fixed.img"}) {
    WriteFile(folder.Path() + name, file.Bytes);
    CHECK(AllAre(ReadAll(folder.Path() + name), 0, MiB, 'f'));
    CHECK(OpenSource(folder.Path() + name).Device->Size() == MiB);
  }
  file.Bytes[MiB + 100] ^= 1;  // a sector that only begins like a footer stays
  WriteFile(folder.Path() + "/fixed.vhd", file.Bytes);
  CHECK(ReadAll(folder.Path() + "/fixed.vhd").size() == MiB + 512);
}

TEST_CASE("hostile and foreign images are refused with a reason before memory is asked for") {
  TTemporaryFolder folder;
  const std::string path = folder.Path() + "/hostile";
  const auto problem = [&](const TImage& bytes, std::int64_t size = 0) {
    WriteFile(path, bytes);
    if (size > 0) std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size));
    const TCpuTime time;
    const TOpenedDevice opened = OpenSource(path);
    CHECK(time.Seconds() < 5);
    CHECK(opened.Error == EOPNOTSUPP);
    return opened.Problem;
  };
  TFileBuilder vdi(4096);  // 64 PiB in blocks of 512 bytes, and a file that is long enough to have such a table
  vdi.Number(0x40, 0xBEDA107F, 4);
  vdi.Number(0x154, 512, 4);
  vdi.Number(0x170, std::uint64_t{1} << 56, 8);
  vdi.Number(0x178, 512, 4);
  CHECK((problem(vdi.Bytes, std::int64_t{1} << 43) == TImageProblem::Damaged));
  TFileBuilder hdd(4096);
  hdd.Text(0, "WithouFreSpacExt");
  hdd.Number(28, 1, 4);
  hdd.Number(32, 0xFFFFFFFF, 4);
  hdd.Number(36, std::uint64_t{1} << 40, 8);
  CHECK((problem(hdd.Bytes, std::int64_t{1} << 43) == TImageProblem::Damaged));
  TFileBuilder vmdk(MiB);  // a directory whose entries all name one table
  vmdk.Text(0, "KDMV");
  vmdk.Number(12, std::uint64_t{1} << 33, 8);
  vmdk.Number(20, 8, 8);
  vmdk.Number(0x38, 4, 8);
  for (std::size_t at = 2048; at < MiB; at += 4) vmdk.Number(at, 1, 4);
  CHECK((problem(vmdk.Bytes) == TImageProblem::Damaged));
  TFileBuilder qcow(MiB);
  qcow.Text(0, "QFI\xfb");
  qcow.Number(4, 2, 4, false);
  qcow.Number(20, 16, 4, false);
  qcow.Number(24, std::uint64_t{1} << 55, 8, false);
  qcow.Number(36, 0xFFFFFFFF, 4, false);
  qcow.Number(40, 65536, 8, false);
  CHECK((problem(qcow.Bytes, std::int64_t{1} << 43) == TImageProblem::Damaged));
  qcow.Number(24, MiB, 8, false);
  qcow.Number(36, 1, 4, false);
  qcow.Number(32, 2, 4, false);
  CHECK((problem(qcow.Bytes) == TImageProblem::Encrypted));
  qcow.Number(32, 0, 4, false);
  qcow.Number(4, 3, 4, false);
  for (const std::uint64_t feature : {4U, 16U, 64U}) {
    qcow.Number(72, feature, 8, false);
    CHECK((problem(qcow.Bytes) == TImageProblem::UnknownKind));
  }
  TFileBuilder foreign(8192);
  for (const std::string& magic : {std::string("COWD\1\0\0\0", 8), std::string("\xBE\xBA\xFE\xCA\0\0\0\0", 8),
                                   std::string("QED\0", 4), std::string("EVF\x09\x0D\x0A\xFF\0", 8)}) {
    foreign.Text(0, magic);
    CHECK((problem(foreign.Bytes) == TImageProblem::UnknownKind));
    foreign.Fill(0, 8, '\0');
  }
}

TEST_CASE("disks whose tables name one block again and again are refused, a few such entries are not") {
  TTemporaryFolder folder;
  const std::string path = folder.Path() + "/shared";
  constexpr std::uint64_t blocks = 64 << 10;  // of 1 MiB, in a file of 2
  const auto vdi = [&](std::uint64_t shared) {
    TFileBuilder file(2 * MiB);
    file.Number(0x40, 0xBEDA107F, 4);
    file.Number(0x154, 512, 4);
    file.Number(0x158, MiB, 4);
    file.Number(0x170, blocks * MiB, 8);
    file.Number(0x178, MiB, 4);
    for (std::uint64_t i = 0; i < blocks; ++i) file.Number(512 + i * 4, i < shared ? 0 : 0xFFFFFFFF, 4);
    return file.Bytes;
  };
  const auto qcow = [](bool packed) {  // one table of 8,192 clusters, named 128 times
    TFileBuilder file(129 * 65536 + 65536);
    file.Text(0, "QFI\xfb");
    file.Number(4, 2, 4, false);
    file.Number(20, 16, 4, false);
    file.Number(24, 128 * (std::uint64_t{1} << 29), 8, false);
    file.Number(36, 128, 4, false);
    file.Number(40, 65536, 8, false);
    for (std::size_t i = 0; i < 128; ++i) file.Number(65536 + i * 8, 2 * 65536, 8, false);
    const std::uint64_t entry = packed ? std::uint64_t{1} << 62 | 3 * 65536 : 3 * 65536;
    for (std::size_t i = 0; i < 8192; ++i) file.Number(2 * 65536 + i * 8, entry, 8, false);
    if (packed) file.Bytes.resize(5 * 65536);
    return file.Bytes;
  };
  const std::pair<TImage, bool> cases[] = {{vdi(blocks), false}, {vdi(1024), true}, {qcow(false), false}};
  for (const auto& [bytes, reads] : cases) {
    WriteFile(path, bytes);
    const TOpenedDevice opened = OpenSource(path);
    CHECK((opened.Device != nullptr) == reads);
    CHECK((opened.Problem == (reads ? TImageProblem::None : TImageProblem::Damaged)));
  }
  // A flat file that is named again and again is one file.
  WriteFile(folder.Path() + "/flat", TImage(MiB));
  std::filesystem::resize_file(folder.Path() + "/flat", std::uintmax_t{1} << 31);
  std::ofstream file(folder.Path() + "/many.vmdk");
  file << "# Disk DescriptorFile\n# Extent description\n";
  for (int i = 0; i < 100; ++i) file << "RW " << (1 << 22) << " FLAT \"flat\" 0\n";
  file.close();
  CHECK((OpenSource(folder.Path() + "/many.vmdk").Problem == TImageProblem::Damaged));
}

TEST_CASE("a log whose entries all claim a long sequence that is broken costs no more than a sound one") {
  TTemporaryFolder folder;
  constexpr std::size_t sector = 4096;
  constexpr std::size_t length = 64 * MiB;
  constexpr std::size_t count = length / sector;
  TVhdx disk(6, 'C');
  disk.File.Bytes.resize(6 * MiB + length);
  disk.File.Number(0x10044, length, 4);
  disk.File.Number(0x10048, 6 * MiB, 8);
  disk.File.Fill(0x10030, 16, 'L');
  disk.File.Number(0x10004, 0, 4);
  disk.File.Number(0x10004, Crc32C(std::span(disk.File.Bytes).subspan(0x10000, 4096), 4), 4);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = 6 * MiB + i * sector;
    disk.File.Text(at, "loge");
    disk.File.Number(at + 8, sector, 4);
    disk.File.Number(at + 12, 0, 4);  // all begin with the first one; in the middle a number is left out
    disk.File.Number(at + 16, i < count / 2 ? i + 1 : i + 2, 8);
    disk.File.Fill(at + 32, 16, 'L');
    disk.File.Number(at + 4, Crc32C(std::span(disk.File.Bytes).subspan(at, sector), 4), 4);
  }
  WriteFile(folder.Path() + "/log.vhdx", disk.File.Bytes);
  const TCpuTime time;
  CHECK(AllAre(ReadAll(folder.Path() + "/log.vhdx"), 0, MiB, 'C'));  // the first half is a whole sequence
  CHECK(time.Seconds() < 2.5);
}

TEST_CASE("a hole of many TiB is passed over at once") {
  TTemporaryFolder folder;
  TFileBuilder qcow(4 * 65536);  // 16 TiB of nothing but one cluster near the end
  constexpr std::uint64_t size = std::uint64_t{1} << 44;
  constexpr std::uint64_t perTable = 65536ULL / 8 * 65536;
  qcow.Text(0, "QFI\xfb");
  qcow.Number(4, 2, 4, false);
  qcow.Number(20, 16, 4, false);
  qcow.Number(24, size, 8, false);
  qcow.Number(36, size / perTable, 4, false);
  qcow.Number(40, 65536, 8, false);
  const std::uint64_t last = size / perTable - 1;
  TFileBuilder big(65536 * 8);
  std::copy(qcow.Bytes.begin(), qcow.Bytes.begin() + 65536, big.Bytes.begin());
  big.Number(65536 + last * 8, 5 * 65536, 8, false);
  big.Number(5 * 65536 + 8, 6 * 65536, 8, false);
  WriteFile(folder.Path() + "/big", big.Bytes);
  const TOpenedDevice opened = OpenSource(folder.Path() + "/big");
  REQUIRE(opened.Device);
  const auto data = static_cast<std::int64_t>(last * perTable + 65536);
  const TCpuTime time;
  for (std::int64_t at = 0; at < data; at += std::int64_t{1} << 30) CHECK(opened.Device->NextData(at) == data);
  CHECK(time.Seconds() < 5);
}

TEST_CASE("disks that are their own parents, by two paths, end after one chain") {
  TTemporaryFolder folder;
  const auto problem = [&](const std::string& name, const TImage& bytes) {
    WriteFile(folder.Path() + name, bytes);
    const TCpuTime time;
    const TOpenedDevice opened = OpenSource(folder.Path() + name);
    CHECK(time.Seconds() < 5);
    CHECK_FALSE(opened.Device);
    return opened.Problem;
  };
  TFileBuilder vhd(0);
  vhd.Bytes = MakeVhd(4, 'p', 'p', 0xFF, 'P');
  const std::string itself = Wide(".\\parent.vhd", true);
  vhd.Text(512 + 0x240, "W2ru");
  vhd.Number(512 + 0x248, itself.size(), 4, false);
  vhd.Number(512 + 0x250, 3072, 8, false);
  vhd.Text(3072, itself);
  CHECK((problem("/parent.vhd", vhd.Bytes) == TImageProblem::Damaged));
  TVhdx vhdx(7, 'C');
  vhdx.MakeDifference(".\\self.vhdx", "{64646464-6464-6464-6464-646464646464}");
  CHECK((problem("/self.vhdx", vhdx.File.Bytes) == TImageProblem::Damaged));
}

TEST_CASE("a parent that lies elsewhere is found by its relative path") {
  TTemporaryFolder folder;
  std::filesystem::create_directory(folder.Path() + "/older");
  TFileBuilder child(0);
  child.Bytes = MakeVhd(4, 'c', 'p', 0xA0, 'C');
  const std::string path = Wide(".\\older\\first.vhd", true);
  child.Text(512 + 0x240, "W2ru");
  child.Number(512 + 0x248, path.size(), 4, false);
  child.Number(512 + 0x250, 3072, 8, false);
  child.Text(3072, path);
  WriteFile(folder.Path() + "/older/first.vhd", MakeVhd(3, 'p', '\0', 0xFF, 'P'));
  WriteFile(folder.Path() + "/parent.vhd", MakeVhd(3, 'x', '\0', 0xFF, 'X'));  // has the name, but is another disk
  WriteFile(folder.Path() + "/child.vhd", child.Bytes);
  CHECK(AllAre(ReadAll(folder.Path() + "/child.vhd"), 512, 512, 'P'));
}

TEST_CASE("a parent locator of 65535 long pairs costs no more than a sound one") {
  TTemporaryFolder folder;
  TVhdx vhdx(7, 'C');
  const std::string key = "parent_linkage";
  vhdx.MakeDifference("none.vhdx", "zzz");
  const std::size_t locator = TVhdx::Metadata + 0x11000;
  constexpr std::size_t keyAt = 786600;  // after the pairs
  vhdx.File.Text(locator + keyAt, Wide(key, true));
  vhdx.File.Number(locator + 18, 0xFFFF, 2);
  for (std::size_t i = 0; i < 0xFFFF; ++i) {
    vhdx.File.Number(locator + 20 + i * 12, keyAt, 4);
    vhdx.File.Number(locator + 20 + i * 12 + 4, 20, 4);
    vhdx.File.Number(locator + 20 + i * 12 + 8, key.size() * 2, 2);
    vhdx.File.Number(locator + 20 + i * 12 + 10, 0xFFFE, 2);
  }
  WriteFile(folder.Path() + "/child.vhdx", vhdx.File.Bytes);
  const TCpuTime time;
  CHECK((OpenSource(folder.Path() + "/child.vhdx").Problem == TImageProblem::ParentMissing));
  CHECK(time.Seconds() < 2);
}

TEST_CASE("many extents of one file together have no more tables than a single one") {
  TTemporaryFolder folder;
  TFileBuilder extent(4096);  // 64 MiB of a directory without a table
  extent.Text(0, "KDMV");
  extent.Number(20, 8, 8);
  extent.Number(0x38, 4, 8);
  WriteFile(folder.Path() + "/extent", extent.Bytes);
  std::filesystem::resize_file(folder.Path() + "/extent", 65 << 20);
  {
    std::ofstream file(folder.Path() + "/many.vmdk");
    file << "# Disk DescriptorFile\n# Extent description\n";
    for (int i = 0; i < 500; ++i) file << "RW " << (std::int64_t{1} << 35) << " SPARSE \"extent\"\n";
  }
  const TCpuTime time;
  CHECK((OpenSource(folder.Path() + "/many.vmdk").Problem == TImageProblem::Damaged));
  CHECK(time.Seconds() < 5);
}

// SPDX-License-Identifier: GPL-3.0-or-later
// The deep analysis: signatures, the sector step, rows, content.
#include <doctest/doctest.h>

#include <algorithm>
#include <random>

#include "analysis/analysis.h"
#include "analysis/deep/all_fs.h"
#include "analysis/deep/icon.h"
#include "analysis/file_data.h"
#include "analysis/folders.h"
#include "support/deep_reference.h"
#include "support/images.h"
#include "table/files.h"
#include "table/signatures.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

std::span<const std::uint8_t> Bytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

void Put(TImage& image, std::size_t at, std::string_view text) {
  for (std::size_t i = 0; i < text.size() && at + i < image.size(); ++i)
    image[at + i] = static_cast<std::uint8_t>(text[i]);
}

/// An image of so many sectors of a byte that ends no file.
TImage Plain(std::size_t sectors) { return TImage(sectors * 512, 0x20); }

struct TDeep {
  TEngine Engine;
  TMounted Source;

  explicit TDeep(TImage image, int sectorSize = 0) : Source(Mount(Engine, std::move(image), u"/deep.img", sectorSize)) {
    // Images without a file system all.
    REQUIRE(Source.Number == 0);
  }
  void Scan() { DeepAnalyseDrive(Engine, Source.Number); }
  /// The rows of files, in order of discovery.
  std::string Rows() {
    std::string rows;
    for (std::size_t i = 0; i < Engine.Files().List.size(); ++i) {
      const TFileInfo& info = Engine.Files().List[i].FileInfo;
      if (info.blnFolder || !info.aDeepAnalyse) continue;
      rows += ToUtf8(info.strName) + " " + std::to_string(info.FirstCluster) + "+" + std::to_string(info.aSize) + "\n";
    }
    return rows;
  }
  TByteDynArray Content(std::string_view name, std::int64_t start, std::int64_t size) {
    TByteDynArray bytes;
    for (std::size_t i = 0; i < Engine.Files().List.size(); ++i) {
      TFile& file = Engine.Files().List[i];
      if (ToUtf8(file.FileInfo.strName) == name) GetFileData(Engine, bytes, file, -1, start, size);
    }
    return bytes;
  }
};

/// The bytes of cells, wildcards as they come.
std::string Text(const TSignatureCells& cells, std::mt19937& random) {
  std::string text;
  for (const std::int16_t cell : cells) text += static_cast<char>(cell < 0 ? static_cast<int>(random() % 256) : cell);
  return text;
}

std::string Le(std::uint64_t value, int size) {
  std::string text;
  for (int i = 0; i < size; ++i, value >>= 8) text += static_cast<char>(value & 0xFF);
  return text;
}

std::string Icon(std::mt19937& random) {
  const std::uint64_t count = 1 + random() % 4;
  std::string text = Le(0x10000, 4) + Le(count, 2);
  std::uint64_t position = 6 + 16 * count;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t size = random() % 3000;
    text += Le(0x2020, 4) + Le(random() % 8 == 0 ? 2 : 1, 2) + Le(32, 2) + Le(size, 4) + Le(position, 4);
    position += size + (random() % 12 == 0 ? 1 : 0);
  }
  return text;
}

std::string DirectoryEntry(std::u16string_view name) {
  std::string text;
  for (const char16_t c : name) text += Le(c, 2);
  text.resize(64);
  return text + Le(2 * name.size() + 2, 2) + "\2";
}

/// Sectors full of what the scan looks for, at places where it must and must not be found.
class TStream {
 public:
  TStream(unsigned seed, std::size_t sectorSize) : FRandom(seed), FSize(sectorSize) {}

  TImage Make(std::size_t sectors) {
    TImage image(sectors * FSize);
    std::size_t quiet = 0;
    for (std::size_t i = 0; i < sectors; ++i) {
      Fill(image, i * FSize);
      if (quiet == 0 && Chance(2000)) quiet = 3000;  // long enough for a sound file
      if (quiet > 0 && --quiet > 0) continue;
      for (int n = static_cast<int>(FRandom() % 4); n > 0; --n) Decorate(image, i * FSize);
    }
    return image;
  }

 private:
  bool Chance(unsigned one) { return FRandom() % one == 0; }
  const TFileSignature& RowOf(TStringView extension) const {
    return FTable.Signatures()[static_cast<std::size_t>(FTable.FirstRowOf(extension))];
  }
  void Fill(TImage& image, std::size_t at) {
    const unsigned kind = FRandom() % 4;
    if (kind == 0) return;
    for (std::size_t i = 0; i < FSize; ++i) image[at + i] = kind == 1 ? 0x20 : static_cast<std::uint8_t>(FRandom());
  }
  void Decorate(TImage& image, std::size_t at) {
    const auto& table = FTable.Signatures();
    const TFileSignature& row = table[FRandom() % table.size()];
    const std::size_t anywhere = at + FRandom() % FSize;
    switch (FRandom() % 10) {
      case 0:
      case 1:
      case 2:
        return Put(image, at, Text(row.Header, FRandom));
      case 3:
        return Put(image, at, Icon(FRandom));
      case 4: {
        const auto& subs = RowOf(Chance(2) ? u".odp" : Chance(2) ? u".doc" : u".docx").SubSignatures;
        return Put(image, anywhere, Text(subs[FRandom() % subs.size()].Pattern, FRandom));
      }
      case 5:
        return Put(image, anywhere, Text(RowOf(Chance(2) ? u".jpg" : u".docx").Footer, FRandom));
      case 6:
        return Put(image, anywhere, "PK\5\6");
      case 7: {
        const auto& markers = RowOf(u".jpg").HalfFileMarkers;
        return Put(image, at + FSize - 2, Text(markers[FRandom() % markers.size()], FRandom));
      }
      case 8: {
        const std::size_t zeros = Chance(2) ? FRandom() % 40 : 2;
        return Put(image, at + FSize - zeros, std::string(zeros, '\0'));
      }
      default:
        return Put(image, Chance(2) ? at + 128 * (FRandom() % (FSize / 128)) : anywhere,
                   DirectoryEntry(Chance(2) ? u"Workbook" : u"PowerPoint Document"));
    }
  }

  std::mt19937 FRandom;
  std::size_t FSize;
  TFileSignatures FTable;
};

std::string ReferenceRows(const TImage& image, int sectorSize) {
  TDeepReference reference(sectorSize);
  reference.Drive(image);
  return reference.Rows;
}

}  // namespace

TEST_CASE("signatures: order, flags and what each extension may look like") {
  const TFileSignatures table;
  REQUIRE(table.Signatures().size() == 79);
  CHECK(std::is_sorted(table.Signatures().begin(), table.Signatures().end(),
                       [](const auto& a, const auto& b) { return a.Ext < b.Ext; }));
  CHECK(std::count_if(table.Signatures().begin(), table.Signatures().end(),
                      [](const auto& row) { return row.CanStartFile; }) == 42);
  CHECK(table.MasterFileTypes().size() == 154);
  CHECK(table.MasterFileTypeGroups().size() == 7);
  CHECK(table.DeepFileTypes().size() == 41);
  CHECK(table.DeepFileTypeGroups().size() == 6);

  // The last row that fits names the content.
  CHECK(table.GetFileExtBySignature(Bytes("\xFF\xD8\xFF\xE0")) == u".jpg");
  CHECK(table.GetFileExtBySignature(Bytes("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1")) == u".xlw");
  CHECK(table.GetFileExtBySignature(Bytes(std::string_view("MZ\x91\0\3\0\0\0\4\0\0\0\xFF\xFF\0\0", 16))) == u".vxd");
  CHECK(table.GetFileExtBySignature(Bytes("PK\3\4")) == u".zip");
  CHECK(table.GetFileExtBySignature(Bytes("PK\3")) == u"");  // shorter than the header
  CHECK(table.GetFileExtBySignature(Bytes("nothing")) == u"");
  // Real files of types whose rows fit none, and what the rows ask for.
  const std::string_view database("\0\1\0\0Standard Jet DB", 19);
  CHECK(table.GetFileExtBySignature(Bytes(database)) == u".mdb");
  CHECK(table.GetFileExtBySignature(Bytes("RIFF....RMIDdata")) == u".rmi");
  CHECK(table.GetFileExtBySignature(Bytes("IFFF....RMIDdata")) == u".rmi");

  bool found = false;
  bool same = false;
  table.CheckSignatureByFileExt(u".mp3", Bytes("xID3"), 1, found, same);
  CHECK((found && same));
  table.CheckSignatureByFileExt(u".mp3", Bytes("data"), 0, found, same);
  CHECK((found && !same));
  table.CheckSignatureByFileExt(u".xyz", Bytes("data"), 0, found, same);
  CHECK((!found && !same));
  table.CheckSignatureByFileExt(u".png", Bytes("\x89PNG"), 0, found, same);
  CHECK((!found && !same));
  table.CheckSignatureByFileExt(u".mdb", Bytes(database), 0, found, same);
  CHECK((found && same));
}

TEST_CASE("icons: the directory gives the size, or the icon is none") {
  const auto icon = [](std::uint64_t secondPlace, std::uint64_t planes) {
    return std::string("\0\0\1\0\2\0", 6) + Le(0x1010, 4) + Le(planes, 2) + Le(32, 2) + Le(100, 4) + Le(38, 4) +
           Le(0x2020, 4) + Le(1, 2) + Le(32, 2) + Le(7, 4) + Le(secondPlace, 4);
  };
  CHECK(GetIconSize(Bytes(icon(138, 1))) == 145);
  CHECK(GetIconSize(Bytes(icon(139, 1))) == 0);
  CHECK(GetIconSize(Bytes(icon(138, 2))) == 0);
  CHECK(GetIconSize(Bytes(icon(139, 1).substr(0, 30))) == 138);  // the second entry is not at hand
  CHECK(GetIconSize(Bytes(icon(138, 1).substr(0, 11))) == 0);
}

TEST_CASE("deep analysis: what the engine finds is what the rules find, sector by sector") {
  std::size_t kinds = 0;
  for (const unsigned seed : {1U, 2U, 3U, 4U, 5U, 6U}) {
    const int sectorSize = seed % 3 == 0 ? 4096 : 512;
    const TImage image = TStream(seed, static_cast<std::size_t>(sectorSize)).Make(sectorSize == 512 ? 12000 : 3000);
    const std::string expected = ReferenceRows(image, sectorSize);
    TDeep deep(image, sectorSize);
    REQUIRE(DriveOf(deep.Engine, 0).BytesPerSector == sectorSize);
    deep.Scan();
    CAPTURE(seed);
    CHECK(deep.Rows() == expected);
    std::set<std::string> extensions;
    for (std::size_t at = 0; (at = expected.find('.', at)) != std::string::npos; ++at) {
      extensions.insert(expected.substr(at, expected.find(' ', at) - at));
    }
    kinds = std::max(kinds, extensions.size());
  }
  CHECK(kinds >= 38);  // the streams do reach the types
}

TEST_CASE("deep analysis: names, folders by type, and what a filter lets through") {
  TImage image = Plain(300);
  for (std::size_t i = 1; i <= 11; ++i) Put(image, i * 512, {"BM\1\1\1\0\0\0\0\0\1\1\0\0(\0", 16});
  Put(image, 20 * 512, "FWS");
  Put(image, 22 * 512, {"II*\0", 4});
  TDeep deep(image);
  deep.Scan();
  const std::string rows = deep.Rows();
  CHECK(std::count(rows.begin(), rows.end(), '\n') == 13);
  for (const char* row : {"File 00001.bmp 1+512\n", "File 00009.bmp 9+512\n", "File 00010.bmp 10+512\n",
                          "File 00011.bmp 11+4608\n", "File 00001.swf 20+1024\n"}) {
    CAPTURE(row);
    CHECK(rows.find(row) != std::string::npos);
  }
  const std::string walk = WalkText(deep.Engine, 0);
  CHECK(walk.find("Deep analysis/Windows OS/2 Bitmap Graphics (.bmp)/File 00010.bmp") != std::string::npos);
  CHECK(walk.find("Deep analysis/SWF file (.swf)/File 00001.swf") != std::string::npos);
  CHECK(DriveOf(deep.Engine, 0).DeepAnalysed == TAnalyseInformation::aiFull);
  CHECK_FALSE(deep.Engine.Analysing);

  // A second scan throws the first one's rows away.
  deep.Engine.AllFS().OnCanFileBeAdded = [](TStringView extension) { return extension == u".swf"; };
  deep.Scan();
  CHECK(deep.Rows() == "File 00001.swf 20+1024\n");
  CHECK(deep.Engine.Files().FoundCount == 2);  // with its folder
}

TEST_CASE("deep analysis: the first sector, the last ones, and sizes beyond bounds") {
  TImage image = Plain(300);
  Put(image, 0, "GIF89a");  // cannot be tracked
  Put(image, 298 * 512, "RIFF1234xAVEfmt ");
  TDeep deep(image);
  deep.Scan();
  // It ends with the drive.
  REQUIRE(deep.Rows() == "File 00001.wav 298+1024\n");
  const TByteDynArray bytes = deep.Content("File 00001.wav", 0, 4096);
  REQUIRE(bytes.size() == 1024);
  CHECK(bytes[1023] == 0x20);
  CHECK(deep.Content("File 00001.wav", 1024, 1).empty());
  CHECK(deep.Content("File 00001.wav", 1020, 8) == TByteDynArray(4, 0x20));

  TFileFragments fragments;
  TFile& file = deep.Engine.Files().List[deep.Engine.Files().List.size() - 2];
  file.FileInfo.aSize = 1000;
  GetFileFragments(deep.Engine, file, fragments);
  REQUIRE(fragments.size() == 1);
  CHECK((fragments[0].FirstSectorInDrive == 298 && fragments[0].SectorCount == 2));
  CHECK(deep.Engine.Files().GetSizeOnDisk(file) == 1024);

  // Two far sectors of a huge drive: one file of more than 2 GiB, cut there.
  TAllFS& scan = deep.Engine.AllFS();
  deep.Engine.Files().ClearDeep(0);
  deep.Engine.Analysing = true;
  DriveOf(deep.Engine, 0).SectorsCount = std::int64_t{1} << 24;
  REQUIRE(scan.DoBeforeDeepAnalyse(0));
  TImage sector = Plain(1);
  Put(sector, 0, "8BPS");
  scan.DeepAnalyseSystem(sector, 0, 7);
  scan.DeepAnalyseSystem(sector, 0, 7 + (std::int64_t{1} << 23));
  scan.DoAfterDeepAnalyse(0, 8 + (std::int64_t{1} << 23));
  CHECK(deep.Rows() == "File 00001.psd 7+2147483648\nFile 00002.psd 8388615+1024\n");
  CHECK_FALSE(scan.DoBeforeDeepAnalyse(7));
}

TEST_CASE("deep analysis: frames of a sound file are no files, small sound files are dropped") {
  TImage image = Plain(5000);
  Put(image, 10 * 512, "ID3");
  Put(image, 100 * 512, "\xFF\xFB");
  Put(image, 2100 * 512 - 2, {"\0\0\xFF\xFB", 4});  // behind the end of the first
  Put(image, 2200 * 512 - 2, {"\0\0\xFF\xFB", 4});
  Put(image, 4300 * 512, "8BPS");
  TDeep deep(image);
  deep.Scan();
  CHECK(deep.Rows().starts_with("File 00001.mp3 10+1070080\nFile 00002.mp3 2200+1075200\nFile 00001.psd 4300+"));
}

TEST_CASE("deep analysis: a stop keeps what was found, but for the open file") {
  TImage image = Plain(2000);
  Put(image, 5 * 512, "8BPS");
  Put(image, 9 * 512, "MSCF");
  Put(image, 1500 * 512, "8BPS");
  TDeep deep(image);
  deep.Source.Device->OnRead = [&] {
    if (deep.Source.Device->Accesses > 0 && !deep.Rows().empty()) deep.Engine.Analysing = false;
  };
  deep.Scan();
  CHECK(deep.Rows() == "File 00001.psd 5+2048\n");
  CHECK(DriveOf(deep.Engine, 0).DeepAnalysed == TAnalyseInformation::aiPartial);
}

TEST_CASE("deep analysis: bad sectors cost themselves, not their block") {
  TImage image = Plain(1024);
  Put(image, 10 * 512, "8BPS");
  Put(image, 130 * 512, "MSCF");
  Put(image, 400 * 512, "8BPS");
  TDeep deep(image);
  deep.Source.Device->BadSectors = {20, 21};
  deep.Scan();
  CHECK(deep.Rows() == "File 00001.psd 10+61440\nFile 00001.cab 130+138240\nFile 00002.psd 400+319488\n");
  const std::uint64_t failed = deep.Engine.Reader().FailedReads();
  const TByteDynArray bytes = deep.Content("File 00001.psd", 0, 61440);
  REQUIRE(bytes.size() == 61440);
  CHECK(deep.Engine.Reader().FailedReads() > failed);  // the recovery tells of it
  CHECK(bytes[10 * 512 - 1] == 0x20);
  CHECK(std::all_of(bytes.begin() + 10 * 512, bytes.begin() + 12 * 512, [](std::uint8_t b) { return b == 0; }));
  CHECK(bytes[12 * 512] == 0x20);
}

TEST_CASE("deep analysis beside a file system: two listings that do not mix") {
  TEngine engine;
  const TMounted stick = Mount(engine, LoadTestImage("demo-stick.img.zst"));
  AnalyseDrive(engine, stick.Number);
  const std::string before = WalkText(engine, stick.Number);
  REQUIRE(before.find("beach 3.png") != std::string::npos);
  DeepAnalyseDrive(engine, stick.Number);
  const std::string after = WalkText(engine, stick.Number);
  CHECK(after.find("Deep analysis/Portable Network Graphic (.png)/File 00001.png") != std::string::npos);
  engine.Files().ClearDeep(stick.Number);
  std::string cleared = WalkText(engine, stick.Number);
  const std::size_t line = cleared.find("Deep analysis");
  cleared.erase(line, cleared.find('\n', line) + 1 - line);
  CHECK(cleared == before);
  AnalyseDrive(engine, stick.Number);
  CHECK(WalkText(engine, stick.Number) == before);
}

TEST_CASE("deep analysis within a partition search: no folder of its own, no look at earlier rows") {
  TDeep deep(Plain(300));
  deep.Engine.PartRecRunning = deep.Engine.Analysing = true;
  REQUIRE(deep.Engine.AllFS().DoBeforeDeepAnalyse(0));
  CHECK(deep.Engine.Files().List.empty());
  TImage sector = Plain(1);
  Put(sector, 0, "8BPS");
  for (const std::int64_t number : {4, 6, 8}) deep.Engine.AllFS().DeepAnalyseSystem(sector, 0, number);
  CHECK(deep.Rows() == "File 00001.psd 4+1024\nFile 00002.psd 6+1024\n");
}

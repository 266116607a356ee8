// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs.h"

#include <doctest/doctest.h>

#include <cstring>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/lznt1.h"
#include "fs/driver_contract.h"
#include "fs/ntfs/ntfs_log.h"
#include "fs/ntfs/ntfs_record.h"
#include "support/truth.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;
using namespace brenlow::ntfs;

namespace {

void Put(TImage& image, std::size_t at, std::size_t size, std::uint64_t value) {
  for (std::size_t i = 0; i < size; ++i) image[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

/// A record with one non-resident attribute at 0x38, whose run list stands at 0x80.
TImage RecordWithRuns(const std::vector<std::uint8_t>& runs, std::int64_t lastVcn) {
  TImage record(1024);
  std::memcpy(record.data(), "FILE", 4);
  Put(record, 0x14, 2, 0x38);
  Put(record, 0x38, 4, AttrData);
  Put(record, 0x3C, 4, 0x100);
  record[0x38 + 8] = 1;
  Put(record, 0x38 + 0x18, 8, static_cast<std::uint64_t>(lastVcn));
  Put(record, 0x38 + 0x20, 2, 0x48);
  std::copy(runs.begin(), runs.end(), record.begin() + 0x80);
  return record;
}

std::string RunsText(const std::vector<std::uint8_t>& runs, std::int64_t lastVcn, std::int64_t volume = 1'000'000) {
  const TImage record = RecordWithRuns(runs, lastVcn);
  std::string text;
  for (const TRun& run : TAttribute(record, 0x38).Runs(volume)) {
    text += std::to_string(run.Vcn) + ":" + std::to_string(run.Lcn) + "+" + std::to_string(run.Count) + " ";
  }
  return text;
}

/// A file record in the folder `parent`, with resident content at byte 0xE8 (for names of 9 to 12
/// characters).
TImage FileRecord(std::int64_t parent, const std::u16string& name, const std::string& content) {
  TImage record(1024);
  std::memcpy(record.data(), "FILE", 4);
  Put(record, 0x14, 2, 0x38);
  Put(record, 0x16, 2, 1);
  const std::size_t nameValue = 0x38 + 0x18;
  Put(record, 0x38, 4, AttrFileName);
  Put(record, 0x3C, 4, 0x98);
  Put(record, 0x38 + 0x10, 4, 0x42 + 2 * name.size());
  Put(record, 0x38 + 0x14, 2, 0x18);
  Put(record, nameValue, 6, static_cast<std::uint64_t>(parent));
  record[nameValue + 0x40] = static_cast<std::uint8_t>(name.size());
  record[nameValue + 0x41] = 1;
  for (std::size_t i = 0; i < name.size(); ++i) Put(record, nameValue + 0x42 + 2 * i, 2, name[i]);
  const std::size_t data = 0x38 + 0x98;
  Put(record, data, 4, AttrData);
  Put(record, data + 4, 4, 0x100);
  Put(record, data + 0x10, 4, content.size());
  Put(record, data + 0x14, 2, 0x18);
  std::copy(content.begin(), content.end(), record.begin() + static_cast<std::ptrdiff_t>(data + 0x18));
  Put(record, data + 0x100, 4, AttrEnd);
  return record;
}

struct TLogged {
  std::uint64_t Lsn;
  std::uint32_t Operations;  // as the four bytes stand there, big-endian
  std::uint32_t Vcn;
  std::uint16_t RecordOffset;
  std::uint16_t AttributeOffset;
  TImage Redo;
};

/// The bytes of one log record.
TImage LogRecord(const TLogged& logged) {
  TImage bytes((0x58 + logged.Redo.size() + 7) / 8 * 8);
  Put(bytes, 0, 8, logged.Lsn);
  Put(bytes, 8, 8, 77);
  Put(bytes, 0x10, 8, 77);
  Put(bytes, 0x18, 4, 0x28 + logged.Redo.size());
  Put(bytes, 0x20, 4, 1);
  for (std::size_t i = 0; i < 4; ++i) bytes[0x30 + i] = static_cast<std::uint8_t>(logged.Operations >> (24 - 8 * i));
  Put(bytes, 0x34, 2, 0x28);
  Put(bytes, 0x36, 2, logged.Redo.size());
  Put(bytes, 0x40, 2, logged.RecordOffset);
  Put(bytes, 0x42, 2, logged.AttributeOffset);
  Put(bytes, 0x48, 4, logged.Vcn);
  Put(bytes, 0x50, 4, 9);
  std::copy(logged.Redo.begin(), logged.Redo.end(), bytes.begin() + 0x58);
  return bytes;
}

/// A log of pages of 4 KiB: a restart page, and from page 4 on the records, which go on behind the
/// header of the next page.
TImage Log(const std::vector<TLogged>& records) {
  TImage log(16 * 4096);
  std::memcpy(log.data(), "RSTR", 4);
  Put(log, 0x14, 4, 4096);
  Put(log, 0x18, 2, 0x30);
  Put(log, 0x30 + 0x18, 8, log.size());
  Put(log, 0x30 + 0x26, 2, 0x40);
  std::size_t at = 4 * 4096 + 0x40;
  for (std::size_t page = 4; page < 16; ++page) std::memcpy(&log[page * 4096], "RCRD", 4);
  for (const TLogged& logged : records) {
    for (const std::uint8_t byte : LogRecord(logged)) {
      if (at % 4096 == 0) at += 0x40;
      log[at++] = byte;
    }
  }
  return log;
}

TImage Bytes(const std::string& text) { return {text.begin(), text.end()}; }

TDriverSpecimen Specimen() { return {LoadTestImage("lab-ntfs.img.zst"), TFileSystem::fsNTFS}; }

struct TAnalysed {
  TEngine Engine;
  int Number;
  explicit TAnalysed(TImage image) : Number(Mount(Engine, std::move(image)).Number) { AnalyseDrive(Engine, Number); }
  TFile& File(TStringView name) {
    TFileArray& list = Engine.Files().List;
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (list[i].FileInfo.strName == name) return list[i];
    }
    FAIL("no such file: ", ToUtf8(name));
    return list[0];
  }
};

}  // namespace

TEST_CASE("NTFS keeps the driver contract") { CheckDriverContract(Specimen()); }

TEST_CASE("an NTFS volume gives back every live file and every deleted one with a record") {
  const auto truth = LoadTruth("lab-ntfs.truth.tsv");
  const std::string walk = Walk(Specimen().Volume);
  CHECK(CountFound(truth, walk, true) == Count(truth, true));
  CHECK(CountFound(truth, walk, false) == Count(truth, false));
}

TEST_CASE("NTFS: damage this range, expect so much") {
  const auto truth = LoadTruth("lab-ntfs.truth.tsv");
  const int live = Count(truth, true);
  TImage image = Specimen().Volume;
  const std::size_t table = std::size_t{4} * 4096;  // mkntfs puts $MFT into cluster 4
  REQUIRE(std::memcmp(&image[table], "FILE", 4) == 0);
  SUBCASE("boot sector: the copy in the last sector serves") {
    std::fill_n(image.begin(), 512, std::uint8_t{0});
    CHECK(CountFound(truth, Walk(image), true) == live);
  }
  SUBCASE("start of the table: its mirror serves") {
    std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(table), 4 * 1024, std::uint8_t{0});
    CHECK(CountFound(truth, Walk(image), true) == live);
  }
  SUBCASE("both: still") {
    std::fill_n(image.begin(), 512, std::uint8_t{0});
    std::fill_n(image.begin() + static_cast<std::ptrdiff_t>(table), 4 * 1024, std::uint8_t{0});
    CHECK(CountFound(truth, Walk(image), true) == live);
  }
  SUBCASE("one bad sector in the table costs the record that it holds") {
    TEngine engine;
    auto device = std::make_unique<TMemoryDevice>(image);
    device->BadSectors.insert(static_cast<std::int64_t>(table / 512) + 2 * 70);
    engine.Devices().Insert(u"/bad.img", std::move(device));
    const int number = engine.Drives().Mount(u"/bad.img", false);
    AnalyseDrive(engine, number);
    CHECK(CountFound(truth, WalkText(engine, number), true) >= live - 2);
  }
}

TEST_CASE("NTFS: volume facts and the folder of system files") {
  TAnalysed t(Specimen().Volume);
  const TDriveInfo& drive = DriveOf(t.Engine, t.Number);
  CHECK(drive.VolumeName == u"LAB5");
  CHECK(NTFSInfo(drive).SectorsPerCluster == 8);
  CHECK(NTFSInfo(drive).MFTRecordSize == 1024);
  CHECK((drive.aFreeSize > 0 && drive.aFreeSize < 6 << 20));
  CHECK(t.File(u"$MFT").ParentCluster == SpecialCluster::NTFSSystemData);
  CHECK(t.File(u"$System data").ParentCluster == SpecialCluster::Root);
  for (std::size_t i = 0; i < t.Engine.Files().List.size(); ++i) {
    const TFile& file = t.Engine.Files().List[i];
    CHECK(file.FileInfo.FirstCluster != RootRecord);
    CHECK(file.ParentCluster != RootRecord);
  }
}

TEST_CASE("NTFS: streams, holes and compression") {
  TAnalysed t(Specimen().Volume);
  TFile& streams = t.File(u"big stream.txt");
  TADSDynArray list;
  FillADS(t.Engine, streams, list);
  std::vector<TString> named;
  for (std::size_t i = 0; i < list.size(); ++i) {
    CHECK_FALSE(list[i].sType.empty());
    if (list[i].IsSystem) continue;
    named.push_back(list[i].Name);
    TByteDynArray data;
    GetFileData(t.Engine, data, streams, static_cast<int>(i), 0, 1 << 20);
    CHECK(static_cast<std::int64_t>(data.size()) == list[i].aSize);
  }
  CHECK(named == std::vector<TString>{u"note0"});
  // Reading a compressed file in pieces, forwards and back, is reading it whole.
  TFile* compressed = nullptr;
  for (std::size_t i = 0; i < t.Engine.Files().List.size(); ++i) {
    TFile& file = t.Engine.Files().List[i];
    const bool fits =
        bool{file.FileInfo.Atributes.blnCompressed} && !file.FileInfo.blnFolder && !file.FileInfo.blnDeleted;
    if (fits && (compressed == nullptr || file.FileInfo.aSize > compressed->FileInfo.aSize)) compressed = &file;
  }
  REQUIRE(compressed != nullptr);
  TByteDynArray whole, piece;
  GetFileData(t.Engine, whole, *compressed, -1, 0, compressed->FileInfo.aSize);
  CHECK(static_cast<std::int64_t>(whole.size()) == compressed->FileInfo.aSize);
  for (const std::int64_t start : {0, 1, 5000, 70'000, 4096, 131'072, 65'536, 100}) {
    if (start >= compressed->FileInfo.aSize) continue;
    GetFileData(t.Engine, piece, *compressed, -1, start, 3000);
    CHECK(piece ==
          TByteDynArray(whole.begin() + start,
                        whole.begin() + std::min<std::int64_t>(start + 3000, static_cast<std::int64_t>(whole.size()))));
  }
  CHECK(t.Engine.Files().GetSizeOnDisk(*compressed) < compressed->FileInfo.aSize);
}

TEST_CASE("NTFS: a resident file has one fragment and takes no clusters") {
  TAnalysed t(Specimen().Volume);
  int residents = 0;
  for (std::size_t i = 0; i < t.Engine.Files().List.size(); ++i) {
    const TFile& file = t.Engine.Files().List[i];
    TFileFragments fragments;
    bool resident = false;
    t.Engine.NTFS().GetFileFragments(file, fragments, resident, -1);
    if (file.FileInfo.blnFolder || file.FileInfo.aSize == 0 || !resident || fragments.size() != 1) continue;
    ++residents;
    CHECK(fragments[0].SectorCount == 1);
    CHECK(t.Engine.Files().GetSizeOnDisk(file) == 0);
    t.Engine.NTFS().GetFileFragments(file, fragments, resident, 0);  // $STANDARD_INFORMATION is no stream
    CHECK(fragments.empty());
  }
  CHECK(residents > 0);
}

TEST_CASE("NTFS: run lists") {
  CHECK(RunsText({0x21, 0x10, 0x00, 0x02, 0x11, 0x08, 0xF0, 0x00}, 23) == "0:512+16 16:496+8 ");  // a negative step
  CHECK(RunsText({0x21, 0x10, 0x00, 0x02, 0x01, 0x20, 0x11, 0x08, 0x20, 0}, 100) == "0:512+16 16:-1+32 48:544+8 ");
  CHECK(RunsText({0x11, 0x04, 0x10, 0x11, 0x04, 0x04, 0}, 7) == "0:16+8 ");  // adjacent ones are one
  CHECK(RunsText({0x21, 0x10, 0x00, 0x02, 0}, 3) == "0:512+4 ");             // no more than the attribute has
  CHECK(RunsText({0x11, 0x00, 0x10, 0x11, 0x04, 0x10, 0}, 3) == "0:32+4 ");  // a length of zero adds nothing
  CHECK(RunsText({0x11, 0x81, 0x10, 0}, 300) == "");                         // a negative length
  CHECK(RunsText({0x14, 0x00, 0x00, 0x00, 0x40, 0x10, 0}, INT64_MAX - 1) ==
        "");  // longer than the volume, and than sense
  CHECK(RunsText({0x14, 0x00, 0x00, 0x00, 0x40, 0x10, 0}, INT64_MAX - 1, std::int64_t{1} << 40) == "0:16+1073741824 ");
  CHECK(RunsText({}, -1) == "");
  CHECK(RunsText(std::vector<std::uint8_t>(1024 - 0x80, 0x11), 1 << 20).starts_with("0:17+"));  // ends with the record
}

TEST_CASE("NTFS: fix-ups and attribute lists are bounded") {
  TImage record(1024, 0xAA);
  Put(record, 4, 2, 0x30);
  Put(record, 6, 2, 3);
  Put(record, 0x30, 2, 0x1234);
  Put(record, 0x32, 2, 0xBEEF);
  Put(record, 510, 2, 0x1234);  // the second block does not match and stays
  ApplyFixups(record);
  CHECK((record[510] == 0xEF && record[511] == 0xBE && record[1022] == 0xAA));
  Put(record, 4, 2, 0xFFFF);
  Put(record, 6, 2, 0xFFFF);
  ApplyFixups(record);
  ApplyFixups(std::span(record).first(5));

  TImage list(0x20 * 400);
  for (std::size_t i = 0; i < 400; ++i) {
    Put(list, i * 0x20 + 4, 2, 0x20);
    Put(list, i * 0x20 + 0x10, 6, 1000 + i);
  }
  TInt64DynArray records{1000};
  AddListedRecords(list, records);
  CHECK(records.size() == 400);
  Put(list, 4, 2, 0);  // no step: the first entry only
  records.clear();
  AddListedRecords(list, records);
  CHECK(records == TInt64DynArray{1000});
}

TEST_CASE("NTFS: files that only the log knows") {
  constexpr std::size_t content = 0x38 + 0x98;  // offset of the data attribute
  constexpr std::uint32_t initialise = 0x02000000, updateResident = 0x07000700;
  TImage image = Specimen().Volume;
  std::int64_t logSector = 0;
  std::int64_t live = 0;  // the size of a live file in the root
  {
    TAnalysed before(image);
    TFileFragments fragments;
    GetFileFragments(before.Engine, before.File(u"$LogFile"), fragments);
    REQUIRE(!fragments.empty());
    logSector = fragments[0].FirstSectorInDrive;
    live = before.File(u"README.TXT").FileInfo.aSize;
  }
  TImage knownFile = FileRecord(5, u"README.TXT", "");
  Put(knownFile, content + 0x10, 4, static_cast<std::uint64_t>(live));
  const TImage log = Log({
      {100, initialise, 7, 0, 0, FileRecord(5, u"log-1.txt", "the first one")},
      {101, initialise, 8, 0, 0, FileRecord(5, u"log-2.txt", "as it was logged")},
      {102, updateResident, 8, content, 0x18, Bytes("AS IT")},
      {99, updateResident, 8, content, 0x18, Bytes("older")},   // before the image: not applied
      {103, updateResident, 6, content, 0x18, Bytes("other")},  // another place
      {104, updateResident, 8, content, 0x18 + 6, Bytes("IS")},
      {105, initialise, 8, 0, 0, FileRecord(5, u"log-3.txt", "later in the same place")},
      {106, updateResident, 8, content, 0x18, Bytes("LATER")},
      {107, initialise, 9, 0, 0, knownFile},
      {108, initialise, 10, 0, 0, FileRecord(5, u"README.TXT", "")},  // when it was made: nothing in it
      {109, initialise, 11, 0, 0, FileRecord(5, u"README.TXT", "as it was once")},
  });
  std::copy(log.begin(), log.end(), image.begin() + logSector * 512);
  TAnalysed t(image);
  const auto text = [&](TStringView name) {
    TFile& file = t.File(name);
    CHECK(bool{file.FileInfo.blnDeleted});
    CHECK(file.ParentCluster == SpecialCluster::Root);
    TByteDynArray data;
    GetFileData(t.Engine, data, file, -1, 0, 100);
    return std::string(data.begin(), data.end());
  };
  CHECK(text(u"log-1.txt").empty());  // its position means "none"
  CHECK(text(u"log-2.txt") == "AS IT ISs logged");
  CHECK(text(u"log-3.txt") == "LATER in the same place");
  int readmes = 0;
  for (std::size_t i = 0; i < t.Engine.Files().List.size(); ++i) {
    readmes += t.Engine.Files().List[i].FileInfo.strName == u"README.TXT" ? 1 : 0;
  }
  CHECK(readmes == 2);  // the live one, which has the same size as one state, and the state with other content
}

TEST_CASE("NTFS: log records are taken only when everything about them fits") {
  const TNTFSLogInfo info;
  TNTFSLogRecord record;
  const TLogged good{5, 0x0B000B00, 3, 0x50, 0, TImage(0x18, 1)};
  const TImage log = Log({good});
  const std::size_t at = 4 * 4096 + 0x40;
  REQUIRE((ParseLogRecord(log, at, 0, info, 1024, record) == TLogParse::Record));
  CHECK(record.Size == 0x70);
  CHECK(record.RedoOperation == 0x0B);
  CHECK(record.RedoData.size() == 0x18);
  struct TSpoil {
    std::size_t Offset, Size;
    std::uint64_t Value;
  };
  for (const TSpoil& spoil : {TSpoil{0, 8, 0},
                              {8, 8, 0},
                              {8, 8, 78},
                              {0x18, 4, 1025 + 0x28},
                              {0x20, 4, 2},
                              {0x2A, 1, 1},
                              {0x30, 2, 3},
                              {0x34, 2, 0x20},
                              {0x36, 2, 0x19},
                              {0x48, 4, 0},
                              {0x4C, 4, 1},
                              {0x50, 4, 0},
                              {0x54, 4, 1}}) {
    TImage spoiled = log;
    Put(spoiled, at + spoil.Offset, spoil.Size, spoil.Value);
    CAPTURE(spoil.Offset);
    CHECK((ParseLogRecord(spoiled, at, 0, info, 1024, record) == TLogParse::Nothing));
  }
  // At the end of the pages there may be more of it.
  CHECK((ParseLogRecord(std::span(log).first(at + 0x60), at, 0, info, 1024, record) == TLogParse::NeedsMore));

  TNTFSLogContent content;
  content.Images.resize(3);
  for (std::size_t i = 0; i < 3; ++i) content.Images[i].Record.Position = static_cast<std::int64_t>(i) * 100;
  content.Images[1].Record.TargetVCN = 4;
  LinkLogImages(content.Images);
  CHECK(content.Images[0].EndPosition == 200);
  CHECK(content.Images[1].EndPosition == -1);
  CHECK(content.Images[2].EndPosition == 0);  // round the ring
}

TEST_CASE("NTFS: what a quick format leaves of the old table comes back as deleted") {
  const auto truth = LoadTruth("lab-ntfs.truth.tsv");
  TImage image = Specimen().Volume;
  const std::size_t table = std::size_t{4} * 4096;
  // The table's own record says that it has 32 records.
  TImage record(image.begin() + table, image.begin() + table + 1024);
  ApplyFixups(record);
  for (TAttributeWalk walk(record); walk.Next();) {
    if (walk->Type() != AttrData) continue;
    const std::size_t at = table + walk->At();
    Put(image, at + 0x18, 8, 7);
    Put(image, at + image[at + 0x20], 4, 0x00040811);  // one run: 8 clusters from cluster 4 on
  }
  const std::string walk = Walk(image);
  int back = 0;
  for (const TTruthLine& line : truth) {
    const std::string crc = line.Text.substr(line.Text.rfind(' '));
    if (line.Live) back += walk.find(crc) != std::string::npos ? 1 : 0;
  }
  CHECK(back >= Count(truth, true) * 9 / 10);
  CHECK(walk.find("deleted") != std::string::npos);
}

TEST_CASE("NTFS: a partition search numbers the records that it meets") {
  TEngine engine;
  TImage disk(20000 * 512);
  const auto put = [&](std::int64_t sector, const TImage& record) {
    std::copy(record.begin(), record.end(), disk.begin() + sector * 512);
  };
  put(1000, FileRecord(5, u"$MFT", ""));
  put(1060, FileRecord(30, u"near.txt", "near"));     // record 30, by its distance
  put(9000, FileRecord(30, u"far.txt", "far away"));  // too far for that: waits for the end
  const int number = Mount(engine, disk).Number;
  engine.PartRecRunning = engine.Analysing = true;
  engine.Drives().PartRecInfo.MainDrive = number;
  const int sub = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsNTFS);
  for (const std::int64_t sector : {1000, 1001, 1060, 9000}) {
    engine.NTFS().PartRecAnalyseSector(std::span(disk).subspan(static_cast<std::size_t>(sector) * 512, 1024), 0, sub,
                                       sector, true);
  }
  TFiles& files = engine.Files();
  REQUIRE(files.List.size() == 3);  // with the folder of system files
  CHECK(files.FoundCount == 3);
  const TFileInfo& near = files.List[2].FileInfo;
  CHECK(near.FirstCluster == 30);
  CHECK((near.FirstClusterInfo == TFirstClusterInfo::fciUnknown));
  engine.NTFS().PartRecDoAfterAnalyse(number);
  REQUIRE(files.List.size() == 4);
  CHECK(files.List[3].FileInfo.FirstCluster == (9000 - 1000) / 2);
  CHECK(files.FoundCount == 3);
  TByteDynArray data;
  GetFileData(engine, data, files.List[3], -1, 0, 100);
  CHECK(std::string(data.begin(), data.end()) == "far away");

  // A folder known by an estimate gives way to the same folder known for certain.
  TFileInfo folder;
  TFiles::ClearInfo(folder, sub);
  folder.strName = u"twice";
  folder.FirstCluster = 40;
  files.Add(folder, 77, true);
  folder.FirstCluster = 41;
  folder.FirstClusterInfo = TFirstClusterInfo::fciUnknown;
  files.Add(folder, 77, true);
  engine.NTFS().DoAfterAnalyse(DriveOf(engine, sub));
  CHECK(engine.Drives().GetParentClusters(sub, 77) == TInt64DynArray{4});
}

TEST_CASE("NTFS: a record where a found boot sector expects it confirms the volume") {
  const TImage volume = Specimen().Volume;
  constexpr std::int64_t start = 777;
  TImage disk(volume.size() + 2000 * 512);
  std::copy(volume.begin(), volume.end(), disk.begin() + start * 512);
  TEngine engine;
  const int number = Mount(engine, disk).Number;
  engine.PartRecRunning = engine.Analysing = true;
  TDriveInfo found = DriveOf(engine, number);
  found.FirstSector = start;
  found.SectorsCount = 0;
  REQUIRE(engine.NTFS().GetDriveInfo(found, false, true));
  found.FileSystem = TFileSystem::fsNTFS;
  TDriveInfo elsewhere = found;
  elsewhere.FirstSector = start + 1;
  engine.Drives().PartRecInfo.MainDrive = number;
  engine.Drives().PartRecInfo.FoundDrives = {elsewhere, found};
  const int sub = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsNTFS);
  const int candidate = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsNTFS);
  const std::int64_t sector = start + 4 * 8;  // record 0
  engine.NTFS().PartRecAnalyseSector(std::span(disk).subspan(static_cast<std::size_t>(sector) * 512, 1024), 0, sub,
                                     sector, true);
  CHECK_FALSE(DriveOf(engine, candidate).CanBeAnalysed);  // no other volume's records are to go there
  CHECK(DriveOf(engine, sub).FirstSector == start);
  CHECK(engine.Drives().PartRecInfo.FoundDrives.size() == 1);
  const auto truth = LoadTruth("lab-ntfs.truth.tsv");
  CHECK(CountFound(truth, WalkText(engine, sub), true) == Count(truth, true));
  engine.NTFS().DoAfterAnalyse(DriveOf(engine, sub));
  CHECK(DriveOf(engine, sub).VolumeName == u"LAB5");
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs.h"

#include <doctest/doctest.h>

#include <cstring>

#include "analysis/analysis.h"
#include "analysis/files.h"
#include "core/lznt1.h"
#include "fs/driver_contract.h"
#include "fs/ntfs/ntfs_record.h"
#include "support/truth.h"

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
  CHECK(drive.NTFSInfo.SectorsPerCluster == 8);
  CHECK(drive.NTFSInfo.MFTRecordSize == 1024);
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
  CHECK(records.size() == 257);
  Put(list, 4, 2, 0);  // no step: the first entry only
  records.clear();
  AddListedRecords(list, records);
  CHECK(records == TInt64DynArray{1000});
}

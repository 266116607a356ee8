// SPDX-License-Identifier: GPL-3.0-or-later
#include "driver_contract.h"

#include <doctest/doctest.h>

#include <random>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/sector_reader.h"
#include "table/files.h"

namespace brenlow::test {
namespace {

/// The largest live file of the drive.
TFile* LargestFile(TEngine& engine) {
  TFile* largest = nullptr;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    TFile& file = engine.Files().List[i];
    if (file.FileInfo.blnFolder || file.FileInfo.blnDeleted) continue;
    if (largest == nullptr || file.FileInfo.aSize > largest->FileInfo.aSize) largest = &file;
  }
  return largest;
}

void CheckAnalysis(const TDriverSpecimen& specimen) {
  TEngine engine;
  const int number = Mount(engine, specimen.Volume).Number;
  REQUIRE(DriveOf(engine, number).FileSystem == specimen.FileSystem);
  CHECK(DriveOf(engine, number).Analysed == TAnalyseInformation::aiNone);
  std::vector<double> positions;
  engine.OnAnalyseProgress = [&](double p) { positions.push_back(p); };
  AnalyseDrive(engine, number);
  CHECK(DriveOf(engine, number).Analysed == TAnalyseInformation::aiFull);
  REQUIRE(positions.size() >= 3);
  CHECK(positions.front() == 0);
  CHECK(positions[positions.size() - 2] == 1.0);
  for (const double p : positions) CHECK((p >= 0 && p <= 1));

  const std::size_t found = engine.Files().List.size();
  const std::string text = WalkText(engine, number);
  AnalyseDrive(engine, number);
  CHECK(engine.Files().List.size() == found);
  CHECK(WalkText(engine, number) == text);
}

void CheckStop(const TDriverSpecimen& specimen) {
  TEngine engine;
  const int number = Mount(engine, specimen.Volume).Number;
  engine.Files().OnAdded = [&](int file) {
    if (file == 2) engine.Analysing = false;
  };
  AnalyseDrive(engine, number);
  CHECK(DriveOf(engine, number).Analysed == TAnalyseInformation::aiPartial);
  CHECK(engine.Files().List.size() >= 3);
  const std::size_t stopped = engine.Files().List.size();
  engine.Files().OnAdded = nullptr;
  AnalyseDrive(engine, number);
  CHECK(engine.Files().List.size() > stopped);
}

/// Any piece of a file, in any order, is the same piece of the whole.
void CheckPieces(TEngine& engine, TFile& file, const TByteDynArray& whole, std::mt19937& random) {
  const auto size = static_cast<std::int64_t>(whole.size());
  for (int i = 0; i < 40; ++i) {
    const std::int64_t start = std::uniform_int_distribution<std::int64_t>(0, size - 1)(random);
    const std::int64_t length = std::uniform_int_distribution<std::int64_t>(1, 9000)(random);
    TByteDynArray piece;
    GetFileData(engine, piece, file, -1, start, length);
    REQUIRE(piece == TByteDynArray(whole.begin() + start, whole.begin() + std::min(start + length, size)));
  }
}

void CheckReading(const TDriverSpecimen& specimen) {
  TEngine engine;
  const int number = Mount(engine, specimen.Volume).Number;
  AnalyseDrive(engine, number);
  TFile* file = LargestFile(engine);
  REQUIRE(file != nullptr);
  const std::int64_t size = file->FileInfo.aSize;
  TByteDynArray whole;
  GetFileData(engine, whole, *file, -1, 0, size + 1000);
  REQUIRE(static_cast<std::int64_t>(whole.size()) == size);
  std::mt19937 random(7);
  for (int i = 0; i < 8; ++i) CheckPieces(engine, *file, whole, random);
  TByteDynArray nothing(5);
  GetFileData(engine, nothing, *file, -1, size, 1);
  CHECK(nothing.empty());
  GetFileData(engine, nothing, *file, -1, -1, 1);
  CHECK(nothing.empty());

  // The fragments lead to the same bytes and cover the file.
  TFileFragments fragments;
  GetFileFragments(engine, *file, fragments);
  const TDriveInfo& drive = DriveOf(engine, number);
  TByteDynArray joined;
  std::int64_t stored = 0;  // bytes; the rest are holes
  for (const TFileFragment& fragment : fragments) {
    const std::int64_t place = fragment.FirstSectorInFile * drive.BytesPerSector;
    REQUIRE(place >= static_cast<std::int64_t>(joined.size()));
    joined.resize(static_cast<std::size_t>(place));
    if (fragment.FirstSectorInDrive < 0) continue;
    stored += fragment.SectorCount * drive.BytesPerSector;
    const auto first = specimen.Volume.begin() + fragment.FirstSectorInDrive * drive.BytesPerSector;
    joined.insert(joined.end(), first, first + fragment.SectorCount * drive.BytesPerSector);
  }
  joined.resize(static_cast<std::size_t>(size));
  CHECK(joined == whole);
  CHECK(engine.Files().GetSizeOnDisk(*file) >= std::min(size, stored));
  CHECK(stored > 0);
  CHECK(engine.Files().GetSizeOnDisk(*file) % drive.BytesPerSector == 0);
}

/// One sector in the middle of each of the first files that have a place cannot be read.
void CheckUnreadable(const TDriverSpecimen& specimen) {
  TEngine engine;
  const TMounted mounted = Mount(engine, specimen.Volume);
  AnalyseDrive(engine, mounted.Number);
  const TDriveInfo& drive = DriveOf(engine, mounted.Number);
  std::mt19937 random(9);
  int checked = 0;
  for (std::size_t i = 0; i < engine.Files().List.size() && checked < 20; ++i) {
    TFile& file = engine.Files().List[i];
    const bool stored = !file.FileInfo.blnFolder && !file.FileInfo.Atributes.blnCompressed;
    TFileFragments fragments;
    if (stored && file.FileInfo.aSize > 0) GetFileFragments(engine, file, fragments);
    if (fragments.empty() || engine.Files().GetSizeOnDisk(file) == 0) continue;
    const TFileFragment& middle = fragments[fragments.size() / 2];
    if (middle.FirstSectorInDrive < 0) continue;
    ++checked;
    TByteDynArray good, damaged;
    GetFileData(engine, good, file, -1, 0, file.FileInfo.aSize);
    const std::int64_t sector = middle.SectorCount / 2;
    mounted.Device->BadSectors.insert(drive.FirstSector + middle.FirstSectorInDrive + sector);
    const std::uint64_t failed = engine.Reader().FailedReads();
    GetFileData(engine, damaged, file, -1, 0, file.FileInfo.aSize);
    CHECK(engine.Reader().FailedReads() > failed);
    REQUIRE(damaged.size() == good.size());
    const std::int64_t first = (middle.FirstSectorInFile + sector) * drive.BytesPerSector;
    for (std::int64_t at = 0; at < static_cast<std::int64_t>(good.size()); ++at) {
      const bool lost = at >= first && at < first + drive.BytesPerSector;
      if (!lost) REQUIRE(damaged[static_cast<std::size_t>(at)] == good[static_cast<std::size_t>(at)]);
    }
    CheckPieces(engine, file, damaged, random);
    mounted.Device->BadSectors.clear();
    engine.Reader().ForgetFaults();
  }
  CHECK(checked > 2);
}

void CheckListing(const TDriverSpecimen& specimen) {
  TEngine engine;
  const int number = Mount(engine, specimen.Volume).Number;
  TDriveInfo drive = DriveOf(engine, number);  // need not be registered
  TFileArray root;
  GetDriveFiles(engine, drive, root, true, nullptr);
  TFileArray all;
  int calls = 0;
  GetDriveFiles(engine, drive, all, false, [&](TDriveInfo&, const TFileArray&, bool&) { ++calls; });
  CHECK(root.size() > 0);
  CHECK(all.size() > root.size());
  CHECK(calls > 0);
  for (std::size_t i = 0; i < root.size(); ++i) CHECK(root[i].ParentCluster == SpecialCluster::Root);
  GetDriveFiles(engine, drive, all, false, [&](TDriveInfo&, const TFileArray&, bool& canBreak) { canBreak = true; });
  CHECK(all.size() < root.size());
  CHECK(engine.Files().List.empty());
  CHECK(drive.Analysed == TAnalyseInformation::aiNone);
}

void CheckDamage(const TDriverSpecimen& specimen) {
  std::mt19937 random(11);
  for (int round = 0; round < 40; ++round) {
    TImage volume = specimen.Volume;
    std::uniform_int_distribution<std::size_t> anywhere(0, volume.size() - 1);
    std::uniform_int_distribution<std::size_t> early(0, std::min<std::size_t>(volume.size(), 65536) - 1);
    for (int i = 0; i < 200; ++i)
      volume[i % 2 == 0 ? early(random) : anywhere(random)] = static_cast<std::uint8_t>(random());
    if (round % 4 == 0) volume.resize(anywhere(random) + 512);
    TEngine engine;
    const int number = Mount(engine, std::move(volume)).Number;
    if (number < 0) continue;
    DriveOf(engine, number).FileSystem = specimen.FileSystem;
    AnalyseDrive(engine, number);
    engine.Recovering = true;
    TByteDynArray data;
    for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
      TFile& file = engine.Files().List[i];
      GetFileData(engine, data, file, -1, 0, 65536);
      CHECK(static_cast<std::int64_t>(data.size()) <= std::min<std::int64_t>(65536, file.FileInfo.aSize));
    }
  }
}

}  // namespace

void CheckDriverContract(const TDriverSpecimen& specimen) {
  SUBCASE("analysis") { CheckAnalysis(specimen); }
  SUBCASE("stop") { CheckStop(specimen); }
  SUBCASE("reading") { CheckReading(specimen); }
  SUBCASE("unreadable sectors") { CheckUnreadable(specimen); }
  SUBCASE("listing") { CheckListing(specimen); }
  SUBCASE("damage") { CheckDamage(specimen); }
}

}  // namespace brenlow::test

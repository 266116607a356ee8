// SPDX-License-Identifier: GPL-3.0-or-later
// From extents to bytes.
#include <doctest/doctest.h>

#include <algorithm>
#include <random>
#include <set>

#include "core/extent_reader.h"
#include "core/sector_reader.h"
#include "support/failing_device.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr std::int64_t Sectors = 4096;
constexpr std::int64_t Unit = 2048;  // bytes
constexpr std::int64_t FirstSector = 64;

/// A volume at sector 64 of a disk of random bytes, and what its places hold.
struct TScattered {
  TEngine Engine;
  TFailingDevice* Device = nullptr;
  TDriveInfo Drive;

  TScattered() {
    std::mt19937 random(3);
    TImage image((FirstSector + Sectors) * 512);
    for (auto& byte : image) byte = static_cast<std::uint8_t>(random() | 1U);
    auto device = std::make_unique<TFailingDevice>(std::move(image));
    Device = device.get();
    Engine.Devices().Insert(u"/bad.img", std::move(device));
    Drive.Drive = u"/bad.img";
    Drive.BytesPerSector = 512;
    Drive.FirstSector = FirstSector;
    Drive.SectorsCount = Sectors;
  }
  std::uint8_t At(std::int64_t place) const {
    return Device->Image[static_cast<std::size_t>(FirstSector * 512 + place)];
  }
  void Fail(std::int64_t place) { Device->FailSectors(FirstSector + place / 512); }
  TByteDynArray Read(TFileStream& stream, std::int64_t start, std::int64_t size) {
    TByteDynArray bytes(3, 0xEE);
    Engine.Content().Read(Drive, stream, start, size, bytes);
    return bytes;
  }
  std::uint64_t FailedReads() { return Engine.Reader().FailedReads(); }
};

/// Every other unit of the first half of the volume, backwards, with a hole and a lost piece.
TFileStream ScatteredStream(TUnreadableRule rule) {
  TFileStream stream;
  stream.UnitBytes = Unit;
  stream.Unreadable = rule;
  for (std::int64_t i = 0; i < 40; ++i) {
    if (i == 11) stream.Extents.AddZeros(3 * Unit);
    if (i == 20) stream.Extents.AddLost(Unit);
    stream.Extents.AddStored(Unit, (200 - 2 * i) * Unit);
  }
  stream.Extents.AddStored(10 * Unit, 300 * Unit);
  stream.Size = stream.Extents.EndNear(INT64_MAX) - 700;
  return stream;
}

/// The bytes of a stream by the rules, sector by sector, with nothing kept from one to the next.
TByteDynArray Expected(TScattered& v, TFileStream& stream) {
  TByteDynArray bytes(static_cast<std::size_t>(stream.Size));
  for (std::int64_t at = 0; at < stream.Size; ++at) {
    for (std::int64_t from = at; from >= 0; from -= Unit) {
      const auto extent = stream.Extents.At(from, from);
      if (extent->Kind != TExtentKind::Stored) break;
      const std::int64_t place = extent->Place + (from - extent->Offset);
      const bool bad = v.Device->IsBad((FirstSector + place / 512) * 512);
      if (!bad) bytes[static_cast<std::size_t>(at)] = v.At(place);
      if (!bad || stream.Unreadable == TUnreadableRule::Zeros) break;
    }
  }
  return bytes;
}

/// Single bytes at even places of 4 bytes, each a piece of its own.
class TManyPieces final : public IExtentSource {
 public:
  explicit TManyPieces(std::int64_t count) : FCount(count) {}
  bool Next(TExtent& extent) override {
    if (FNext == FCount) return false;
    extent.Length = 4;
    extent.Place = FNext++ * 8;
    return true;
  }
  void Rewind() override {
    FNext = 0;
    ++Rewinds;
  }
  int Rewinds = 0;

 private:
  std::int64_t FCount;
  std::int64_t FNext = 0;
};

}  // namespace

TEST_CASE("what lies one after the other is one extent, and nothing else is") {
  TExtents extents;
  extents.AddStored(100, 1000);
  extents.AddStored(100, 1100);
  extents.AddStored(0, 77);
  extents.AddZeros(5);
  extents.AddZeros(5);
  extents.AddStored(10, 1200);
  extents.Add({.Length = 10, .Place = 1210, .Estimated = true});
  CHECK(extents.At(199, 199)->Offset == 0);
  CHECK(extents.At(0, 0)->Length == 200);
  CHECK(extents.At(200, 200)->Length == 10);
  CHECK(extents.At(210, 210)->Length == 10);
  CHECK(extents.At(225, 225)->Place == 1210);
  CHECK_FALSE(extents.At(230, 230));
  CHECK_FALSE(extents.At(-1, 0));
  extents.AddZeros(INT64_MAX);
  CHECK(extents.EndNear(INT64_MAX) == TExtents::MaxLength);
}

TEST_CASE("of a stream of very many pieces few are kept, and any byte is found again") {
  constexpr std::int64_t pieces = 300'000;
  TExtents extents;
  auto source = std::make_unique<TManyPieces>(pieces);
  const TManyPieces& asked = *source;
  extents.SetSource(std::move(source));
  for (std::int64_t i = 0; i < pieces; ++i) REQUIRE(extents.At(i * 4, i * 4)->Place == i * 8);
  CHECK(asked.Rewinds == 0);
  CHECK_FALSE(extents.At(pieces * 4, pieces * 4));
  REQUIRE(extents.At((pieces - 2000) * 4, 0)->Place == (pieces - 2000) * 8);
  CHECK(asked.Rewinds == 0);  // those just before are still there
  REQUIRE(extents.At(9, 9)->Place == 16);
  CHECK(asked.Rewinds == 1);
}

TEST_CASE("an unreadable sector costs only itself, whatever pieces are asked for") {
  for (const TUnreadableRule rule : {TUnreadableRule::Zeros, TUnreadableRule::RepeatUnitBefore}) {
    for (const bool givesWhatLiesBefore : {false, true}) {
      TScattered v;
      v.Device->GivesWhatLiesBefore = givesWhatLiesBefore;
      TFileStream stream = ScatteredStream(rule);
      // The very start; one sector in three units in a row; all of a unit; in the long piece at the end.
      for (const std::int64_t place : {200 * Unit, 190 * Unit + 512, 188 * Unit + 512, 186 * Unit + 512}) v.Fail(place);
      for (int i = 0; i < 4; ++i) v.Fail(170 * Unit + i * 512);
      v.Fail(303 * Unit + 1024);
      v.Fail(304 * Unit + 1024);
      const TByteDynArray expected = Expected(v, stream);
      const TByteDynArray whole = v.Read(stream, 0, stream.Size + 5000);
      REQUIRE(whole.size() == expected.size());
      CHECK(whole == expected);
      std::mt19937 random(5);
      for (int i = 0; i < 400; ++i) {
        const std::int64_t start = std::uniform_int_distribution<std::int64_t>(0, stream.Size)(random);
        const std::int64_t size = std::uniform_int_distribution<std::int64_t>(0, 9000)(random);
        const auto end = expected.begin() + std::min(start + size, stream.Size);
        REQUIRE(v.Read(stream, start, size) == TByteDynArray(expected.begin() + start, end));
      }
    }
  }
}

TEST_CASE("failed and estimated reads are counted where such bytes are handed out, and only there") {
  TScattered v;
  TFileStream stream = ScatteredStream(TUnreadableRule::RepeatUnitBefore);
  stream.Extents.Add({.Length = Unit, .Place = 400 * Unit, .Estimated = true});
  stream.Extents.AddStored(Unit, Sectors * 512 - 512);  // one sector lies in the volume, the others do not
  stream.Size = stream.Extents.EndNear(INT64_MAX);
  v.Fail(200 * Unit + 512);
  const auto fails = [&](std::int64_t start, std::int64_t size) {
    const std::uint64_t before = v.FailedReads();
    v.Read(stream, start, size);
    return v.FailedReads() != before;
  };
  CHECK_FALSE(fails(0, 512));
  CHECK(fails(0, 513));
  CHECK_FALSE(fails(1024, 10 * Unit));
  CHECK_FALSE(fails(11 * Unit, 3 * Unit));  // a hole
  CHECK(fails(23 * Unit + 9, 1));           // the lost piece
  CHECK_FALSE(fails(stream.Size - Unit, 512));
  CHECK(fails(stream.Size - Unit, 513));
  const std::uint64_t estimated = v.Engine.Reader().EstimatedReads();
  v.Read(stream, 0, stream.Size - 2 * Unit);
  CHECK(v.Engine.Reader().EstimatedReads() == estimated);
  v.Read(stream, stream.Size - 2 * Unit, 1);
  CHECK(v.Engine.Reader().EstimatedReads() > estimated);
}

TEST_CASE("bytes of records, tails, valid sizes and packed units") {
  TScattered v;
  TFileStream stream;
  stream.Inline = {1, 2, 3, 4, 5};
  stream.Extents.Add({.Length = 5, .Kind = TExtentKind::Inline});
  stream.Extents.AddStored(1000, 777);  // begins anywhere in a sector
  stream.Extents.Add({.Length = 100, .Place = 9, .Kind = TExtentKind::Packed});
  stream.Extents.AddStored(1000, 512 * 40);
  stream.ValidSize = 1700;
  stream.Size = 2000;
  int unpacked = 0;
  stream.Unpack = [&](const TDriveInfo&, const TExtent& unit, std::span<std::uint8_t> head, int) {
    ++unpacked;
    std::fill(head.begin(), head.end(), static_cast<std::uint8_t>(unit.Place));
    return true;
  };
  TByteDynArray expected{1, 2, 3, 4, 5};
  for (int i = 0; i < 1000; ++i) expected.push_back(v.At(777 + i));
  expected.insert(expected.end(), 100, 9);
  for (int i = 0; i < 595; ++i) expected.push_back(v.At(512 * 40 + i));
  expected.resize(2000, 0);
  CHECK(v.Read(stream, 0, 5000) == expected);
  for (std::int64_t at = 0; at < 2000; at += 7) {
    const auto end = expected.begin() + std::min<std::int64_t>(at + 50, 2000);
    REQUIRE(v.Read(stream, at, 50) == TByteDynArray(expected.begin() + at, end));
  }
  CHECK(unpacked < 20);
  CHECK(v.FailedReads() == 0);
  stream.Unpack = [](const TDriveInfo&, const TExtent&, std::span<std::uint8_t>, int) { return false; };
  stream.UnpackedUnit = -1;
  v.Read(stream, 1010, 5);
  v.Read(stream, 1010, 5);
  CHECK(v.FailedReads() == 2);  // a damaged unit that is kept is damaged still
  const TFileFragments fragments = FragmentsOf(v.Drive, stream);
  CHECK(fragments.front().FirstSectorInDrive == -1);
  CHECK(StoredBytes(stream) == 2000);
}

TEST_CASE("bytes at a place of the volume, with what is lost of them") {
  TScattered v;
  v.Fail(1024);
  TByteDynArray bytes(2000, 0xEE);
  std::vector<TBufferRange> lost;
  CHECK_FALSE(v.Engine.Content().ReadPlace(v.Drive, 100, bytes, 0, &lost));
  REQUIRE(lost.size() == 1);
  CHECK(lost[0].First == 924);
  CHECK(lost[0].End == 1436);
  for (std::size_t i = 0; i < bytes.size(); ++i)
    REQUIRE(bytes[i] == (i >= 924 && i < 1436 ? 0 : v.At(100 + static_cast<std::int64_t>(i))));
  lost.clear();
  CHECK_FALSE(v.Engine.Content().ReadPlace(v.Drive, Sectors * 512 - 500, bytes, 0, &lost));
  REQUIRE(lost.size() == 1);
  CHECK(lost[0].First == 500);
  CHECK(lost[0].End == 2000);
  CHECK_FALSE(v.Engine.Content().ReadPlace(v.Drive, -700, bytes));
  CHECK(v.Engine.Content().ReadPlace(v.Drive, 2048, bytes));
}

TEST_CASE("a stream is kept by what it is, not by where its records are in memory") {
  TScattered v;
  TFileInfo file;
  file.FirstSector = 5;
  int mapped = 0;
  const auto open = [&] {
    return v.Engine.Content().Open(v.Drive, file, -1, [&](TFileStream& stream) {
      ++mapped;
      stream.Size = v.Drive.FirstSector;
      return true;
    });
  };
  CHECK(open()->Size == FirstSector);
  v.Drive.FirstSector = 100;  // another volume in the same record
  CHECK(open()->Size == 100);
  v.Drive.FirstSector = FirstSector;
  CHECK(open()->Size == FirstSector);
  CHECK(mapped == 2);
  file.OffsetInSector = 32;  // another row in the same record
  open();
  CHECK(mapped == 3);
  v.Engine.Content().Forget();
  open();
  CHECK(mapped == 4);
}

// SPDX-License-Identifier: GPL-3.0-or-later
// Streams that are longer than what was ever written of them.
#include "core/numbers.h"
#include "fs/ntfs/volume_builder.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("what lies after the valid size of a stream are zeros, not what the clusters held before") {
  constexpr std::int64_t cluster = 4096;
  constexpr std::int64_t size = 3 * cluster - 100;
  for (const std::int64_t valid : {std::int64_t{0}, std::int64_t{5000}, cluster, size}) {
    CAPTURE(valid);
    TNtfsRecord record({40, 1});
    record.Name(NtfsRoot, u"grown.bin", size).Data(TNtfsPiece{{{100, 1}, {200, 2}}, size});
    std::size_t at = ReadLe16(record.Bytes, 0x14);
    while (ReadLe32(record.Bytes, at) != 0x80) at += ReadLe32(record.Bytes, at + 4);
    TNtfsRecord::PutInto(record.Bytes, at + 0x38, 8, static_cast<std::uint64_t>(valid));
    TNtfsVolume volume;
    volume.Record(40, record).Fill(100, TImage(cluster, 'a')).Fill(200, TImage(2 * cluster, 'b'));
    TAnalysedNtfs t(volume);
    std::string expected = std::string(cluster, 'a') + std::string(size - cluster, 'b');
    std::fill(expected.begin() + valid, expected.end(), '\0');
    const TAnalysedNtfs::TContent content = t.Read(u"grown.bin");
    CHECK(Text(content.Bytes) == expected);
    CHECK(content.Whole);
    CHECK(Text(t.Read(u"grown.bin", 4990, 200).Bytes) == expected.substr(4990, 200));
  }
}

TEST_CASE("a stream that is kept for reading belongs to its volume, not to the record's place in memory") {
  const auto volume = [](char content) {
    TNtfsVolume made;
    made.Record(40, TNtfsRecord({40, 1}).Name(NtfsRoot, u"file.bin", 4096).Data(TNtfsPiece{{{100, 1}}, 4096}));
    made.Fill(100, TImage(4096, static_cast<std::uint8_t>(content)));
    return made;
  };
  TAnalysedNtfs t(volume('1'));
  CHECK(Text(t.Read(u"file.bin").Bytes) == std::string(4096, '1'));
  const TMounted other = Mount(t.Engine, volume('2').Image, u"/other.img");
  // The other volume's record takes the place of the first one's.
  TDriveInfo& first = DriveOf(t.Engine, t.Number);
  const TDriveInfo kept = first;
  first = DriveOf(t.Engine, other.Number);
  CHECK(Text(t.Read(u"file.bin").Bytes) == std::string(4096, '2'));
  first = kept;
  CHECK(Text(t.Read(u"file.bin").Bytes) == std::string(4096, '1'));
}

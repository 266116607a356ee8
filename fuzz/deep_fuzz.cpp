// SPDX-License-Identifier: GPL-3.0-or-later
// The deep analysis: what it finds must be what the slow, literal reading of its rules finds, and
// every file must read back within its size. Each 48 bytes of the input make a sector: 24 at its
// start, 22 somewhere in it, a place, a filling.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/text.h"
#include "memory_device.h"
#include "support/deep_reference.h"
#include "table/files.h"

namespace {

using namespace brenlow;

constexpr std::size_t SectorSize = 512;
constexpr std::size_t RecordSize = 48;

TByteDynArray MakeImage(const std::uint8_t* data, std::size_t records) {
  TByteDynArray image;
  for (std::size_t i = 0; i < records; ++i) {
    const std::uint8_t* record = data + i * RecordSize;
    image.resize((i + 1) * SectorSize, record[47]);
    std::uint8_t* sector = image.data() + i * SectorSize;
    const std::size_t place = std::size_t{record[46]} * 2;
    std::copy_n(record, 24, sector);
    std::copy_n(record + 24, std::min<std::size_t>(22, SectorSize - place), sector + place);
  }
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::size_t records = std::min<std::size_t>(size / RecordSize, 600);
  if (records == 0) return 0;
  TByteDynArray image = MakeImage(data, records);
  TEngine engine;
  const int number = fuzz::MountInput(engine, image.data(), image.size());
  if (number < 0) return 0;
  engine.Drives().List[static_cast<std::size_t>(number)].BytesPerSector = SectorSize;
  engine.Drives().List[static_cast<std::size_t>(number)].SectorsCount = static_cast<std::int64_t>(records);
  DeepAnalyseDrive(engine, number);

  test::TDeepReference reference(SectorSize);
  reference.Drive(image);

  std::string rows;
  TByteDynArray bytes;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    TFile& file = engine.Files().List[i];
    const TFileInfo& info = file.FileInfo;
    if (info.blnFolder) continue;
    rows += ToUtf8(info.strName) + " " + std::to_string(info.FirstCluster) + "+" + std::to_string(info.aSize) + "\n";
    const std::int64_t wanted = std::min<std::int64_t>(info.aSize, 5000);
    GetFileData(engine, bytes, file, -1, info.aSize - wanted, 1 << 20);
    if (static_cast<std::int64_t>(bytes.size()) != wanted) std::abort();
  }
  if (rows != reference.Rows) std::abort();
  return 0;
}

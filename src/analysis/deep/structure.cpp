// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/deep/structure.h"

#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr TStructureFormat Formats[] = {
    {u".jpg .jpeg .jpe .jfi .jfif", ReadJpeg},
    {u".png", ReadPng},
    {u".gif", ReadGif},
    {u".bmp", ReadBmp},
    {u".wav .avi .ani", ReadRiff},
    {u".zip .docx .xlsx .pptx .odt .ods .odp", ReadZip},
    {u".doc .xls .ppt", ReadCompound},
    {u".gz", ReadGzip},
    {u".mid .midi", ReadMidi},
    {u".chm", ReadChm},
    {u".cab", ReadCab},
    {u".asf .wma", ReadAsf},
    {u".psd", ReadPsd},
    {u".rar", ReadRar},
    {u".swf", ReadSwf},
    {u".wmf", ReadWmf},
};

/// Bytes that reading a file's structure may fetch beyond twice the size that the scan gave it.
constexpr std::int64_t FileBudget = 64 << 20;
/// And for all files of a drive, beyond twice the drive.
constexpr std::int64_t DriveBudget = 1 << 30;

/// Fills the buffer from a byte of the drive on.
void Fetch(TEngine& engine, int driveNumber, std::int64_t position, std::span<std::uint8_t> buffer) {
  const TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const std::int64_t sectorSize = engine.Drives().GetBytesPerSector(drive);
  const std::int64_t skipped = position % sectorSize;
  const std::int64_t sectors = CeilDiv(skipped + static_cast<std::int64_t>(buffer.size()), sectorSize);
  TByteDynArray whole(static_cast<std::size_t>(sectors * sectorSize));
  engine.Reader().ReadOrZero(drive, whole, drive.FirstSector + position / sectorSize, TReadEffort::Scan);
  std::copy_n(whole.begin() + skipped, buffer.size(), buffer.begin());
  engine.Pump();
}

}  // namespace

std::span<const TStructureFormat> StructureFormats() { return Formats; }

TStructureReader StructureReaderOf(TStringView extension) {
  for (const TStructureFormat& format : Formats) {
    TStringView rest = format.Extensions;
    while (!rest.empty()) {
      const std::size_t length = std::min(rest.find(u' '), rest.size());
      if (rest.substr(0, length) == extension) return format.Read;
      rest.remove_prefix(std::min(length + 1, rest.size()));
    }
  }
  return nullptr;
}

void MeasureDeepFiles(TEngine& engine, int driveNumber) {
  TFiles& files = engine.Files();
  const TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const std::int64_t sectorSize = engine.Drives().GetBytesPerSector(drive);
  const std::int64_t driveBytes = drive.SectorsCount * sectorSize;
  std::int64_t left = 2 * driveBytes + DriveBudget;
  for (std::size_t i = 0; i < files.List.size() && engine.Analysing && left > 0; ++i) {
    TFileInfo& file = files.List[i].FileInfo;
    if (!file.aDeepAnalyse || file.blnFolder || file.aDriveNumber != driveNumber) continue;
    const TStructureReader read = StructureReaderOf(u"." + LowerCase(Extension(file.strName)));
    if (read == nullptr) continue;
    const std::int64_t start = file.FirstCluster * sectorSize;
    const std::int64_t granted = std::min(left, 2 * file.aSize + FileBudget);
    std::int64_t budget = granted;
    TFileWindow window([&](std::int64_t position,
                           std::span<std::uint8_t> buffer) { Fetch(engine, driveNumber, start + position, buffer); },
                       driveBytes - start, budget);
    const TStructure structure = read(window);
    left -= granted - budget;
    if (structure.Sound && structure.Size > 0 && structure.Size <= driveBytes - start) {
      file.aSize = file.DefaultSize = structure.Size;
    }
  }
}

}  // namespace brenlow

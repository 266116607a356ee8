// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/exfat/exfat_table.h"

#include <algorithm>

#include "core/engine.h"
#include "core/sector_reader.h"
#include "fs/exfat/exfat_layout.h"

namespace brenlow::exfat {

void TTableReader::Forget() { FWindows = {}; }

TTableReader::TWindow& TTableReader::WindowAt(const TDriveInfo& drive, std::int64_t sector) {
  for (TWindow& window : FWindows) {
    if (window.FirstSector == sector && window.Device == drive.Drive) return window;
  }
  TWindow& window = FWindows[FNext];
  FNext = (FNext + 1) % FWindows.size();
  window = {drive.Drive, sector, {}, {}, -1};
  window.Bytes.resize(static_cast<std::size_t>(WindowSectors * drive.BytesPerSector));
  const std::int64_t left = FEngine.Reader().DeviceSectors(drive) - sector;
  const std::int64_t count = std::clamp<std::int64_t>(left, 0, WindowSectors);
  window.Bytes.resize(static_cast<std::size_t>(count * drive.BytesPerSector));
  if (count == 0 ||
      FEngine.Reader().ReadDriveSectors(drive, window.Bytes.data(), sector, count) != window.Bytes.size()) {
    window.Bytes.clear();
  }
  return window;
}

bool TTableReader::Entry(const TDriveInfo& drive, int table, std::int64_t cluster, std::uint32_t& entry) {
  const TexFATInfo& info = exFATInfo(drive);
  const std::int64_t perSector = drive.BytesPerSector / 4;
  if (cluster < 0 || cluster > LastCluster(drive) || perSector <= 0 || cluster / perSector >= info.FATSize)
    return false;
  const std::int64_t inTable = cluster / perSector;
  const std::int64_t first = drive.FirstSector + info.FATFirstSector + std::int64_t{table} * info.FATSize;
  TWindow& window = WindowAt(drive, first + inTable / WindowSectors * WindowSectors);
  const auto offset = static_cast<std::size_t>(cluster % (perSector * WindowSectors) * 4);
  if (offset + 4 <= window.Bytes.size()) {
    entry = ReadLe32(window.Bytes, offset);
    return true;
  }
  if (!window.Bytes.empty()) return false;  // beyond the end of the device
  if (window.SingleSector != first + inTable) {
    window.SingleSector = first + inTable;
    window.Single.resize(static_cast<std::size_t>(drive.BytesPerSector));
    if (FEngine.Reader().ReadDriveSectors(drive, window.Single.data(), first + inTable, 1) == 0) window.Single.clear();
  }
  if (window.Single.empty()) return false;
  entry = ReadLe32(window.Single, static_cast<std::size_t>(cluster % perSector * 4));
  return true;
}

TChain::TStep TChain::Step(const TDriveInfo& drive) {
  std::uint32_t entry = 0;
  const bool known = FTables.Entry(drive, FTable, FCluster, entry);
  if (known && entry >= ChainEnd) return TStep::End;
  const bool guess = !known || entry == 0;
  const std::int64_t next = guess ? FCluster + 1 : std::int64_t{entry};
  if (!IsInside(drive, next) || next == FCluster || next == FMark) return TStep::Broken;
  if (++FSteps == FNextMark) {
    FMark = FCluster;
    FNextMark *= 2;
  }
  FCluster = next;
  return guess ? TStep::Guess : TStep::Next;
}

}  // namespace brenlow::exfat

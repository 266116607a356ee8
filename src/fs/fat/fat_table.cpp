// SPDX-License-Identifier: GPL-3.0-or-later
// Loading an allocation table, sector by sector from the other one where it cannot be read.
#include <algorithm>
#include <cmath>

#include "core/engine.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "fs/fat/fat.h"
#include "fs/fat/fat_layout.h"

namespace brenlow {

using namespace fat;

namespace {

constexpr std::int64_t TableReadSize = 1 << 20;  // bytes of a table read in one request
constexpr std::int64_t PieceSize = 4096;         // bytes tried next where such a request fails
// After so many bad pieces of one request the other table is taken where it has all of it; where it has not,
// a piece is given up with its first sector.
constexpr int MostBadPieces = 16;
// A table larger than this is kept only as far as the volume backs it with data.
constexpr std::int64_t LargeTable = 16'777'216;  // entries

double EntryBytes(TFileSystem system) {
  switch (system) {
    case TFileSystem::fsFAT12:
      return 1.5;
    case TFileSystem::fsFAT16:
      return 2;
    case TFileSystem::fsFAT32:
      return 4;
    default:
      return 1;
  }
}

std::uint32_t DecodeEntry(std::span<const std::uint8_t> table, TFileSystem system, std::size_t number) {
  switch (system) {
    case TFileSystem::fsFAT12: {
      const std::uint16_t pair = ReadLe16(table, number + number / 2);
      return number % 2 == 0 ? pair & 0xFFFU : pair >> 4U;
    }
    case TFileSystem::fsFAT16:
      return ReadLe16(table, number * 2);
    case TFileSystem::fsFAT32:
      return ReadLe32(table, number * 4);
    default:
      return table[number];
  }
}

/// The bytes of one table with what the other one adds.
class TTableReader {
 public:
  TTableReader(TEngine& engine, const TDriveInfo& drive, int number)
      : FEngine(engine),
        FDrive(drive),
        FNumber(number),
        FOther(number + 1 < FATInfo(drive).FATCount ? number + 1 : -1),
        FSectorSize(drive.BytesPerSector) {}

  TByteDynArray Bytes;
  /// Sectors of the table that cannot be read, as pairs of first and end.
  std::vector<std::pair<std::int64_t, std::int64_t>> Unreadable;
  std::int64_t ReadableEnd = 0;  ///< sector after the last one that could be read

  /// Reads the next sectors of the table.
  void Append(std::int64_t count) {
    const std::int64_t from = static_cast<std::int64_t>(Bytes.size()) / FSectorSize;
    Bytes.resize(static_cast<std::size_t>((from + count) * FSectorSize));
    if (!Read(FNumber, from, count, At(from))) ReadInPieces(from, count);
  }

 private:
  std::uint8_t* At(std::int64_t sector) { return Bytes.data() + sector * FSectorSize; }

  bool Read(int number, std::int64_t from, std::int64_t count, std::uint8_t* place) {
    if (number < 0) return false;
    const TFATInfo& info = FATInfo(FDrive);
    const std::int64_t sector = FDrive.FirstSector + info.FATFirstSector + std::int64_t{info.FATSize} * number + from;
    // After the end of the source nothing need be tried.
    if (sector >= FEngine.Reader().DeviceSectors(FDrive)) return false;
    const bool whole = FEngine.Reader().ReadDriveSectors(FDrive, place, sector, count) ==
                       static_cast<std::uint64_t>(count * FSectorSize);
    if (whole) ReadableEnd = std::max(ReadableEnd, from + count);
    FEngine.Pump();
    return whole;
  }

  void ReadInPieces(std::int64_t from, std::int64_t count) {
    TByteDynArray other(static_cast<std::size_t>(count * FSectorSize));
    const bool otherIsWhole = Read(FOther, from, count, other.data());
    const auto takeOther = [&](std::int64_t first, std::int64_t end) {
      std::copy(other.begin() + (first - from) * FSectorSize, other.begin() + (end - from) * FSectorSize, At(first));
    };
    const std::int64_t step = std::max<std::int64_t>(PieceSize / FSectorSize, 1);
    int badPieces = 0;
    for (std::int64_t first = from; first < from + count; first += step) {
      const std::int64_t end = std::min(first + step, from + count);
      if (otherIsWhole && badPieces > MostBadPieces) {
        takeOther(first, end);
        continue;
      }
      if (Read(FNumber, first, end - first, At(first))) continue;
      if (++badPieces > MostBadPieces && !Read(FNumber, first, 1, At(first)) && !Read(FOther, first, 1, At(first))) {
        for (std::int64_t sector = first; sector < end; ++sector) Lose(sector);
        continue;
      }
      for (std::int64_t sector = first; sector < end; ++sector) {
        if (end - first > 1 && Read(FNumber, sector, 1, At(sector))) continue;
        if (otherIsWhole) {
          takeOther(sector, sector + 1);
        } else if (!Read(FOther, sector, 1, At(sector))) {
          Lose(sector);
        }
      }
    }
  }

  void Lose(std::int64_t sector) {
    std::fill_n(At(sector), FSectorSize, std::uint8_t{0});
    if (!Unreadable.empty() && Unreadable.back().second == sector) {
      ++Unreadable.back().second;
    } else {
      Unreadable.emplace_back(sector, sector + 1);
    }
  }

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  int FNumber;
  int FOther;  // -1: there is none
  std::int64_t FSectorSize;
};

}  // namespace

void TFAT::FillTable(const TDriveInfo& drive, TLongWordDynArray& table, int fatNumber,
                     std::vector<TClusterRange>* unknown) {
  table.clear();
  if (unknown != nullptr) unknown->clear();
  const TFATInfo& info = FATInfo(drive);
  if (info.SectorsPerCluster < 1 || drive.BytesPerSector < 1) return;
  const double entryBytes = EntryBytes(drive.FileSystem);
  const double stated = static_cast<double>(drive.BytesPerSector) * info.FATSize / entryBytes;
  if (stated > static_cast<double>(ClusterRoom(drive)) * 64) return;

  const std::int64_t entries = ClusterRoom(drive) + 2;
  const auto needed = static_cast<std::int64_t>(static_cast<double>(entries) * entryBytes) + 2;
  const std::int64_t sectors = std::min<std::int64_t>(info.FATSize, CeilDiv(needed, drive.BytesPerSector));
  TTableReader reader(FEngine, drive, fatNumber);
  const std::int64_t step = std::max<std::int64_t>(TableReadSize / drive.BytesPerSector, 1);
  for (std::int64_t at = 0; at < sectors; at += step) {
    reader.Append(std::min(step, sectors - at));
    // A boot sector may promise a table far beyond the end of its source.
    if (entries > LargeTable && at - reader.ReadableEnd > 64 * step) break;
  }
  const auto decodable = static_cast<std::int64_t>(static_cast<double>(reader.Bytes.size()) / entryBytes);
  std::int64_t size = entries;
  if (entries > LargeTable) {
    size = static_cast<std::int64_t>(static_cast<double>(reader.ReadableEnd * drive.BytesPerSector) / entryBytes);
  }
  table.assign(static_cast<std::size_t>(std::max<std::int64_t>(size, 2)), 0);
  const std::int64_t end = std::min<std::int64_t>(decodable, static_cast<std::int64_t>(table.size()));
  for (std::int64_t i = 2; i < end; ++i) {
    table[static_cast<std::size_t>(i)] = DecodeEntry(reader.Bytes, drive.FileSystem, static_cast<std::size_t>(i));
    if (i % 100 == 0) FEngine.Pump();
  }
  for (const auto& [firstSector, endSector] : reader.Unreadable) {
    // An entry of which any byte is lost is lost.
    const auto entryAt = [&](double byte) {
      return std::clamp<std::int64_t>(static_cast<std::int64_t>(std::ceil(byte / entryBytes)), 2, end);
    };
    const auto from = entryAt(static_cast<double>(firstSector * drive.BytesPerSector) + 1 - std::ceil(entryBytes));
    const auto until = entryAt(static_cast<double>(endSector * drive.BytesPerSector));
    std::fill(table.begin() + from, table.begin() + until, 0U);
    if (unknown == nullptr || from >= until) continue;
    unknown->push_back({static_cast<std::uint32_t>(from), static_cast<std::uint32_t>(until)});
  }
}

}  // namespace brenlow

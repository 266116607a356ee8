// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/block_map_disk.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::int64_t LargestDisk = std::int64_t{1} << 56;  // bytes
constexpr std::int64_t Sector = 512;

class TBlockMapDisk final : public IDevice {
 public:
  TBlockMapDisk(std::unique_ptr<IDevice> file, TBlockMap map) : FFile(std::move(file)), FMap(std::move(map)) {}

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    std::size_t done = 0;
    while (done < buffer.size() && position >= 0 && position < FMap.DiskSize) {
      const std::int64_t within = position % FMap.BlockSize;
      const auto count = static_cast<std::size_t>(std::min(
          {static_cast<std::int64_t>(buffer.size() - done), FMap.BlockSize - within, FMap.DiskSize - position}));
      const auto piece = buffer.subspan(done, count);
      const std::int64_t place = FMap.Places[static_cast<std::size_t>(position / FMap.BlockSize)];
      if (place < 0) {
        std::memset(piece.data(), 0, count);
      } else if (const std::size_t got = FFile->Read(place + within, piece); got < count) {
        return done + got;
      }
      done += count;
      position += static_cast<std::int64_t>(count);
    }
    return done;
  }
  std::int64_t Size() const override { return FMap.DiskSize; }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override { FFile->AddOrigins(origins); }
  int SectorSize() const override { return 0; }
  std::int64_t NextData(std::int64_t position) override {
    auto block = static_cast<std::size_t>(position / FMap.BlockSize);
    if (block >= FMap.Places.size() || FMap.Places[block] >= 0) return position;
    while (block < FMap.Places.size() && FMap.Places[block] < 0) ++block;
    return std::min(static_cast<std::int64_t>(block) * FMap.BlockSize, FMap.DiskSize);
  }

 private:
  std::unique_ptr<IDevice> FFile;
  TBlockMap FMap;
};

/// So many bytes of the file; empty when it has not all of them.
TByteDynArray BytesAt(IDevice& file, std::uint64_t position, std::uint64_t size) {
  const auto end = static_cast<std::uint64_t>(file.Size());
  if (position > end || size > end - position) return {};
  TByteDynArray bytes(static_cast<std::size_t>(size));
  if (file.Read(static_cast<std::int64_t>(position), bytes) != bytes.size()) bytes.clear();
  return bytes;
}

bool IsAt(std::span<const std::uint8_t> bytes, std::size_t at, std::string_view text) {
  return at + text.size() <= bytes.size() && std::memcmp(bytes.data() + at, text.data(), text.size()) == 0;
}

/// False when disk and block size cannot be.
bool SetSizes(TBlockMap& map, std::uint64_t diskSize, std::uint64_t blockSize) {
  if (diskSize == 0 || diskSize > LargestDisk || blockSize < Sector || blockSize > (1U << 30)) return false;
  map.DiskSize = static_cast<std::int64_t>(diskSize);
  map.BlockSize = static_cast<std::int64_t>(blockSize);
  return true;
}

std::uint64_t BlockCount(const TBlockMap& map) {
  return static_cast<std::uint64_t>(CeilDiv(map.DiskSize, map.BlockSize));
}

std::uint64_t ReadBe64(std::span<const std::uint8_t> bytes, std::size_t at) { return ReadNumber(bytes, false, 8, at); }

}  // namespace

TBlockMap ReadVDI(IDevice& file) {
  constexpr std::uint32_t signature = 0xBEDA107F;
  constexpr std::uint32_t differencing = 4;
  constexpr std::uint32_t zeroBlock = 0xFFFFFFFE;  // as is 0xFFFFFFFF, a block never written
  TBlockMap map;
  const TByteDynArray head = BytesAt(file, 0, 512);
  if (ReadLe32(head, 0x40) != signature || !SetSizes(map, ReadLe64(head, 0x170), ReadLe32(head, 0x178))) return {};
  map.NeedsParent = ReadLe32(head, 0x4C) == differencing;
  const std::uint64_t blocks = BlockCount(map);
  const TByteDynArray table = BytesAt(file, ReadLe32(head, 0x154), blocks * 4);
  if (table.empty()) return {};
  const std::int64_t data = ReadLe32(head, 0x158);
  for (std::size_t i = 0; i < blocks; ++i) {
    const std::uint32_t entry = ReadLe32(table, 4 * i);
    map.Places.push_back(entry >= zeroBlock ? -1 : data + std::int64_t{entry} * map.BlockSize);
  }
  return map;
}

TBlockMap ReadVHD(IDevice& file) {
  constexpr std::uint32_t dynamic = 3;
  constexpr std::uint32_t differencing = 4;
  constexpr std::uint32_t unused = 0xFFFFFFFF;
  TBlockMap map;
  const TByteDynArray head = BytesAt(file, 0, 512);  // the copy of the footer
  const std::uint32_t kind = ReadBe32(head, 0x3C);
  if (!IsAt(head, 0, "conectix") || (kind != dynamic && kind != differencing)) return {};
  const TByteDynArray dynamicHead = BytesAt(file, ReadBe64(head, 0x10), 1024);
  if (!IsAt(dynamicHead, 0, "cxsparse") || !SetSizes(map, ReadBe64(head, 0x30), ReadBe32(dynamicHead, 0x20))) return {};
  map.NeedsParent = kind == differencing;
  const std::uint64_t blocks = BlockCount(map);
  const TByteDynArray table = BytesAt(file, ReadBe64(dynamicHead, 0x10), blocks * 4);
  if (table.empty() || blocks > ReadBe32(dynamicHead, 0x1C)) return {};
  // In front of each block a bit map of its sectors, which fills whole sectors.
  const std::int64_t bitmap = CeilDiv(map.BlockSize / Sector / 8, Sector) * Sector;
  for (std::size_t i = 0; i < blocks; ++i) {
    const std::uint32_t entry = ReadBe32(table, 4 * i);
    map.Places.push_back(entry == unused ? -1 : std::int64_t{entry} * Sector + bitmap);
  }
  return map;
}

namespace {

using TGuid = std::array<std::uint8_t, 16>;  // as it lies in a file
constexpr TGuid RegionBAT = {0x66, 0x77, 0xC2, 0x2D, 0x23, 0xF6, 0x00, 0x42,
                             0x9D, 0x64, 0x11, 0x5E, 0x9B, 0xFD, 0x4A, 0x08};
constexpr TGuid RegionMetadata = {0x06, 0xA2, 0x7C, 0x8B, 0x90, 0x47, 0x9A, 0x4B,
                                  0xB8, 0xFE, 0x57, 0x5F, 0x05, 0x0F, 0x88, 0x6E};
constexpr TGuid FileParameters = {0x37, 0x67, 0xA1, 0xCA, 0x36, 0xFA, 0x43, 0x4D,
                                  0xB3, 0xB6, 0x33, 0xF0, 0xAA, 0x44, 0xE7, 0x6B};
constexpr TGuid VirtualDiskSize = {0x24, 0x42, 0xA5, 0x2F, 0x1B, 0xCD, 0x76, 0x48,
                                   0xB2, 0x11, 0x5D, 0xBE, 0xD8, 0x3B, 0xF4, 0xB8};
constexpr TGuid LogicalSectorSize = {0x1D, 0xBF, 0x41, 0x81, 0x6F, 0xA9, 0x09, 0x47,
                                     0xBA, 0x47, 0xF2, 0x33, 0xA8, 0xFA, 0xAB, 0x5F};

/// The entry of 32 bytes that begins with the identifier; empty when there is none.
std::span<const std::uint8_t> FindEntry(std::span<const std::uint8_t> table, std::size_t first, std::size_t count,
                                        const TGuid& id) {
  constexpr std::size_t entrySize = 32;
  for (std::size_t i = 0; i < count && first + (i + 1) * entrySize <= table.size(); ++i) {
    const auto entry = table.subspan(first + i * entrySize, entrySize);
    if (std::equal(id.begin(), id.end(), entry.begin())) return entry;
  }
  return {};
}

/// One of the two region tables ([MS-VHDX] 2.2.3).
TByteDynArray ReadRegionTable(IDevice& file) {
  for (const std::uint64_t place : {0x30000U, 0x40000U}) {
    TByteDynArray table = BytesAt(file, place, 0x10000);
    if (IsAt(table, 0, "regi")) return table;
  }
  return {};
}

}  // namespace

TBlockMap ReadVHDX(IDevice& file) {
  constexpr std::uint64_t present = 6;        // state of a block, bits 0 to 2
  constexpr std::uint64_t partlyPresent = 7;  // the rest lies in a parent
  constexpr std::uint64_t unit = 0x100000;    // bytes; places are in bits 20 and up
  constexpr std::uint64_t sectorsOfBitmap = 1U << 23;
  TBlockMap map;
  if (!IsAt(BytesAt(file, 0, 8), 0, "vhdxfile")) return {};
  const TByteDynArray regions = ReadRegionTable(file);
  const auto bat = FindEntry(regions, 16, ReadLe32(regions, 8), RegionBAT);
  const auto metadataRegion = FindEntry(regions, 16, ReadLe32(regions, 8), RegionMetadata);
  if (bat.empty() || metadataRegion.empty()) return {};
  const TByteDynArray metadata =
      BytesAt(file, ReadLe64(metadataRegion, 16), std::min<std::uint32_t>(ReadLe32(metadataRegion, 24), 0x100000));
  if (!IsAt(metadata, 0, "metadata")) return {};
  const auto item = [&](const TGuid& id, std::size_t offset, std::size_t size) {
    const auto entry = FindEntry(metadata, 32, ReadLe16(metadata, 10), id);
    return entry.empty() ? 0 : ReadNumber(metadata, true, size, ReadLe32(entry, 16) + offset);
  };
  if (!SetSizes(map, item(VirtualDiskSize, 0, 8), item(FileParameters, 0, 4))) return {};
  map.NeedsParent = (item(FileParameters, 4, 4) & 2) != 0;
  const std::uint64_t sectorSize = item(LogicalSectorSize, 0, 4);
  const std::uint64_t blocks = BlockCount(map);
  const std::uint64_t ratio = sectorsOfBitmap * sectorSize / static_cast<std::uint64_t>(map.BlockSize);
  if (ratio == 0) return {};
  // Behind so many blocks stands the entry of a bit map.
  const TByteDynArray table = BytesAt(file, ReadLe64(bat, 16), (blocks + (blocks - 1) / ratio) * 8);
  if (table.empty()) return {};
  for (std::uint64_t i = 0; i < blocks; ++i) {
    const std::uint64_t entry = ReadLe64(table, static_cast<std::size_t>((i + i / ratio) * 8));
    const std::uint64_t state = entry & 7;
    const bool here = (state == present || state == partlyPresent) && entry / unit * unit <= LargestDisk;
    map.Places.push_back(here ? static_cast<std::int64_t>(entry / unit * unit) : -1);
  }
  return map;
}

TBlockMap ReadHDD(IDevice& file) {
  TBlockMap map;
  const TByteDynArray head = BytesAt(file, 0, 64);
  const bool inBlocks = IsAt(head, 0, "WithouFreSpacExt");  // places count blocks, else sectors
  if (!inBlocks && !IsAt(head, 0, "WithoutFreeSpace")) return {};
  const std::uint64_t sectors = inBlocks ? ReadLe64(head, 36) : ReadLe32(head, 36);
  const std::uint64_t sectorsOfBlock = ReadLe32(head, 28);
  if (sectors > LargestDisk / Sector || !SetSizes(map, sectors * Sector, sectorsOfBlock * Sector)) return {};
  const std::uint64_t blocks = BlockCount(map);
  const TByteDynArray table = BytesAt(file, 64, blocks * 4);
  if (table.empty() || blocks > ReadLe32(head, 32)) return {};
  for (std::size_t i = 0; i < blocks; ++i) {
    const std::int64_t entry = ReadLe32(table, 4 * i);
    map.Places.push_back(entry == 0 ? -1 : entry * (inBlocks ? map.BlockSize : Sector));
  }
  return map;
}

TOpenedDevice OpenBlockMapDisk(std::unique_ptr<IDevice> file, TBlockMapReader* reader) {
  TBlockMap map = reader(*file);
  if (map.DiskSize == 0) return {std::move(file), 0};
  if (map.NeedsParent) return {nullptr, EOPNOTSUPP};
  return {std::make_unique<TBlockMapDisk>(std::move(file), std::move(map)), 0};
}

}  // namespace brenlow

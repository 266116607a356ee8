// SPDX-License-Identifier: GPL-3.0-or-later
// Virtual hard disks, second version. Format facts: Microsoft, [MS-VHDX] 1.0.
#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "core/images/vhdx_log.h"
#include "core/images/virtual_disks.h"
#include "core/numbers.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::size_t GuidSize = 16;
using TGuid = std::array<std::uint8_t, GuidSize>;  // as it lies in a file
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
constexpr TGuid ParentLocator = {0x2D, 0x5F, 0xD3, 0xA8, 0x0B, 0xB3, 0x4D, 0x45,
                                 0xAB, 0xF7, 0xD3, 0xD8, 0x48, 0x34, 0xAB, 0x0C};

constexpr std::uint64_t SectorsOfBitmap = 1U << 23;  // that one bitmap covers: a chunk
constexpr std::uint64_t Unit = 0x100000;             // bytes; places are in bits 20 and up of an entry
constexpr std::size_t MostPairs = 64;                // of a parent locator, of up to 128 KiB each; real ones have six

// States of a block, bits 0 to 2 of its entry. A block that is nowhere is the parent's, if there is one.
constexpr std::uint64_t NotPresent = 0;
constexpr std::uint64_t Present = 6;
constexpr std::uint64_t PartlyPresent = 7;

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

/// Of the two headers the sound one with the higher number (2.2.2); empty when neither is.
TByteDynArray CurrentHeader(IDevice& file) {
  TByteDynArray best;
  for (const std::uint64_t place : {0x10000U, 0x20000U}) {
    TByteDynArray head = BytesAt(file, place, 0x1000);
    const bool sound = IsAt(head, 0, "head") && Crc32C(head, 4) == ReadLe32(head, 4);
    if (sound && (best.empty() || ReadLe64(head, 8) > ReadLe64(best, 8))) best = std::move(head);
  }
  return best;
}

/// One of the two region tables (2.2.3).
TByteDynArray ReadRegionTable(IDevice& file) {
  for (const std::uint64_t place : {0x30000U, 0x40000U}) {
    TByteDynArray table = BytesAt(file, place, 0x10000);
    if (IsAt(table, 0, "regi")) return table;
  }
  return {};
}

struct TLayout {
  std::int64_t DiskSize = 0;  // bytes
  std::int64_t BlockSize = 0;
  std::int64_t SectorSize = 512;
  std::int64_t Table = 0;  // byte in the file
  std::int64_t Ratio = 0;  // blocks of a chunk; the entry of its bit map follows them
  bool HasParent = false;
  TByteDynArray Metadata;

  std::int64_t EntryOf(std::int64_t block) const { return Table + (block + block / Ratio) * 8; }
  std::int64_t BitmapEntryOf(std::int64_t block) const { return Table + (block / Ratio * (Ratio + 1) + Ratio) * 8; }
};

bool ReadLayout(IDevice& file, TLayout& layout) {
  const TByteDynArray regions = ReadRegionTable(file);
  const auto bat = FindEntry(regions, 16, ReadLe32(regions, 8), RegionBAT);
  const auto metadata = FindEntry(regions, 16, ReadLe32(regions, 8), RegionMetadata);
  if (bat.empty() || metadata.empty()) return false;
  layout.Metadata = BytesAt(file, ReadLe64(metadata, 16), std::min<std::uint32_t>(ReadLe32(metadata, 24), 0x100000));
  if (!IsAt(layout.Metadata, 0, "metadata")) return false;
  const auto item = [&](const TGuid& id, std::size_t offset, std::size_t size) {
    const auto entry = FindEntry(layout.Metadata, 32, ReadLe16(layout.Metadata, 10), id);
    return entry.empty() ? 0 : ReadNumber(layout.Metadata, true, size, ReadLe32(entry, 16) + offset);
  };
  const std::uint64_t diskSize = item(VirtualDiskSize, 0, 8);
  const std::uint64_t blockSize = item(FileParameters, 0, 4);
  const std::uint64_t sectorSize = item(LogicalSectorSize, 0, 4);
  // Blocks of 1 MiB up to 256 MiB, by powers of two (2.6.2.1).
  const bool isBlock = blockSize >= Unit && blockSize <= 256 * Unit && (blockSize & (blockSize - 1)) == 0;
  if (!AreSizesSound(diskSize, blockSize) || !isBlock || (sectorSize != 512 && sectorSize != 4096)) return false;
  layout.DiskSize = static_cast<std::int64_t>(diskSize);
  layout.BlockSize = static_cast<std::int64_t>(blockSize);
  layout.SectorSize = static_cast<std::int64_t>(sectorSize);
  layout.Ratio = static_cast<std::int64_t>(SectorsOfBitmap * sectorSize / blockSize);
  layout.HasParent = (item(FileParameters, 4, 4) & 2) != 0;
  const std::uint64_t blocks = CeilDiv(diskSize, blockSize);
  const std::uint64_t place = ReadLe64(bat, 16);
  layout.Table = static_cast<std::int64_t>(place);
  return FitsInFile(file, place, blocks + (blocks - 1) / static_cast<std::uint64_t>(layout.Ratio), 8);
}

class TVhdxDisk final : public TVirtualDisk {
 public:
  TVhdxDisk(std::unique_ptr<IDevice> file, TLayout layout, std::unique_ptr<IDevice> parent)
      : TVirtualDisk(layout.DiskSize, OneFile(std::move(file))), FLayout(std::move(layout)), FReader(File()) {
    SetParent(std::move(parent));
  }

 private:
  TDiskPiece PieceAt(std::int64_t position) override {
    const std::int64_t block = position / FLayout.BlockSize;
    const std::int64_t within = position % FLayout.BlockSize;
    TDiskPiece piece{TDiskPiece::Zeros, FLayout.BlockSize - within, &File(), 0};
    const auto entry = FReader.Number(FLayout.EntryOf(block), 8, true);
    const std::uint64_t state = entry.value_or(0) & 7;
    const std::uint64_t place = entry.value_or(0) / Unit * Unit;
    if (!entry || place > LargestVirtualDisk) {
      piece.Kind = TDiskPiece::Unreadable;
    } else if (state == NotPresent) {
      piece.Kind = TDiskPiece::InParent;
    } else if (state == Present || state == PartlyPresent) {
      piece.Kind = TDiskPiece::InFile;
      piece.Place = static_cast<std::int64_t>(place) + within;
      if (state == PartlyPresent && HasParent()) TakeWritten(piece, block, within);
    }
    return piece;
  }

  /// Takes what the bit map of the block's chunk says to be written here.
  void TakeWritten(TDiskPiece& piece, std::int64_t block, std::int64_t within) {
    const auto bitmap = FReader.Number(FLayout.BitmapEntryOf(block), 8, true);
    if (!bitmap || (*bitmap & 7) != Present) {
      piece.Kind = TDiskPiece::Unreadable;
      return;
    }
    const auto bits = static_cast<std::int64_t>(*bitmap / Unit * Unit % LargestVirtualDisk);
    const std::int64_t blockInChunk = block % FLayout.Ratio * (FLayout.BlockSize / FLayout.SectorSize);
    TakeRun(piece, within, FLayout.SectorSize, [&](std::int64_t sector) {
      const std::int64_t number = blockInChunk + sector;
      const auto byte = FReader.Number(bits + number / 8, 1, true);
      return byte && (*byte >> (number % 8) & 1) != 0;
    });
  }

  TLayout FLayout;
  TTableReader FReader;
};

// ---- parents --------------------------------------------------------------------------------

std::u16string TextAt(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t size) {
  std::u16string text;
  for (std::size_t i = 0; i + 2 <= size; i += 2) text += static_cast<char16_t>(ReadLe16(bytes, at + i));
  return text;
}

/// As the parent locator writes it: "{83ed0ec3-24c8-49a6-a959-5e4bd1288791}".
std::string GuidText(std::span<const std::uint8_t> guid) {
  char text[48];
  std::snprintf(text, sizeof(text), "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", ReadLe32(guid, 0),
                static_cast<unsigned>(ReadLe16(guid, 4)), static_cast<unsigned>(ReadLe16(guid, 6)), unsigned{guid[8]},
                unsigned{guid[9]}, unsigned{guid[10]}, unsigned{guid[11]}, unsigned{guid[12]}, unsigned{guid[13]},
                unsigned{guid[14]}, unsigned{guid[15]});
  return text;
}

struct TLocator {
  std::vector<std::string> Linkages;  // identities of what the parent holds
  std::string Relative;
  std::string Absolute;
};

/// Pairs of key and value (2.6.2.6).
TLocator ReadLocator(std::span<const std::uint8_t> metadata) {
  TLocator locator;
  const auto entry = FindEntry(metadata, 32, ReadLe16(metadata, 10), ParentLocator);
  if (entry.empty() || ReadLe32(entry, 16) >= metadata.size()) return locator;
  const auto item = metadata.subspan(ReadLe32(entry, 16));
  const std::size_t count = std::min<std::size_t>(ReadLe16(item, 18), MostPairs);
  for (std::size_t i = 0; i < count && 20 + (i + 1) * 12 <= item.size(); ++i) {
    const auto pair = item.subspan(20 + i * 12, 12);
    const std::u16string key = TextAt(item, ReadLe32(pair, 0), ReadLe16(pair, 8));
    const std::string value = ToUtf8(TextAt(item, ReadLe32(pair, 4), ReadLe16(pair, 10)));
    if (key == u"parent_linkage" || key == u"parent_linkage2")
      locator.Linkages.push_back(ToUtf8(LowerCase(FromUtf8(value))));
    if (key == u"relative_path") locator.Relative = value;
    if (key == u"absolute_win32_path" || key == u"volume_path") locator.Absolute = value;
  }
  return locator;
}

TOpenedDevice OpenVhdxParent(const TImageFile& image, const TLayout& layout) {
  const TLocator locator = ReadLocator(layout.Metadata);
  TParentQuery query;
  query.Relative = locator.Relative;
  for (const std::string& name : {locator.Relative, locator.Absolute}) {
    if (!name.empty()) query.Names.push_back(name);
  }
  query.IsIt = [&](IDevice& file) {
    constexpr std::size_t dataGuid = 32;
    const TByteDynArray head = CurrentHeader(file);
    if (head.empty()) return false;
    const std::string guid = GuidText(std::span(head).subspan(dataGuid, GuidSize));
    return std::find(locator.Linkages.begin(), locator.Linkages.end(), guid) != locator.Linkages.end();
  };
  return OpenParent(image, query);
}

}  // namespace

bool IsVHDX(const TImageMarks& marks) { return IsAt(marks.Head, 0, "vhdxfile"); }

TOpenedDevice OpenVHDX(TImageFile image) {
  constexpr std::size_t logGuid = 48;
  const TByteDynArray head = CurrentHeader(*image.File);
  if (head.empty()) return RefuseImage(TImageProblem::Damaged, "VHDX");
  TVhdxLogPlace log;
  log.Guid.assign(head.begin() + logGuid, head.begin() + logGuid + GuidSize);
  log.Length = ReadLe32(head, 68);
  log.Start = static_cast<std::int64_t>(std::min(ReadLe64(head, 72), LargestVirtualDisk));
  if (!IsAllZero(log.Guid)) image.File = WithReplayedLog(std::move(image.File), log);
  if (!image.File) return RefuseImage(TImageProblem::Damaged, "VHDX (log)");
  TLayout layout;
  if (!ReadLayout(*image.File, layout)) return RefuseImage(TImageProblem::Damaged, "VHDX");
  std::unique_ptr<IDevice> parent;
  if (layout.HasParent) {
    TOpenedDevice opened = OpenVhdxParent(image, layout);
    if (!opened.Device) return opened;
    parent = std::move(opened.Device);
  }
  return {std::make_unique<TVhdxDisk>(std::move(image.File), std::move(layout), std::move(parent)), 0};
}

}  // namespace brenlow

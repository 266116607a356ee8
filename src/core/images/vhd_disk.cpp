// SPDX-License-Identifier: GPL-3.0-or-later
// Virtual hard disks: fixed, growing, differencing.
// Format facts: Microsoft, "Virtual Hard Disk Image Format Specification" 1.0.
#include <algorithm>
#include <utility>

#include "core/images/virtual_disks.h"
#include "core/numbers.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::int64_t Sector = 512;
constexpr std::size_t FooterSize = 512;
constexpr std::size_t DynamicHeadSize = 1024;
constexpr std::uint32_t Fixed = 2;
constexpr std::uint32_t Dynamic = 3;
constexpr std::uint32_t Differencing = 4;
constexpr std::uint32_t NoBlock = 0xFFFFFFFF;
constexpr std::size_t GuidSize = 16;
constexpr std::size_t OwnGuid = 0x44;               // of the footer
constexpr std::size_t ParentGuid = 0x28;            // of the dynamic head
constexpr std::size_t ParentName = 0x40;            // 256 units of UTF-16, big-endian
constexpr std::size_t Locators = 0x240;             // eight of 24 bytes
constexpr std::uint32_t RelativePath = 0x57327275;  // "W2ru": UTF-16, little-endian

TByteDynArray FooterOf(IDevice& file) {
  const std::int64_t end = file.Size() - static_cast<std::int64_t>(FooterSize);
  return end < 0 ? TByteDynArray() : BytesAt(file, static_cast<std::uint64_t>(end), FooterSize);
}

/// The checksum is the complement of the sum of all other bytes.
bool IsFooter(std::span<const std::uint8_t> footer) {
  constexpr std::size_t checksum = 0x40;
  if (!IsAt(footer, 0, "conectix")) return false;
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < footer.size(); ++i) {
    if (i < checksum || i >= checksum + 4) sum += footer[i];
  }
  return ReadBe32(footer, checksum) == ~sum;
}

/// All but the footer.
class TFixedDisk final : public TVirtualDisk {
 public:
  TFixedDisk(std::int64_t size, std::unique_ptr<IDevice> file) : TVirtualDisk(size, OneFile(std::move(file))) {}

 private:
  TDiskPiece PieceAt(std::int64_t position) override {
    return {TDiskPiece::InFile, Size() - position, &File(), position};
  }
};

class TGrowingDisk final : public TVirtualDisk {
 public:
  TGrowingDisk(std::unique_ptr<IDevice> file, std::span<const std::uint8_t> footer, std::span<const std::uint8_t> head,
               std::unique_ptr<IDevice> parent)
      : TVirtualDisk(static_cast<std::int64_t>(ReadBe64(footer, 0x30)), OneFile(std::move(file))),
        FBlockSize(ReadBe32(head, 0x20)),
        FTable(static_cast<std::int64_t>(ReadBe64(head, 0x10))),
        FReader(File()) {
    SetParent(std::move(parent));
  }

 private:
  TDiskPiece PieceAt(std::int64_t position) override {
    const std::int64_t within = position % FBlockSize;
    TDiskPiece piece{TDiskPiece::Zeros, FBlockSize - within, &File(), 0};
    const auto entry = FReader.Number(FTable + position / FBlockSize * 4, 4, false);
    if (!entry) {
      piece.Kind = TDiskPiece::Unreadable;
    } else if (*entry == NoBlock) {
      piece.Kind = TDiskPiece::InParent;
    } else {
      // Each block is preceded by a bitmap of its sectors, which fills whole sectors.
      const std::int64_t bitmap = static_cast<std::int64_t>(*entry) * Sector;
      const std::int64_t bitmapSize = CeilDiv(FBlockSize / Sector / 8, Sector) * Sector;
      piece.Kind = TDiskPiece::InFile;
      piece.Place = bitmap + bitmapSize + within;
      if (!HasParent()) return piece;
      TakeRun(piece, within, Sector, [&](std::int64_t sector) {
        const auto bits = FReader.Number(bitmap + sector / 8, 1, false);
        return bits && (*bits >> (7 - sector % 8) & 1) != 0;
      });
    }
    return piece;
  }

  std::int64_t FBlockSize;  // bytes
  std::int64_t FTable;
  TTableReader FReader;
};

std::string NameOf(std::span<const std::uint8_t> bytes, bool littleEndian) {
  TString name;
  for (std::size_t at = 0; at + 2 <= bytes.size(); at += 2) {
    const auto unit = static_cast<char16_t>(ReadNumber(bytes, littleEndian, 2, at));
    if (unit == 0) break;
    name += unit;
  }
  return ToUtf8(name);
}

TOpenedDevice OpenVhdParent(const TImageFile& image, std::span<const std::uint8_t> head) {
  TParentQuery query;
  query.Names.push_back(NameOf(head.subspan(ParentName, 512), false));
  for (std::size_t i = 0; i < 8; ++i) {
    const auto locator = head.subspan(Locators + i * 24, 24);
    if (ReadBe32(locator, 0) != RelativePath) continue;
    query.Relative = NameOf(BytesAt(*image.File, ReadBe64(locator, 16), std::min(ReadBe32(locator, 8), 4096U)), true);
  }
  query.IsIt = [head](IDevice& file) {
    const TByteDynArray footer = FooterOf(file);
    return IsFooter(footer) &&
           std::equal(footer.begin() + OwnGuid, footer.begin() + OwnGuid + GuidSize, head.begin() + ParentGuid);
  };
  return OpenParent(image, query);
}

TOpenedDevice OpenGrowing(TImageFile image, std::span<const std::uint8_t> footer) {
  const std::uint64_t diskSize = ReadBe64(footer, 0x30);
  const TByteDynArray head = BytesAt(*image.File, ReadBe64(footer, 0x10), DynamicHeadSize);
  const std::uint64_t blockSize = ReadBe32(head, 0x20);
  const bool sound = IsAt(head, 0, "cxsparse") && AreSizesSound(diskSize, blockSize) &&
                     CeilDiv(diskSize, blockSize) <= ReadBe32(head, 0x1C) &&
                     FitsInFile(*image.File, ReadBe64(head, 0x10), CeilDiv(diskSize, blockSize), 4);
  if (!sound) return RefuseImage(TImageProblem::Damaged, "VHD");
  std::unique_ptr<IDevice> parent;
  if (ReadBe32(footer, 0x3C) == Differencing) {
    TOpenedDevice opened = OpenVhdParent(image, head);
    if (!opened.Device) return opened;
    parent = std::move(opened.Device);
  }
  return {std::make_unique<TGrowingDisk>(std::move(image.File), footer, head, std::move(parent)), 0};
}

/// The footer of a growing disk is at its end, with a copy at its start; empty for other files.
std::span<const std::uint8_t> GrowingFooter(const TImageMarks& marks) {
  for (const TByteDynArray* footer : {&marks.Head, &marks.Tail}) {
    const std::uint32_t kind = ReadBe32(*footer, 0x3C);
    const bool isFooter = footer->size() >= FooterSize && IsAt(*footer, 0, "conectix");
    if (isFooter && (kind == Dynamic || kind == Differencing)) return std::span(*footer).first(FooterSize);
  }
  return {};
}

bool IsFixed(const TImageMarks& marks) { return IsFooter(marks.Tail) && ReadBe32(marks.Tail, 0x3C) == Fixed; }

}  // namespace

bool IsVHD(const TImageMarks& marks) { return !GrowingFooter(marks).empty() || IsFixed(marks); }

TOpenedDevice OpenVHD(TImageFile image) {
  const TImageMarks marks(*image.File);
  if (const auto footer = GrowingFooter(marks); !footer.empty()) return OpenGrowing(std::move(image), footer);
  const std::int64_t size = image.File->Size() - static_cast<std::int64_t>(FooterSize);
  if (size <= 0) return RefuseImage(TImageProblem::Damaged, "VHD");
  return {std::make_unique<TFixedDisk>(size, std::move(image.File)), 0};
}

}  // namespace brenlow

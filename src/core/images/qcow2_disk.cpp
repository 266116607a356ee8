// SPDX-License-Identifier: GPL-3.0-or-later
// QEMU's copy-on-write disks, versions 2 and 3.
// Format facts: QEMU project, "The QCOW2 format" (docs/interop/qcow2).
#include <algorithm>
#include <utility>

#include "core/images/unpack.h"
#include "core/images/virtual_disks.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::size_t HeadSize = 112;
constexpr std::uint64_t PlaceBits = 0x00FF'FFFF'FFFF'FE00;  // 9 to 55 of an entry
constexpr std::uint64_t PackedBit = std::uint64_t{1} << 62;
constexpr std::uint64_t ZeroBit = 1;  // version 3
constexpr std::uint64_t ExternalData = 4;
constexpr std::uint64_t OtherPacking = 8;
constexpr std::uint64_t ExtendedEntries = 16;
constexpr std::uint64_t KnownFeatures = 0x1F;
constexpr std::uint32_t BackingFormat = 0xE2792ACA;  // a header extension

struct THead {
  std::uint32_t Version = 0;
  std::uint64_t BackingPlace = 0;
  std::uint32_t BackingLength = 0;
  std::uint32_t ClusterBits = 0;
  std::uint64_t DiskSize = 0;  // bytes
  std::uint32_t Encryption = 0;
  std::uint32_t TableEntries = 0;  // of the upper table
  std::uint64_t Table = 0;
  std::uint64_t Features = 0;  // without knowing these, it cannot be read
  std::uint32_t Length = 72;
  TPacking Packing = TPacking::Deflate;
};

THead ReadHead(IDevice& file) {
  TByteDynArray bytes(HeadSize);
  bytes.resize(file.Read(0, bytes));
  THead head;
  head.Version = ReadBe32(bytes, 4);
  head.BackingPlace = ReadBe64(bytes, 8);
  head.BackingLength = ReadBe32(bytes, 16);
  head.ClusterBits = ReadBe32(bytes, 20);
  head.DiskSize = ReadBe64(bytes, 24);
  head.Encryption = ReadBe32(bytes, 32);
  head.TableEntries = ReadBe32(bytes, 36);
  head.Table = ReadBe64(bytes, 40);
  if (head.Version >= 3) {
    head.Features = ReadBe64(bytes, 72);
    head.Length = ReadBe32(bytes, 100);
  }
  if ((head.Features & OtherPacking) != 0 && bytes.size() > 104 && bytes[104] == 1) head.Packing = TPacking::Zstd;
  return head;
}

class TQcow2Disk final : public TVirtualDisk {
 public:
  TQcow2Disk(std::unique_ptr<IDevice> file, const THead& head, std::unique_ptr<IDevice> parent)
      : TVirtualDisk(static_cast<std::int64_t>(head.DiskSize), OneFile(std::move(file))),
        FHead(head),
        FClusterSize(std::int64_t{1} << head.ClusterBits),
        FReader(File()) {
    SetParent(std::move(parent));
  }

 private:
  TDiskPiece PieceAt(std::int64_t position) override {
    const std::int64_t perTable = FClusterSize / 8;
    const std::int64_t cluster = position / FClusterSize;
    const std::int64_t within = position % FClusterSize;
    TDiskPiece piece{TDiskPiece::InParent, FClusterSize - within, &File(), 0};
    const auto upper = FReader.Number(static_cast<std::int64_t>(FHead.Table) + cluster / perTable * 8, 8, false);
    const auto table = static_cast<std::int64_t>(upper.value_or(0) & PlaceBits);
    if (upper && table == 0) {
      piece.Length = (cluster / perTable + 1) * perTable * FClusterSize - position;
      return piece;
    }
    const auto entry = upper ? FReader.Number(table + cluster % perTable * 8, 8, false) : upper;
    if (!entry) {
      piece.Kind = TDiskPiece::Unreadable;
    } else if ((*entry & PackedBit) != 0) {
      piece.Kind = TDiskPiece::Packed;
      piece.Place = static_cast<std::int64_t>(*entry & (PackedBit - 1));
    } else if (FHead.Version >= 3 && (*entry & ZeroBit) != 0) {
      piece.Kind = TDiskPiece::Zeros;
    } else if ((*entry & PlaceBits) != 0) {
      piece.Kind = TDiskPiece::InFile;
      piece.Place = static_cast<std::int64_t>(*entry & PlaceBits) + within;
    }
    return piece;
  }

  std::size_t ReadPacked(const TDiskPiece& piece, std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (FUnpacked != piece.Place) Load(piece.Place);
    const auto within = static_cast<std::size_t>(position % FClusterSize);
    if (within >= FCluster.size()) return 0;
    const std::size_t count = std::min(buffer.size(), FCluster.size() - within);
    std::copy_n(FCluster.begin() + static_cast<std::ptrdiff_t>(within), count, buffer.begin());
    return count;
  }

  /// The entry holds the first byte and, above it, how many more sectors the packed data touches.
  void Load(std::int64_t entry) {
    constexpr std::int64_t sector = 512;
    const int placeBits = 62 - (static_cast<int>(FHead.ClusterBits) - 8);
    const std::int64_t place = entry & ((std::int64_t{1} << placeBits) - 1);
    const std::int64_t length = ((entry >> placeBits) + 1) * sector - place % sector;
    TByteDynArray packed(static_cast<std::size_t>(length));
    packed.resize(File().Read(place, packed));
    FCluster.resize(static_cast<std::size_t>(FClusterSize));
    FCluster.resize(Unpack(FHead.Packing, packed, FCluster));
    FUnpacked = entry;
  }

  THead FHead;
  std::int64_t FClusterSize;  // bytes
  TTableReader FReader;
  std::int64_t FUnpacked = -1;  // the entry whose content `FCluster` has
  TByteDynArray FCluster;
};

/// What the header says of the parent's format; empty when nothing.
std::string ReadBackingFormat(IDevice& file, const THead& head) {
  const TByteDynArray bytes =
      BytesAt(file, 0, std::min<std::uint64_t>(static_cast<std::uint64_t>(file.Size()), 0x1000));
  for (std::size_t at = head.Length; at + 8 <= bytes.size();) {
    const std::uint32_t type = ReadBe32(bytes, at);
    const std::uint32_t length = ReadBe32(bytes, at + 4);
    if (type == 0 || length > bytes.size() - at - 8) break;
    const auto text = bytes.begin() + static_cast<std::ptrdiff_t>(at + 8);
    if (type == BackingFormat) return {text, text + length};
    at += 8 + (length + 7) / 8 * 8;
  }
  return {};
}

TOpenedDevice OpenBacking(const TImageFile& image, const THead& head) {
  const TByteDynArray name = BytesAt(*image.File, head.BackingPlace, std::min(head.BackingLength, 1023U));
  TParentQuery query;
  query.Names = {std::string(name.begin(), name.end())};
  query.Raw = ReadBackingFormat(*image.File, head) == "raw";
  return OpenParent(image, query);
}

}  // namespace

bool IsQcow2(const TImageMarks& marks) { return IsAt(marks.Head, 0, "QFI\xfb"); }

TOpenedDevice OpenQcow2(TImageFile image) {
  const THead head = ReadHead(*image.File);
  if (head.Version != 2 && head.Version != 3) return RefuseImage(TImageProblem::UnknownKind, "qcow, version 1");
  if (head.Encryption != 0) return RefuseImage(TImageProblem::Encrypted, "qcow2");
  if ((head.Features & ExternalData) != 0) return RefuseImage(TImageProblem::UnknownKind, "qcow2, external data file");
  if ((head.Features & ExtendedEntries) != 0) return RefuseImage(TImageProblem::UnknownKind, "qcow2, extended L2");
  if ((head.Features & ~KnownFeatures) != 0) return RefuseImage(TImageProblem::UnknownKind, "qcow2");
  const bool clusters = head.ClusterBits >= 9 && head.ClusterBits <= 21;
  const std::uint64_t perEntry = clusters ? std::uint64_t{1} << (2 * head.ClusterBits - 3) : 1;  // bytes
  const bool sound = clusters && head.DiskSize > 0 && head.DiskSize <= LargestVirtualDisk &&
                     CeilDiv(head.DiskSize, perEntry) <= head.TableEntries &&
                     TablesFitInFile(*image.File, head.Table, CeilDiv(head.DiskSize, perEntry), 8, false,
                                     std::uint64_t{1} << head.ClusterBits);
  if (!sound) return RefuseImage(TImageProblem::Damaged, "qcow2");
  std::unique_ptr<IDevice> parent;
  if (head.BackingPlace != 0) {
    TOpenedDevice opened = OpenBacking(image, head);
    if (!opened.Device) return opened;
    parent = std::move(opened.Device);
  }
  return {std::make_unique<TQcow2Disk>(std::move(image.File), head, std::move(parent)), 0};
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// Virtual Disk Image 1.1. Format facts: libyal, "Virtual Disk Image (VDI) format".
#include <algorithm>
#include <filesystem>
#include <utility>

#include "core/images/virtual_disks.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::uint32_t Signature = 0xBEDA107F;
constexpr std::uint32_t Differencing = 4;
constexpr std::uint32_t ZeroBlock = 0xFFFFFFFE;
constexpr std::uint32_t NoBlock = 0xFFFFFFFF;  // never written: of a difference, the parent has it
constexpr std::size_t HeadSize = 512;
constexpr std::size_t GuidSize = 16;
constexpr std::size_t OwnGuid = 0x188;
constexpr std::size_t OwnState = 0x198;  // changes whenever the disk is written to
constexpr std::size_t ParentGuid = 0x1A8;
constexpr std::size_t ParentState = 0x1B8;
constexpr int MostFilesBeside = 10'000;

class TVdiDisk final : public TVirtualDisk {
 public:
  TVdiDisk(std::unique_ptr<IDevice> file, std::span<const std::uint8_t> head, std::unique_ptr<IDevice> parent)
      : TVirtualDisk(static_cast<std::int64_t>(ReadLe64(head, 0x170)), OneFile(std::move(file))),
        FBlockSize(ReadLe32(head, 0x178)),
        FTable(ReadLe32(head, 0x154)),
        FData(ReadLe32(head, 0x158)),
        FReader(File()) {
    SetParent(std::move(parent));
  }

 private:
  TDiskPiece PieceAt(std::int64_t position) override {
    const std::int64_t within = position % FBlockSize;
    TDiskPiece piece{TDiskPiece::Zeros, FBlockSize - within, &File(), 0};
    const auto entry = FReader.Number(FTable + position / FBlockSize * 4, 4, true);
    if (!entry) {
      piece.Kind = TDiskPiece::Unreadable;
    } else if (*entry == NoBlock) {
      piece.Kind = TDiskPiece::InParent;
    } else if (*entry != ZeroBlock) {
      piece.Kind = TDiskPiece::InFile;
      piece.Place = FData + static_cast<std::int64_t>(*entry) * FBlockSize + within;
    }
    return piece;
  }

  std::int64_t FBlockSize;  // bytes
  std::int64_t FTable;      // bytes in the file
  std::int64_t FData;
  TTableReader FReader;
};

bool SameGuid(std::span<const std::uint8_t> a, std::size_t atA, std::span<const std::uint8_t> b, std::size_t atB) {
  return a.size() >= atA + GuidSize && b.size() >= atB + GuidSize &&
         std::equal(a.begin() + static_cast<std::ptrdiff_t>(atA),
                    a.begin() + static_cast<std::ptrdiff_t>(atA + GuidSize),
                    b.begin() + static_cast<std::ptrdiff_t>(atB));
}

/// The format knows the parent by its identity alone: the files beside the child are asked.
TOpenedDevice OpenVdiParent(const TImageFile& image, std::span<const std::uint8_t> head) {
  TParentQuery query;
  std::error_code error;
  int seen = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::absolute(image.Path, error).parent_path(), error)) {
    if (++seen > MostFilesBeside) break;
    if (entry.path().extension() != ".vdi") continue;
    const TOpenedDevice candidate = OpenDevice(entry.path().string());
    if (candidate.Device && SameGuid(BytesAt(*candidate.Device, 0, HeadSize), OwnGuid, head, ParentGuid)) {
      query.Names.push_back(entry.path().filename().string());
    }
  }
  if (query.Names.empty()) return RefuseImage(TImageProblem::ParentMissing, "*.vdi");
  query.IsIt = [head](IDevice& file) {
    const std::span state = head.subspan(ParentState, GuidSize);
    return IsAllZero(state) || SameGuid(BytesAt(file, 0, HeadSize), OwnState, head, ParentState);
  };
  return OpenParent(image, query);
}

}  // namespace

bool IsVDI(const TImageMarks& marks) { return ReadLe32(marks.Head, 0x40) == Signature; }

TOpenedDevice OpenVDI(TImageFile image) {
  const TByteDynArray head = BytesAt(*image.File, 0, HeadSize);
  const std::uint64_t diskSize = ReadLe64(head, 0x170);
  const std::uint64_t blockSize = ReadLe32(head, 0x178);
  const bool sound = AreSizesSound(diskSize, blockSize) &&
                     FitsInFile(*image.File, ReadLe32(head, 0x154), CeilDiv(diskSize, blockSize), 4);
  if (!sound) return RefuseImage(TImageProblem::Damaged, "VDI");
  std::unique_ptr<IDevice> parent;
  if (ReadLe32(head, 0x4C) == Differencing) {
    TOpenedDevice opened = OpenVdiParent(image, head);
    if (!opened.Device) return opened;
    parent = std::move(opened.Device);
  }
  return {std::make_unique<TVdiDisk>(std::move(image.File), head, std::move(parent)), 0};
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// Growing disks of Parallels, and their bundles of differences.
// Format facts: QEMU project, "Parallels Expandable Image File Format" and "Parallels Disk Format"
// (docs/interop/parallels, prl-xml).
#include <algorithm>
#include <string_view>
#include <utility>

#include "core/images/virtual_disks.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::int64_t Sector = 512;
constexpr std::size_t HeadSize = 64;
constexpr std::string_view InSectors = "WithoutFreeSpace";  // places count sectors
constexpr std::string_view InBlocks = "WithouFreSpacExt";   // places count blocks
constexpr std::uint64_t LargestDescriptor = 1 << 20;        // bytes

class TParallelsDisk final : public TVirtualDisk {
 public:
  TParallelsDisk(std::unique_ptr<IDevice> file, std::int64_t size, std::int64_t blockSize, bool inBlocks,
                 std::unique_ptr<IDevice> parent)
      : TVirtualDisk(size, OneFile(std::move(file))),
        FBlockSize(blockSize),
        FPlaceUnit(inBlocks ? blockSize : Sector),
        FReader(File()) {
    SetParent(std::move(parent));
  }

 private:
  TDiskPiece PieceAt(std::int64_t position) override {
    const std::int64_t within = position % FBlockSize;
    TDiskPiece piece{TDiskPiece::InParent, FBlockSize - within, &File(), 0};
    const auto entry = FReader.Number(static_cast<std::int64_t>(HeadSize) + position / FBlockSize * 4, 4, true);
    if (!entry) {
      piece.Kind = TDiskPiece::Unreadable;
    } else if (*entry != 0) {
      piece.Kind = TDiskPiece::InFile;
      piece.Place = static_cast<std::int64_t>(*entry) * FPlaceUnit + within;
    }
    return piece;
  }

  std::int64_t FBlockSize;  // bytes
  std::int64_t FPlaceUnit;
  TTableReader FReader;
};

/// Takes the text of the next element of a name off the front; false when there is none.
bool NextElement(std::string_view& text, std::string_view name, std::string_view& content) {
  const std::string open = "<" + std::string(name) + ">";
  const std::string close = "</" + std::string(name) + ">";
  const std::size_t begin = text.find(open);
  const std::size_t end = begin == std::string_view::npos ? begin : text.find(close, begin);
  if (end == std::string_view::npos) return false;
  content = text.substr(begin + open.size(), end - begin - open.size());
  text.remove_prefix(end + close.size());
  return true;
}

std::string ElementOf(std::string_view text, std::string_view name) {
  std::string_view content;
  return NextElement(text, name, content) ? std::string(content) : std::string();
}

/// The file that the bundle's descriptor makes the parent of this one; empty when none.
std::string ParentInBundle(const std::string& path) {
  const TOpenedDevice opened = OpenDevice(PathBeside(path, "DiskDescriptor.xml"));
  if (!opened.Device) return {};
  const auto size = static_cast<std::uint64_t>(opened.Device->Size());
  const TByteDynArray bytes = BytesAt(*opened.Device, 0, std::min(size, LargestDescriptor));
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto find = [text](std::string_view element, std::string_view key, const std::string& value,
                           std::string_view wanted) {
    std::string_view rest = text;
    for (std::string_view content; !value.empty() && NextElement(rest, element, content);) {
      if (ElementOf(content, key) == value) return ElementOf(content, wanted);
    }
    return std::string();
  };
  const std::string own = find("Image", "File", path.substr(path.rfind('/') + 1), "GUID");
  return find("Image", "GUID", find("Shot", "GUID", own, "ParentGUID"), "File");
}

}  // namespace

bool IsParallelsDisk(const TImageMarks& marks) {
  return IsAt(marks.Head, 0, InSectors) || IsAt(marks.Head, 0, InBlocks);
}

TOpenedDevice OpenParallelsDisk(TImageFile image) {
  const TByteDynArray head = BytesAt(*image.File, 0, HeadSize);
  const bool inBlocks = IsAt(head, 0, InBlocks);
  const std::uint64_t sectors = inBlocks ? ReadLe64(head, 36) : ReadLe32(head, 36);
  const std::uint64_t blockSize = std::uint64_t{ReadLe32(head, 28)} * Sector;
  const std::uint64_t diskSize = sectors > LargestVirtualDisk / Sector ? 0 : sectors * Sector;
  const bool sound = AreSizesSound(diskSize, blockSize) && CeilDiv(diskSize, blockSize) <= ReadLe32(head, 32) &&
                     FitsInFile(*image.File, HeadSize, CeilDiv(diskSize, blockSize), 4);
  if (!sound) return RefuseImage(TImageProblem::Damaged, "Parallels");
  std::unique_ptr<IDevice> parent;
  if (const std::string name = ParentInBundle(image.Path); !name.empty()) {
    TParentQuery query;
    query.Names = {name};
    TOpenedDevice opened = OpenParent(image, query);
    if (!opened.Device) return opened;
    parent = std::move(opened.Device);
  }
  return {std::make_unique<TParallelsDisk>(std::move(image.File), static_cast<std::int64_t>(diskSize),
                                           static_cast<std::int64_t>(blockSize), inBlocks, std::move(parent)),
          0};
}

}  // namespace brenlow

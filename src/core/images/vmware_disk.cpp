// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/vmware_disk.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

#include "core/images/unpack.h"
#include "core/images/virtual_disks.h"
#include "core/numbers.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::int64_t Sector = 512;
constexpr std::int64_t LargestDescriptor = 102400;           // bytes; from there on a file holds an extent
constexpr std::int64_t MostSectors = std::int64_t{1} << 47;  // of a disk: 64 PiB
constexpr std::size_t MostExtents = 4096;
constexpr std::uint64_t MostTables = 1 << 24;  // of all extents: searches ask for each of them
constexpr std::int64_t EntriesOfTable = 512;
constexpr std::uint32_t SparseMagic = 0x564D444B;  // "KDMV"
constexpr std::uint32_t ZeroGrainsFlag = 4;
constexpr std::uint32_t CompressedFlag = 0x10000;
constexpr std::uint32_t NoParent = 0xFFFFFFFF;

class TVMwareDisk final : public TVirtualDisk {
 public:
  /// The files are one for each extent, then the descriptor if there is one.
  TVMwareDisk(TVMwareInfo info, std::vector<std::unique_ptr<IDevice>> files, std::unique_ptr<IDevice> parent)
      : TVirtualDisk(SizeOf(info), std::move(files)), FInfo(std::move(info)) {
    SetParent(std::move(parent));
  }

 private:
  static std::int64_t SizeOf(const TVMwareInfo& info) {
    return info.Files.empty() ? 0 : (info.Files.back().StartingSector + info.Files.back().SectorsCount) * Sector;
  }

  TDiskPiece PieceAt(std::int64_t position) override {
    const auto after =
        std::upper_bound(FInfo.Files.begin(), FInfo.Files.end(), position / Sector,
                         [](std::int64_t sector, const TVMwareFile& extent) { return sector < extent.StartingSector; });
    const TVMwareFile& extent = *std::prev(after);
    const std::int64_t within = position - extent.StartingSector * Sector;
    const std::int64_t rest = extent.SectorsCount * Sector - within;
    if (extent.strPath.empty()) return {TDiskPiece::Zeros, rest, nullptr, 0};
    FExtent = static_cast<std::size_t>(std::prev(after) - FInfo.Files.begin());
    if (extent.Flat) return {TDiskPiece::InFile, rest, &File(FExtent), extent.FirstSector * Sector + within};
    TDiskPiece piece = GrainAt(extent, within);
    piece.Length = std::min(piece.Length, rest);
    return piece;
  }

  /// A grain has its own location or is a hole: what follows the last grain before it is not its content.
  TDiskPiece GrainAt(const TVMwareFile& extent, std::int64_t within) {
    const std::int64_t grainBytes = extent.GrainSize * Sector;
    const std::int64_t number = within / grainBytes;
    const std::int64_t inGrain = within % grainBytes;
    TTableReader& reader = ReaderOf(FExtent);
    TDiskPiece piece{TDiskPiece::InParent, grainBytes - inGrain, &File(FExtent), 0};
    const auto table = reader.Number(extent.Directory * Sector + number / EntriesOfTable * 4, 4, true);
    if (table && *table == 0) {
      piece.Length = (number / EntriesOfTable + 1) * EntriesOfTable * grainBytes - within;
      return piece;
    }
    std::optional<std::uint64_t> entry;
    if (table) entry = reader.Number(static_cast<std::int64_t>(*table) * Sector + number % EntriesOfTable * 4, 4, true);
    const TVMwareGrain grain{static_cast<std::uint32_t>(number), static_cast<std::uint32_t>(entry.value_or(0))};
    if (!entry) {
      piece.Kind = TDiskPiece::Unreadable;
    } else if (grain.Location == 1 && extent.ZeroGrains) {
      piece.Kind = TDiskPiece::Zeros;
    } else if (grain.Location != 0) {
      piece.Kind = extent.Compressed ? TDiskPiece::Packed : TDiskPiece::InFile;
      piece.Place = grain.Location * Sector + (extent.Compressed ? 0 : inGrain);
    }
    return piece;
  }

  std::size_t ReadPacked(const TDiskPiece& piece, std::int64_t position, std::span<std::uint8_t> buffer) override {
    const TVMwareFile& extent = FInfo.Files[FExtent];
    const std::int64_t within = position - extent.StartingSector * Sector;
    const auto inGrain = static_cast<std::size_t>(within % (extent.GrainSize * Sector));
    const std::pair key{piece.File, piece.Place};
    if (FUnpacked != key) Load(piece, within / Sector / extent.GrainSize * extent.GrainSize, extent.GrainSize);
    FUnpacked = key;
    if (inGrain >= FGrain.size()) return 0;
    const std::size_t count = std::min(buffer.size(), FGrain.size() - inGrain);
    std::copy_n(FGrain.begin() + static_cast<std::ptrdiff_t>(inGrain), count, buffer.begin());
    return count;
  }

  /// A packed grain is preceded by its sector and the length of what is packed.
  void Load(const TDiskPiece& piece, std::int64_t sector, int grainSize) {
    constexpr std::uint64_t headSize = 12;
    FGrain.clear();
    const TByteDynArray head = BytesAt(*piece.File, static_cast<std::uint64_t>(piece.Place), headSize);
    const auto grainBytes = static_cast<std::uint64_t>(grainSize) * Sector;
    if (head.empty() || ReadLe64(head, 0) != static_cast<std::uint64_t>(sector) || ReadLe32(head, 8) > 2 * grainBytes) {
      return;
    }
    const TByteDynArray packed =
        BytesAt(*piece.File, static_cast<std::uint64_t>(piece.Place) + headSize, ReadLe32(head, 8));
    FGrain.resize(static_cast<std::size_t>(grainBytes));
    FGrain.resize(Unpack(TPacking::Zlib, packed, FGrain));
  }

  TTableReader& ReaderOf(std::size_t extent) {
    if (!FReader || FReaderOf != extent) FReader.emplace(File(extent));
    FReaderOf = extent;
    return *FReader;
  }

  TVMwareInfo FInfo;
  std::size_t FExtent = 0;  // of the piece that was asked for last
  std::optional<TTableReader> FReader;
  std::size_t FReaderOf = 0;
  std::pair<IDevice*, std::int64_t> FUnpacked;  // the grain whose content `FGrain` has
  TByteDynArray FGrain;
};

// ---- sparse extents -------------------------------------------------------------------------

struct TSparseHead {
  std::int64_t Capacity = 0;  // sectors
  int GrainSize = 128;        // sectors
  std::uint32_t Flags = 0;
  std::int64_t Directory = 0;   // sector
  std::int64_t Descriptor = 0;  // sector of the text inside, and how many sectors it has
  std::int64_t DescriptorSize = 0;
  bool IsSparse = false;  // has the magic
};

TSparseHead ParseHead(std::span<const std::uint8_t> bytes) {
  TSparseHead head;
  head.IsSparse = ReadLe32(bytes, 0) == SparseMagic;
  head.Flags = ReadLe32(bytes, 8);
  head.Capacity = static_cast<std::int64_t>(ReadLe64(bytes, 12));
  const std::uint64_t grainSize = ReadLe64(bytes, 20);
  if (grainSize >= 8 && grainSize <= 65536 && (grainSize & (grainSize - 1)) == 0) {
    head.GrainSize = static_cast<int>(grainSize);
  }
  head.Descriptor = static_cast<std::int64_t>(ReadLe64(bytes, 28));
  head.DescriptorSize = static_cast<std::int64_t>(ReadLe64(bytes, 36));
  head.Directory = static_cast<std::int64_t>(ReadLe64(bytes, 0x38));
  return head;
}

TSparseHead ReadHead(IDevice& file) {
  constexpr std::int64_t atTheEnd = -1;  // what was written as a stream has the real head there
  constexpr std::int64_t footer = 1024;  // bytes before the end
  TSparseHead head = ParseHead(BytesAt(file, 0, Sector));
  if (!head.IsSparse || head.Directory != atTheEnd || file.Size() < footer) return head;
  const TSparseHead real = ParseHead(BytesAt(file, static_cast<std::uint64_t>(file.Size() - footer), Sector));
  if (real.IsSparse) head.Directory = real.Directory;
  return head;
}

/// False for a directory that no disk of this size can have in this file. `tablesLeft` is how many grain
/// tables the disk may still have.
bool TakeHead(IDevice& file, const TSparseHead& head, TVMwareFile& extent, std::uint64_t& tablesLeft) {
  constexpr std::uint64_t tableBytes = EntriesOfTable * 4;
  if (!head.IsSparse || head.Directory <= 0 || head.Directory >= file.Size() / Sector) return false;
  extent.GrainSize = head.GrainSize;
  extent.Directory = head.Directory;
  extent.ZeroGrains = (head.Flags & ZeroGrainsFlag) != 0;
  extent.Compressed = (head.Flags & CompressedFlag) != 0;
  const auto tables = static_cast<std::uint64_t>(CeilDiv(extent.SectorsCount, EntriesOfTable * head.GrainSize));
  if (tables > tablesLeft) return false;
  tablesLeft -= tables;
  return TablesFitInFile(file, static_cast<std::uint64_t>(head.Directory) * Sector, tables, 4, true, tableBytes);
}

// ---- descriptors ----------------------------------------------------------------------------

/// A line of the extent list: access, sectors, kind, "file", first sector of a flat file.
struct TExtentLine {
  std::int64_t Sectors = 0;
  std::string Kind;
  std::string File;
  std::int64_t FirstSector = 0;
};

struct TDescriptor {
  std::vector<TExtentLine> Extents;
  std::uint32_t Content = 0;  // identity of what the disk holds
  std::uint32_t ParentContent = NoParent;
  std::string Parent;
};

std::string_view NextWord(std::string_view& line) {
  const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
  const std::size_t end = std::min(line.find(' ', begin), line.size());
  const std::string_view word = line.substr(begin, end - begin);
  line.remove_prefix(end);
  return word;
}

std::int64_t NumberOf(std::string_view word, int base = 10) {
  std::int64_t number = 0;
  const auto result = std::from_chars(word.data(), word.data() + word.size(), number, base);
  return result.ec == std::errc() && number >= 0 ? number : 0;
}

std::string Quoted(std::string_view line) {
  const std::size_t quote = line.find('"');
  const std::size_t end = quote == std::string_view::npos ? quote : line.find('"', quote + 1);
  return end == std::string_view::npos ? std::string() : std::string(line.substr(quote + 1, end - quote - 1));
}

TExtentLine ParseExtent(std::string_view line) {
  TExtentLine extent;
  extent.File = Quoted(line);
  if (const std::size_t last = line.rfind('"'); last != std::string_view::npos) {
    std::string_view rest = line.substr(last + 1);
    extent.FirstSector = NumberOf(NextWord(rest));
  }
  NextWord(line);
  extent.Sectors = NumberOf(NextWord(line));
  extent.Kind = NextWord(line);
  return extent;
}

void ParseSetting(std::string_view line, TDescriptor& descriptor) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return;
  const std::string_view key = line.substr(0, equals);
  const std::string_view value = line.substr(equals + 1);
  if (key == "CID") descriptor.Content = static_cast<std::uint32_t>(NumberOf(value, 16));
  if (key == "parentCID") descriptor.ParentContent = static_cast<std::uint32_t>(NumberOf(value, 16));
  if (key == "parentFileNameHint") descriptor.Parent = Quoted(value);
}

/// The extents are the lines after "Extent description", up to the first empty one.
TDescriptor ParseDescriptor(std::string_view text) {
  TDescriptor descriptor;
  bool within = false;
  bool done = false;
  for (std::size_t at = 0; at < text.size() && descriptor.Extents.size() < MostExtents;) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    if (line.ends_with('\r')) line.remove_suffix(1);
    at = end + 1;
    done = done || (within && line.empty());
    if (within && !done) {
      descriptor.Extents.push_back(ParseExtent(line));
    } else {
      ParseSetting(line, descriptor);
    }
    within = within || line.find("Extent description") != std::string_view::npos;
  }
  return descriptor;
}

/// The text inside a sparse extent, or the whole of a small file.
TDescriptor ReadDescriptor(IDevice& file, const TSparseHead& head) {
  std::uint64_t place = 0;
  auto size = static_cast<std::uint64_t>(std::min(file.Size(), LargestDescriptor));
  if (head.IsSparse) {
    constexpr std::int64_t most = 256;  // sectors
    if (head.Descriptor <= 0 || head.Descriptor > file.Size() / Sector || head.DescriptorSize <= 0) return {};
    place = static_cast<std::uint64_t>(head.Descriptor) * Sector;
    size = static_cast<std::uint64_t>(std::min(head.DescriptorSize, most)) * Sector;
  }
  const TByteDynArray bytes = BytesAt(file, place, size);
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return ParseDescriptor(text.substr(0, text.find('\0')));
}

/// Notes whose difference the disk is.
void TakeParent(const TDescriptor& descriptor, TVMwareInfo& info) {
  if (descriptor.ParentContent == NoParent) return;
  info.Parent = descriptor.Parent.empty() ? "?" : descriptor.Parent;
  info.ParentContent = descriptor.ParentContent;
}

TOpenedDevice OpenDisk(const TImageFile& image, TVMwareInfo info, std::vector<std::unique_ptr<IDevice>> files) {
  std::unique_ptr<IDevice> parent;
  if (!info.Parent.empty()) {
    TParentQuery query;
    query.Names = {info.Parent};
    query.IsIt = [&info](IDevice& file) { return ReadDescriptor(file, ReadHead(file)).Content == info.ParentContent; };
    TOpenedDevice opened = OpenParent(image, query);
    if (!opened.Device) return opened;
    parent = std::move(opened.Device);
  }
  return {std::make_unique<TVMwareDisk>(std::move(info), std::move(files), std::move(parent)), 0};
}

TOpenedDevice OpenSingle(TImageFile image, const TSparseHead& head) {
  TVMwareInfo info;
  TVMwareFile extent;
  extent.SectorsCount = head.Capacity;
  extent.strPath = TextFromPath(image.Path);
  std::uint64_t tablesLeft = MostTables;
  const bool sound =
      head.Capacity > 0 && head.Capacity <= MostSectors && TakeHead(*image.File, head, extent, tablesLeft);
  if (!sound) return RefuseImage(TImageProblem::Damaged, "VMDK");
  info.Files.push_back(std::move(extent));
  TakeParent(ReadDescriptor(*image.File, head), info);
  std::vector<std::unique_ptr<IDevice>> files = OneFile(std::move(image.File));
  return OpenDisk(image, std::move(info), std::move(files));
}

/// A file beside the descriptor; its name must not lead elsewhere.
TOpenedDevice OpenExtent(const std::string& descriptor, const std::string& name, std::string& path) {
  if (name.empty() || name.find_first_of("/\\") != std::string::npos || name == "..") return {nullptr, ENOENT};
  path = PathBeside(descriptor, name);
  return OpenDevice(path);
}

TOpenedDevice OpenDescribed(TImageFile image, const TDescriptor& descriptor) {
  TVMwareInfo info;
  std::vector<std::unique_ptr<IDevice>> files;
  std::int64_t start = 0;
  std::uint64_t tablesLeft = MostTables;
  for (const TExtentLine& line : descriptor.Extents) {
    if (line.Sectors == 0 || line.Sectors > MostSectors - start) continue;
    TVMwareFile extent;
    extent.StartingSector = start;
    extent.SectorsCount = line.Sectors;
    extent.Flat = line.Kind == "FLAT" || line.Kind == "VMFS";
    extent.FirstSector = std::min(line.FirstSector, MostSectors);
    std::unique_ptr<IDevice> file;
    if (line.Kind == "SPARSE" || extent.Flat) {
      std::string extentPath;
      TOpenedDevice opened = OpenExtent(image.Path, line.File, extentPath);
      if (!opened.Device) return opened;
      file = std::move(opened.Device);
      extent.strPath = TextFromPath(extentPath);
      const bool sound = extent.Flat || TakeHead(*file, ReadHead(*file), extent, tablesLeft);
      if (!sound) return RefuseImage(TImageProblem::Damaged, "VMDK: " + line.File);
    } else if (line.Kind != "ZERO") {
      return RefuseImage(TImageProblem::UnknownKind, "VMDK, " + line.Kind);
    }
    start += line.Sectors;
    info.Files.push_back(std::move(extent));
    files.push_back(std::move(file));
  }
  TakeParent(descriptor, info);
  files.push_back(std::move(image.File));
  return OpenDisk(image, std::move(info), std::move(files));
}

}  // namespace

bool IsVMwareDisk(const TImageMarks& marks) {
  return ReadLe32(marks.Head, 0) == SparseMagic || IsAt(marks.Head, 0, "# Disk DescriptorFile");
}

TOpenedDevice OpenVMwareDisk(TImageFile image) {
  const TSparseHead head = ReadHead(*image.File);
  if (head.IsSparse) return OpenSingle(std::move(image), head);
  // Without magic and text it is the flat file of a descriptor that was not named.
  if (image.File->Size() >= LargestDescriptor) return {std::move(image.File), 0};
  const TDescriptor descriptor = ReadDescriptor(*image.File, head);
  if (descriptor.Extents.empty()) return {std::move(image.File), 0};
  return OpenDescribed(std::move(image), descriptor);
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/vmware_disk.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

#include "core/numbers.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::int64_t Sector = 512;
constexpr std::int64_t LargestDescriptor = 102400;           // bytes; from there on a file holds an extent
constexpr std::int64_t MostSectors = std::int64_t{1} << 47;  // of a disk: 64 PiB
constexpr std::size_t MostExtents = 4096;
constexpr std::size_t EntriesOfTable = 512;
constexpr std::uint32_t SparseMagic = 0x564D444B;  // "KDMV"
constexpr std::uint32_t ZeroGrains = 4;            // flag: an entry of 1 is a grain of zeros
constexpr std::uint32_t CompressedGrains = 0x10000;

class TVMwareDisk final : public IDevice {
 public:
  TVMwareDisk(TVMwareInfo info, std::vector<std::unique_ptr<IDevice>> files)
      : FInfo(std::move(info)), FFiles(std::move(files)) {}

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    std::size_t done = 0;
    while (done < buffer.size() && position >= 0 && position < Size()) {
      const TPiece piece = PieceAt(position);
      const auto count =
          static_cast<std::size_t>(std::min(static_cast<std::int64_t>(buffer.size() - done), piece.Length));
      const auto target = buffer.subspan(done, count);
      if (piece.Place < 0) {
        std::memset(target.data(), 0, count);
      } else if (piece.File == nullptr) {
        break;
      } else if (const std::size_t got = piece.File->Read(piece.Place, target); got < count) {
        return done + got;
      }
      done += count;
      position += static_cast<std::int64_t>(count);
    }
    return done;
  }
  std::int64_t Size() const override {
    return FInfo.Files.empty() ? 0 : (FInfo.Files.back().StartingSector + FInfo.Files.back().SectorsCount) * Sector;
  }
  int SectorSize() const override { return 0; }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override {
    for (const auto& file : FFiles) {
      if (file) file->AddOrigins(origins);
    }
  }
  std::int64_t NextData(std::int64_t position) override {
    while (position < Size()) {
      const TPiece piece = PieceAt(position);
      if (piece.Place >= 0) return position;
      position += piece.Length;
    }
    return Size();
  }

 private:
  /// Bytes that lie together from some position on.
  struct TPiece {
    IDevice* File = nullptr;
    std::int64_t Place = -1;  // in the file; -1 for zeros
    std::int64_t Length = 0;
  };

  TPiece PieceAt(std::int64_t position) const {
    const auto after =
        std::upper_bound(FInfo.Files.begin(), FInfo.Files.end(), position / Sector,
                         [](std::int64_t sector, const TVMwareFile& extent) { return sector < extent.StartingSector; });
    const TVMwareFile& extent = *std::prev(after);
    const std::int64_t within = position - extent.StartingSector * Sector;
    const std::int64_t rest = extent.SectorsCount * Sector - within;
    IDevice* file = FFiles[static_cast<std::size_t>(std::prev(after) - FInfo.Files.begin())].get();
    if (extent.strPath.empty()) return {nullptr, -1, rest};
    if (extent.Flat) return {file, extent.FirstSector * Sector + within, rest};
    return GrainAt(extent, file, within, rest);
  }

  /// The last grain that begins at or before the position; behind its end lies a hole.
  static TPiece GrainAt(const TVMwareFile& extent, IDevice* file, std::int64_t within, std::int64_t rest) {
    const std::int64_t grainBytes = extent.GrainSize * Sector;
    const std::int64_t number = within / grainBytes;
    const auto after =
        std::upper_bound(extent.Grains.begin(), extent.Grains.end(), number,
                         [](std::int64_t wanted, const TVMwareGrain& grain) { return wanted < grain.Number; });
    if (after != extent.Grains.begin() && std::prev(after)->Number == number) {
      const std::int64_t inGrain = within - number * grainBytes;
      return {file, std::prev(after)->Location * Sector + inGrain, std::min(grainBytes - inGrain, rest)};
    }
    const std::int64_t end = after == extent.Grains.end() ? within + rest : after->Number * grainBytes;
    return {file, -1, std::min(end - within, rest)};
  }

  TVMwareInfo FInfo;
  std::vector<std::unique_ptr<IDevice>> FFiles;  // one an extent, then the descriptor
};

struct TSparseHead {
  std::int64_t Capacity = 0;  // sectors
  int GrainSize = 128;        // sectors
  std::uint32_t Flags = 0;
  std::int64_t Directory = 0;  // sector
  bool IsSparse = false;       // has the magic
};

TSparseHead ReadHead(IDevice& file) {
  constexpr std::int64_t footerDirectory = -1;  // the real one stands at the end of a stream
  std::uint8_t bytes[512] = {};
  file.Read(0, bytes);
  TSparseHead head;
  head.IsSparse = ReadLe32(bytes, 0) == SparseMagic;
  head.Capacity = static_cast<std::int64_t>(ReadLe64(bytes, 12));
  const std::uint64_t grainSize = ReadLe64(bytes, 20);
  if (grainSize >= 8 && grainSize <= 65536 && (grainSize & (grainSize - 1)) == 0) {
    head.GrainSize = static_cast<int>(grainSize);
  }
  head.Flags = ReadLe32(bytes, 8);
  head.Directory = static_cast<std::int64_t>(ReadLe64(bytes, 0x38));
  if (head.Directory == footerDirectory) head.Flags |= CompressedGrains;
  return head;
}

/// Gathers the grains of a sparse extent from its tables.
void FillVMwareStructure(IDevice& file, const TSparseHead& head, TVMwareFile& extent) {
  extent.GrainSize = head.GrainSize;
  const std::int64_t perTable = static_cast<std::int64_t>(EntriesOfTable) * head.GrainSize;
  const std::int64_t fileSectors = file.Size() / Sector;
  if (head.Directory <= 0 || head.Directory >= fileSectors) return;
  const std::int64_t room = (file.Size() - head.Directory * Sector) / 4;
  const std::int64_t tables = std::min(CeilDiv(extent.SectorsCount, perTable), room);
  // No two grains share a place: a directory with more is none.
  const auto most = static_cast<std::size_t>(fileSectors / head.GrainSize + 1);
  TByteDynArray directory(static_cast<std::size_t>(tables) * 4);
  file.Read(head.Directory * Sector, directory);
  std::uint8_t table[EntriesOfTable * 4];
  for (std::size_t t = 0; t < static_cast<std::size_t>(tables); ++t) {
    const std::uint32_t sector = ReadLe32(directory, 4 * t);
    if (sector == 0 || file.Read(sector * Sector, table) != sizeof(table)) continue;
    for (std::size_t i = 0; i < EntriesOfTable && extent.Grains.size() < most; ++i) {
      const std::uint32_t location = ReadLe32(table, 4 * i);
      const bool zeros = location == 0 || (location == 1 && (head.Flags & ZeroGrains) != 0);
      if (!zeros) extent.Grains.push_back({static_cast<std::uint32_t>(t * EntriesOfTable + i), location});
    }
  }
}

TOpenedDevice OpenSingle(const std::string& path, std::unique_ptr<IDevice> file, const TSparseHead& head) {
  if (head.Capacity <= 0 || head.Capacity > MostSectors) return {std::move(file), 0};
  TVMwareInfo info;
  TVMwareFile extent;
  extent.SectorsCount = head.Capacity;
  extent.strPath = TextFromPath(path);
  FillVMwareStructure(*file, head, extent);
  info.Files.push_back(std::move(extent));
  std::vector<std::unique_ptr<IDevice>> files;
  files.push_back(std::move(file));
  return {std::make_unique<TVMwareDisk>(std::move(info), std::move(files)), 0};
}

/// A line of the extent list: access, sectors, kind, "file", first sector of a flat file.
struct TExtentLine {
  std::int64_t Sectors = 0;
  std::string Kind;
  std::string File;
  std::int64_t FirstSector = 0;
};

std::string_view NextWord(std::string_view& line) {
  const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
  const std::size_t end = std::min(line.find(' ', begin), line.size());
  const std::string_view word = line.substr(begin, end - begin);
  line.remove_prefix(end);
  return word;
}

std::int64_t NumberOf(std::string_view word) {
  std::int64_t number = 0;
  const auto result = std::from_chars(word.data(), word.data() + word.size(), number);
  return result.ec == std::errc() && number >= 0 ? number : 0;
}

TExtentLine ParseExtent(std::string_view line) {
  TExtentLine extent;
  const std::size_t quote = line.find('"');
  const std::size_t end = quote == std::string_view::npos ? quote : line.find('"', quote + 1);
  if (end != std::string_view::npos) {
    extent.File = line.substr(quote + 1, end - quote - 1);
    std::string_view rest = line.substr(end + 1);
    extent.FirstSector = NumberOf(NextWord(rest));
  }
  NextWord(line);
  extent.Sectors = NumberOf(NextWord(line));
  extent.Kind = NextWord(line);
  return extent;
}

/// The lines behind "Extent description", up to the first empty one.
std::vector<TExtentLine> ReadDescriptor(IDevice& file) {
  std::string text(static_cast<std::size_t>(file.Size()), '\0');
  file.Read(0, std::span(reinterpret_cast<std::uint8_t*>(text.data()), text.size()));
  std::vector<TExtentLine> extents;
  bool within = false;
  for (std::size_t at = 0; at < text.size() && extents.size() < MostExtents;) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line(text.data() + at, end - at);
    if (line.ends_with('\r')) line.remove_suffix(1);
    at = end + 1;
    if (within && line.empty()) break;
    if (within) extents.push_back(ParseExtent(line));
    within = within || line.find("Extent description") != std::string_view::npos;
  }
  return extents;
}

/// A file beside the descriptor; its name must not lead elsewhere.
TOpenedDevice OpenExtent(const std::string& descriptor, const std::string& name, std::string& path) {
  if (name.empty() || name.find_first_of("/\\") != std::string::npos || name == "..") return {nullptr, ENOENT};
  path = descriptor.substr(0, descriptor.rfind('/') + 1) + name;
  return OpenDevice(path);
}

TOpenedDevice OpenDescribed(const std::string& path, std::unique_ptr<IDevice> descriptor,
                            const std::vector<TExtentLine>& lines) {
  TVMwareInfo info;
  std::vector<std::unique_ptr<IDevice>> files;
  std::int64_t start = 0;
  for (const TExtentLine& line : lines) {
    if (line.Sectors == 0 || line.Sectors > MostSectors - start) continue;
    TVMwareFile extent;
    extent.StartingSector = start;
    extent.SectorsCount = line.Sectors;
    extent.Flat = line.Kind == "FLAT" || line.Kind == "VMFS";
    extent.FirstSector = std::min(line.FirstSector, MostSectors);
    std::unique_ptr<IDevice> file;
    if (line.Kind == "SPARSE" || extent.Flat) {
      std::string extentPath;
      TOpenedDevice opened = OpenExtent(path, line.File, extentPath);
      if (!opened.Device) return {nullptr, opened.Error};
      file = std::move(opened.Device);
      extent.strPath = TextFromPath(extentPath);
      const TSparseHead head = ReadHead(*file);
      if (!extent.Flat && (head.Flags & CompressedGrains) != 0) return {nullptr, EOPNOTSUPP};
      if (!extent.Flat) FillVMwareStructure(*file, head, extent);
    } else if (line.Kind != "ZERO") {
      return {nullptr, EOPNOTSUPP};
    }
    start += line.Sectors;
    info.Files.push_back(std::move(extent));
    files.push_back(std::move(file));
  }
  files.push_back(std::move(descriptor));
  return {std::make_unique<TVMwareDisk>(std::move(info), std::move(files)), 0};
}

}  // namespace

TOpenedDevice OpenVMwareDisk(const std::string& path, std::unique_ptr<IDevice> file) {
  const TSparseHead head = ReadHead(*file);
  if (head.IsSparse && (head.Flags & CompressedGrains) != 0) return {nullptr, EOPNOTSUPP};
  if (file->Size() < LargestDescriptor && !head.IsSparse) {
    const std::vector<TExtentLine> lines = ReadDescriptor(*file);
    return lines.empty() ? TOpenedDevice{std::move(file), 0} : OpenDescribed(path, std::move(file), lines);
  }
  // Without its magic it is the flat file of a descriptor that was not named.
  if (!head.IsSparse) return {std::move(file), 0};
  return OpenSingle(path, std::move(file), head);
}

}  // namespace brenlow

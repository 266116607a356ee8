// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/virtual_disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <tuple>
#include <utility>

#include "core/images/virtual_disks.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::uint64_t LargestTablePart = 64 << 20;  // bytes read in one go
constexpr int DeepestChain = 64;                      // parents of parents; ends a circle of them
constexpr int MaxPiecesCounted = 1 << 20;             // for the comparison of a disk with its files
// A damaged table may name a few blocks twice: so many bytes more than the files have are let pass.
constexpr std::int64_t SharedBytesAllowed = std::int64_t{4} << 30;
constexpr std::int64_t BestPacking = 4096;  // times that packed bytes can become more

}  // namespace

// ---- reading --------------------------------------------------------------------------------

TVirtualDisk::TVirtualDisk(std::int64_t size, std::vector<std::unique_ptr<IDevice>> files)
    : FSize(size), FFiles(std::move(files)) {}

std::size_t TVirtualDisk::ReadPacked(const TDiskPiece&, std::int64_t, std::span<std::uint8_t>) { return 0; }

void TVirtualDisk::TakeRun(TDiskPiece& piece, std::int64_t within, std::int64_t sectorSize,
                           const std::function<bool(std::int64_t sector)>& isHere) {
  constexpr std::int64_t longestRun = 256;  // sectors examined for one piece
  const std::int64_t first = within / sectorSize;
  const std::int64_t last = std::min(CeilDiv(within + piece.Length, sectorSize), first + longestRun);
  const bool here = isHere(first);
  std::int64_t end = first + 1;
  while (end < last && isHere(end) == here) ++end;
  piece.Length = std::min(piece.Length, end * sectorSize - within);
  if (!here) piece.Kind = TDiskPiece::InParent;
}

/// True when the bytes at `end` of the disk lie right after the piece in the same file.
bool TVirtualDisk::IsFollowedBy(const TDiskPiece& piece, std::int64_t end) {
  if (piece.Kind != TDiskPiece::InFile || end >= FSize) return false;
  const TDiskPiece next = PieceAt(end);
  return next.Kind == piece.Kind && next.File == piece.File && next.Place == piece.Place + piece.Length;
}

std::size_t TVirtualDisk::ReadPiece(const TDiskPiece& piece, std::int64_t position, std::span<std::uint8_t> buffer) {
  switch (piece.Kind) {
    case TDiskPiece::Zeros:
      break;
    case TDiskPiece::InFile:
      return piece.File->Read(piece.Place, buffer);
    case TDiskPiece::Packed:
      return ReadPacked(piece, position, buffer);
    case TDiskPiece::Unreadable:
      return 0;
    case TDiskPiece::InParent: {
      if (FParent == nullptr || position >= FParent->Size()) break;
      // A parent may be shorter than what was made from it: zeros follow.
      const auto room = static_cast<std::size_t>(std::min<std::int64_t>(FParent->Size() - position, INT32_MAX));
      const std::size_t count = std::min(buffer.size(), room);
      const std::size_t got = FParent->Read(position, buffer.first(count));
      if (got < count) return got;
      std::memset(buffer.data() + count, 0, buffer.size() - count);
      return buffer.size();
    }
  }
  std::memset(buffer.data(), 0, buffer.size());
  return buffer.size();
}

std::size_t TVirtualDisk::Read(std::int64_t position, std::span<std::uint8_t> buffer) {
  std::size_t done = 0;
  while (done < buffer.size() && position >= 0 && position < FSize) {
    TDiskPiece piece = PieceAt(position);
    const std::int64_t wanted = std::min(static_cast<std::int64_t>(buffer.size() - done), FSize - position);
    while (piece.Length < wanted && IsFollowedBy(piece, position + piece.Length)) {
      piece.Length += PieceAt(position + piece.Length).Length;
    }
    const auto count = static_cast<std::size_t>(std::min(wanted, piece.Length));
    const std::size_t got = ReadPiece(piece, position, buffer.subspan(done, count));
    done += got;
    if (got < count) break;
    position += static_cast<std::int64_t>(count);
  }
  return done;
}

std::int64_t TVirtualDisk::NextData(std::int64_t position) {
  if (position < 0 || position >= FSize) return position;
  if (position >= FHoleStart && position < FHoleEnd) return FHoleEnd;
  std::int64_t at = position;
  while (at < FSize) {
    const TDiskPiece piece = PieceAt(at);
    if (piece.Kind == TDiskPiece::InParent && FParent != nullptr) {
      const std::int64_t next = at < FParent->Size() ? FParent->NextData(at) : FSize;
      if (next < std::min(at + piece.Length, FParent->Size())) {
        at = next;
        break;
      }
    } else if (piece.Kind == TDiskPiece::InFile) {
      const std::int64_t next = piece.File->NextData(piece.Place);
      if (next < piece.Place + piece.Length) {
        at += next - piece.Place;
        break;
      }
    } else if (piece.Kind == TDiskPiece::Packed || piece.Kind == TDiskPiece::Unreadable) {
      break;
    }
    at += piece.Length;
  }
  at = std::min(at, FSize);
  if (at > position) std::tie(FHoleStart, FHoleEnd) = std::pair(position, at);
  return at;
}

/// All files together, each counted once.
std::int64_t TVirtualDisk::BytesOfFiles() const {
  std::vector<TFileIdentity> counted;
  std::int64_t bytes = 0;
  for (const auto& file : FFiles) {
    if (!file) continue;
    std::vector<TFileIdentity> origins;
    file->AddOrigins(origins);
    const auto isCounted = [&](const TFileIdentity& origin) {
      return std::find(counted.begin(), counted.end(), origin) != counted.end();
    };
    if (!origins.empty() && std::all_of(origins.begin(), origins.end(), isCounted)) continue;
    counted.insert(counted.end(), origins.begin(), origins.end());
    bytes += std::min(file->Size(), INT64_MAX / 4 - bytes);
  }
  return bytes;
}

bool TVirtualDisk::IsBackedByFiles() {
  const std::int64_t allowed = 2 * BytesOfFiles();
  std::int64_t plain = 0;   // bytes of the disk
  std::int64_t packed = 0;  // the least that they can take in the file
  std::int64_t at = 0;
  for (int pieces = 0; at < FSize && pieces < MaxPiecesCounted; ++pieces) {
    const TDiskPiece piece = PieceAt(at);
    if (piece.Kind == TDiskPiece::InFile) {
      plain += std::clamp<std::int64_t>(piece.File->Size() - piece.Place, 0, std::min(piece.Length, FSize - at));
    } else if (piece.Kind == TDiskPiece::Packed) {
      packed += CeilDiv(piece.Length, BestPacking);
    }
    if (plain - SharedBytesAllowed > allowed || packed > allowed) return false;
    at += piece.Length;
  }
  return true;
}

void TVirtualDisk::AddOrigins(std::vector<TFileIdentity>& origins) const {
  for (const auto& file : FFiles) {
    if (file) file->AddOrigins(origins);
  }
  if (FParent) FParent->AddOrigins(origins);
}

// ---- tables ---------------------------------------------------------------------------------

const TTableReader::TWindow& TTableReader::Window(std::int64_t place) {
  if (FWindows[FLast].Place == place) return FWindows[FLast];
  const auto known =
      std::find_if(FWindows.begin(), FWindows.end(), [place](const TWindow& window) { return window.Place == place; });
  if (known != FWindows.end()) {
    FLast = static_cast<std::size_t>(known - FWindows.begin());
    return *known;
  }
  FLast = std::exchange(FNext, (FNext + 1) % FWindows.size());
  TWindow& window = FWindows[FLast];
  window.Place = place;
  window.Bytes.resize(WindowBytes);
  window.Bytes.resize(FFile->Read(place, window.Bytes));
  return window;
}

std::optional<std::uint64_t> TTableReader::Number(std::int64_t place, int size, bool littleEndian) {
  if (place < 0 || place > INT64_MAX - WindowBytes) return std::nullopt;
  const std::int64_t start = place / WindowBytes * WindowBytes;
  std::uint8_t bytes[8] = {};
  for (int i = 0; i < size; ++i) {  // the number may reach into the next window
    const std::int64_t at = place + i;
    const std::int64_t from = at - start < WindowBytes ? start : start + WindowBytes;
    const TWindow& window = Window(from);
    if (at - from >= static_cast<std::int64_t>(window.Bytes.size())) return std::nullopt;
    if (i == 0 && window.Bytes.size() - static_cast<std::size_t>(at - from) >= static_cast<std::size_t>(size)) {
      return ReadNumber(window.Bytes, littleEndian, static_cast<std::size_t>(size),
                        static_cast<std::size_t>(at - from));
    }
    bytes[i] = window.Bytes[static_cast<std::size_t>(at - from)];
  }
  return ReadNumber(bytes, littleEndian, static_cast<std::size_t>(size), 0);
}

TImageMarks::TImageMarks(IDevice& file) : Head(4096), Tail(512) {
  constexpr std::size_t least = 512;
  Head.resize(file.Read(0, Head));
  if (Head.size() < least) {  // what follows may be bad
    Head.resize(least);
    Head.resize(file.Read(0, Head));
  }
  const std::int64_t end = file.Size() - static_cast<std::int64_t>(Tail.size());
  Tail.resize(end < 0 ? 0 : file.Read(end, Tail));
  if (Tail.size() < 512) Tail.clear();
}

TByteDynArray BytesAt(IDevice& file, std::uint64_t position, std::uint64_t size) {
  const auto end = static_cast<std::uint64_t>(file.Size());
  if (size > LargestTablePart || position > end || size > end - position) return {};
  TByteDynArray bytes(static_cast<std::size_t>(size));
  if (file.Read(static_cast<std::int64_t>(position), bytes) != bytes.size()) bytes.clear();
  return bytes;
}

bool IsAt(std::span<const std::uint8_t> bytes, std::size_t at, std::string_view text) {
  return at + text.size() <= bytes.size() && std::memcmp(bytes.data() + at, text.data(), text.size()) == 0;
}

bool TablesFitInFile(IDevice& file, std::uint64_t place, std::uint64_t entries, int entrySize, bool littleEndian,
                     std::uint64_t tableSize) {
  const auto size = static_cast<std::size_t>(entrySize);
  if (entries > LargestTablePart / size) return false;
  const TByteDynArray bytes = BytesAt(file, place, entries * size);
  if (bytes.size() != entries * size) return false;
  std::uint64_t named = 0;
  for (std::size_t at = 0; at < bytes.size(); at += size) named += ReadNumber(bytes, littleEndian, size, at) != 0;
  return named <= static_cast<std::uint64_t>(file.Size()) / tableSize;
}

bool AreSizesSound(std::uint64_t diskSize, std::uint64_t blockSize) {
  constexpr std::uint64_t sector = 512;
  return diskSize > 0 && diskSize <= LargestVirtualDisk && blockSize >= sector && blockSize <= (1U << 30);
}

// ---- parents --------------------------------------------------------------------------------

TOpenedDevice RefuseImage(TImageProblem problem, std::string detail) {
  return {nullptr, EOPNOTSUPP, problem, std::move(detail)};
}

std::string PathBeside(const std::string& path, std::string name) {
  std::replace(name.begin(), name.end(), '\\', '/');
  name.erase(0, name.rfind('/') + 1);
  if (name.empty() || name == "." || name == ".." || name.find('\0') != std::string::npos) return {};
  return path.substr(0, path.rfind('/') + 1) + name;
}

TOpenedDevice OpenParent(const TImageFile& child, const TParentQuery& query) {
  const std::string shown = query.Names.empty() ? std::string("?") : query.Names.front();
  if (child.Depth >= DeepestChain) return RefuseImage(TImageProblem::Damaged, shown);
  std::vector<std::string> paths;
  for (const std::string& name : query.Names) paths.push_back(PathBeside(child.Path, name));
  if (!query.Relative.empty() && query.Relative.find('\0') == std::string::npos) {
    std::string relative = query.Relative;
    std::replace(relative.begin(), relative.end(), '\\', '/');
    paths.push_back((std::filesystem::path(child.Path).parent_path() / relative).string());
  }
  bool otherContent = false;
  for (const std::string& path : paths) {
    if (path.empty()) continue;
    TOpenedDevice file = OpenDevice(path);
    if (!file.Device || file.Device->SectorSize() != 0) continue;
    if (query.IsIt && !query.IsIt(*file.Device)) {
      otherContent = true;
      continue;
    }
    return query.Raw ? std::move(file) : OpenImage(path, child.Depth + 1);
  }
  return RefuseImage(otherContent ? TImageProblem::ParentChanged : TImageProblem::ParentMissing, shown);
}

}  // namespace brenlow

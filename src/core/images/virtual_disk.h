// SPDX-License-Identifier: GPL-3.0-or-later
// What all virtual disks have in common: a file with a map from the disk's bytes to places, read when
// it is asked for, and perhaps a parent that has what the file lacks.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/device/device.h"
#include "core/types.h"

namespace brenlow {

/// Bytes of a virtual disk that lie together from some position on.
struct TDiskPiece {
  enum TKind : std::uint8_t {
    Zeros,
    InFile,      ///< as they are, at `Place` of `File`
    Packed,      ///< compressed: `ReadPacked` knows
    InParent,    ///< at the same position of the parent
    Unreadable,  ///< the map leads nowhere
  };
  TKind Kind = Zeros;
  std::int64_t Length = 0;  ///< bytes, at least 1
  IDevice* File = nullptr;
  std::int64_t Place = 0;
};

class TVirtualDisk : public IDevice {
 public:
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) final;
  std::int64_t Size() const final { return FSize; }
  int SectorSize() const final { return 0; }
  std::int64_t NextData(std::int64_t position) final;
  void AddOrigins(std::vector<TFileIdentity>& origins) const final;

  /// False when far more of the disk is said to lie in its files than these have: entries of its tables share
  /// blocks, as no real disk's do. Bounded: of a very large disk the first part is looked at.
  bool IsBackedByFiles();

 protected:
  /// `size` in bytes. The files are those that its bytes and its map come from.
  TVirtualDisk(std::int64_t size, std::vector<std::unique_ptr<IDevice>> files);

  /// What lies at a position below `Size()`.
  virtual TDiskPiece PieceAt(std::int64_t position) = 0;
  /// Bytes of a packed piece from its position on; how many there are.
  virtual std::size_t ReadPacked(const TDiskPiece& piece, std::int64_t position, std::span<std::uint8_t> buffer);

  /// Cuts a piece of a difference, `within` bytes into its block, to the sectors that are like its first
  /// one: written here, or left to the parent. `isHere` knows a sector of the block.
  static void TakeRun(TDiskPiece& piece, std::int64_t within, std::int64_t sectorSize,
                      const std::function<bool(std::int64_t sector)>& isHere);

  IDevice& File(std::size_t number = 0) const { return *FFiles[number]; }
  std::size_t FileCount() const { return FFiles.size(); }
  /// Where the disk has what its file lacks; null means zeros.
  void SetParent(std::unique_ptr<IDevice> parent) { FParent = std::move(parent); }
  bool HasParent() const { return FParent != nullptr; }

 private:
  std::size_t ReadPiece(const TDiskPiece& piece, std::int64_t position, std::span<std::uint8_t> buffer);
  bool IsFollowedBy(const TDiskPiece& piece, std::int64_t end);
  std::int64_t BytesOfFiles() const;

  std::int64_t FSize;
  std::vector<std::unique_ptr<IDevice>> FFiles;
  std::unique_ptr<IDevice> FParent;
  std::int64_t FHoleStart = 0;  // the hole that was asked for last: scans ask block by block
  std::int64_t FHoleEnd = 0;
};

/// The tables of a file, of which a few pieces are kept: a disk of many TiB has tables of many MiB.
class TTableReader {
 public:
  explicit TTableReader(IDevice& file) : FFile(&file) {}
  /// The number of `size` bytes (1 to 8) at a byte of the file; nothing where it cannot be read.
  std::optional<std::uint64_t> Number(std::int64_t place, int size, bool littleEndian);

 private:
  static constexpr std::int64_t WindowBytes = 0x10000;
  struct TWindow {
    std::int64_t Place = -1;
    TByteDynArray Bytes;
  };
  const TWindow& Window(std::int64_t place);

  IDevice* FFile;
  std::array<TWindow, 8> FWindows;
  std::size_t FLast = 0;  // the window used last
  std::size_t FNext = 0;  // the one to be replaced next
};

/// What shows the kind of an image file: its first and last bytes, read once, since they may be bad.
struct TImageMarks {
  explicit TImageMarks(IDevice& file);
  TByteDynArray Head;  ///< the first 4 KiB, or what there is
  TByteDynArray Tail;  ///< the last 512 bytes; empty for a shorter file
};

/// So many bytes of a file; empty when it has not all of them, or for more than 64 MiB.
TByteDynArray BytesAt(IDevice& file, std::uint64_t position, std::uint64_t size);
/// True when the text is there.
bool IsAt(std::span<const std::uint8_t> bytes, std::size_t at, std::string_view text);
/// True for sizes (in bytes) of a disk and of its blocks that can be.
bool AreSizesSound(std::uint64_t diskSize, std::uint64_t blockSize);
inline constexpr std::uint64_t LargestVirtualDisk = std::uint64_t{1} << 56;  // bytes

/// An image file while the disk inside is opened.
struct TImageFile {
  std::string Path;
  std::unique_ptr<IDevice> File;
  int Depth = 0;  ///< 0 for the one that was asked for, 1 for its parent, ...
};

/// The parent of a difference. `Names` are tried in order, beside the child; of a path only the last
/// component counts. After them `Relative`, a path from the child's folder, is taken as it is. The first
/// file that `IsIt` (called with the file as it is) accepts is the parent: when that one cannot be
/// opened no other is tried, else a chain that leads back to itself would branch at each of its steps.
/// `Raw`: it is taken as the bytes of a disk, whatever it contains.
struct TParentQuery {
  std::vector<std::string> Names;
  std::string Relative;
  bool Raw = false;
  std::function<bool(IDevice& file)> IsIt;
};
TOpenedDevice OpenParent(const TImageFile& child, const TParentQuery& query);
/// Path of a file beside another one; empty when the name leads elsewhere.
std::string PathBeside(const std::string& path, std::string name);

/// A refusal: `detail` is what the image is, or the name of what is missing.
TOpenedDevice RefuseImage(TImageProblem problem, std::string detail);

/// Opens what a path names, see `OpenSource`; parents are opened by it too.
TOpenedDevice OpenImage(const std::string& path, int depth);

}  // namespace brenlow

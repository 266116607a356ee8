// SPDX-License-Identifier: GPL-3.0-or-later
// The virtual disks that are read, one unit each. `Is...` recognises them by their magic, whatever their
// name; `Open...` gives the disk inside, or a refusal with its reason.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/images/virtual_disk.h"
#include "core/numbers.h"

namespace brenlow {

bool IsVDI(const TImageMarks& marks);
TOpenedDevice OpenVDI(TImageFile image);

/// Growing and differencing ones by the copy of the footer at the start, fixed ones by their footer at the end.
bool IsVHD(const TImageMarks& marks);
TOpenedDevice OpenVHD(TImageFile image);

bool IsVHDX(const TImageMarks& marks);
TOpenedDevice OpenVHDX(TImageFile image);

/// `.hdd` and `.hds`.
bool IsParallelsDisk(const TImageMarks& marks);
TOpenedDevice OpenParallelsDisk(TImageFile image);

bool IsQcow2(const TImageMarks& marks);
TOpenedDevice OpenQcow2(TImageFile image);

/// A list of one file.
inline std::vector<std::unique_ptr<IDevice>> OneFile(std::unique_ptr<IDevice> file) {
  std::vector<std::unique_ptr<IDevice>> files;
  files.push_back(std::move(file));
  return files;
}

constexpr std::uint64_t ReadBe64(std::span<const std::uint8_t> bytes, std::size_t at) {
  return ReadNumber(bytes, false, 8, at);
}

constexpr std::uint64_t CeilDiv(std::uint64_t value, std::uint64_t divisor) {
  return value / divisor + (value % divisor > 0 ? 1 : 0);
}

/// True when a table of so many entries lies inside the file, and is one that a real disk can have: searches
/// check every entry.
inline bool FitsInFile(const IDevice& file, std::uint64_t place, std::uint64_t entries, std::uint64_t entrySize) {
  constexpr std::uint64_t largestTable = 1 << 30;  // bytes
  const auto size = static_cast<std::uint64_t>(file.Size());
  return place <= size && entries <= std::min(size - place, largestTable) / entrySize;
}

/// True when the tables that an upper table of 64 MiB at most names could all lie in the file: real ones do
/// not share a place. `place` is that of the upper table, sizes are bytes.
bool TablesFitInFile(IDevice& file, std::uint64_t place, std::uint64_t entries, int entrySize, bool littleEndian,
                     std::uint64_t tableSize);

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// The sector step of the deep analysis word for word: no index, no vectors, every pattern compared
// at every place. What the engine finds must be what this finds.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "table/signatures.h"

namespace brenlow::test {

class TDeepReference {
 public:
  explicit TDeepReference(int sectorSize) : FSectorSize(sectorSize) {}

  /// A line a file, as "File 00001.jpg 12+4096": name, first sector, size.
  std::string Rows;

  /// A whole drive. Each sector comes with what follows it in its block of 256 sectors; the last one of
  /// a block with the next block.
  void Drive(std::span<const std::uint8_t> image);

 private:
  void Sector(std::span<const std::uint8_t> buf, std::int64_t iStart, std::int64_t sector);
  const TFileSignature& Row(int row) const { return FTable.Signatures()[static_cast<std::size_t>(row)]; }
  const TFileSignature& Open() const { return Row(FRow); }
  bool Fits(const TSignatureCells& cells, std::span<const std::uint8_t> buf, std::int64_t at) const;
  bool Header(int row, std::int64_t sector);
  std::int64_t IconSize(std::span<const std::uint8_t> buf, std::int64_t at) const;
  void Inside(std::span<const std::uint8_t> buf, std::int64_t iStart, std::int64_t sector);
  void NameByDirectory(std::span<const std::uint8_t> buf, std::int64_t iStart);
  void Close(std::int64_t sector);
  void Add();

  TFileSignatures FTable;
  int FSectorSize;
  std::int64_t FSectors = 0;
  std::map<std::u16string, int> FCounters;
  std::int64_t FStart = 0;
  std::int64_t FSize = 0;
  std::int64_t FEnd = 0;
  int FRow = 0;
  std::u16string FByDirectory;
  bool FSameFound = false;
  bool FHalf = false;
  bool FLastNil = false;
};

}  // namespace brenlow::test

// SPDX-License-Identifier: GPL-3.0-or-later
// Builds disks of Hikvision recorders byte by byte from the published layout, independently of any reader.
//
// Format facts: Han, Jeong, Lee, "Analysis of the HIKVISION DVR File System" (ICDF2C 2015), and published
// readers of such disks. The footer of a tree is described nowhere and stays zeros.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "support/images.h"

namespace brenlow::test {

/// Bytes from the start of the disk. The copy of the master sector lies right behind the logs, the first tree
/// behind the last block, the second behind the first.
struct THikvisionShape {
  std::int64_t LogsOffset = 0x4000;
  std::int64_t LogsSize = 0x1000;
  std::int64_t DataOffset = 0x10000;
  std::int64_t BlockSize = 0x400000;
  std::uint32_t Blocks = 8;
};

/// A row of a tree. Times are seconds since 1970 by the recorder's clock.
struct THikvisionRow {
  std::uint8_t Channel = 1;
  std::uint32_t Block = 0;
  std::uint32_t Start = 0;  // 0x7FFFFFFF with an end of 0: still being written
  std::uint32_t End = 0;
  bool Recorded = true;
};

class THikvisionBuilder {
 public:
  /// Each list of `pages` becomes one page of both trees; at most 83 rows fit.
  explicit THikvisionBuilder(THikvisionShape shape, std::vector<std::vector<THikvisionRow>> pages);

  THikvisionShape Shape;
  /// What is not zeros, by its place on the disk.
  std::map<std::int64_t, std::vector<std::uint8_t>> Pieces;

  std::int64_t BlockAt(std::uint32_t block) const;
  std::int64_t CopyAt() const { return Shape.LogsOffset + Shape.LogsSize; }
  /// The tree's header page; `tree` is 0 or 1. Its list of pages follows, then its pages.
  std::int64_t TreeAt(int tree) const;
  std::int64_t TreeSize() const;
  std::int64_t Size() const { return TreeAt(2); }
  /// The place of a row within a tree, counted from the disk's start.
  std::int64_t RowAt(int tree, std::size_t page, std::size_t row) const;
  /// The whole disk; for small shapes only.
  TImage Image() const;

 private:
  std::vector<std::uint8_t> MasterSector() const;
  std::vector<std::uint8_t> Tree(int tree) const;

  std::vector<std::vector<THikvisionRow>> FPages;
};

}  // namespace brenlow::test

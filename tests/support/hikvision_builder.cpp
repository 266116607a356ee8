// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/hikvision_builder.h"

#include <algorithm>
#include <string_view>

namespace brenlow::test {

namespace {

constexpr std::int64_t PageSize = 0x1000;
constexpr std::int64_t RowSize = 0x30;
constexpr std::int64_t FirstRow = 0x60;
constexpr std::uint64_t AllOnes = ~std::uint64_t{0};

using TPieceBytes = std::vector<std::uint8_t>;

void Put(TPieceBytes& bytes, std::int64_t at, int size, std::uint64_t value) {
  for (int i = 0; i < size; ++i) bytes.at(static_cast<std::size_t>(at + i)) = static_cast<std::uint8_t>(value >> 8 * i);
}

void Put(TPieceBytes& bytes, std::int64_t at, std::int64_t value) {
  Put(bytes, at, 8, static_cast<std::uint64_t>(value));
}

void PutText(TPieceBytes& bytes, std::int64_t at, std::string_view text) {
  std::copy(text.begin(), text.end(), bytes.begin() + at);
}

/// What a row of a page and of the list of pages have in common.
void PutRow(TPieceBytes& bytes, std::int64_t at, const THikvisionRow& row, std::int64_t data) {
  bytes.at(static_cast<std::size_t>(at + 0x11)) = row.Channel;  // big-endian, 16 bits from 0x10
  Put(bytes, at + 0x18, 4, row.Start);
  Put(bytes, at + 0x1C, 4, row.End);
  Put(bytes, at + 0x20, data);
}

}  // namespace

THikvisionBuilder::THikvisionBuilder(THikvisionShape shape, std::vector<std::vector<THikvisionRow>> pages)
    : Shape(shape), FPages(std::move(pages)) {
  Pieces[0x200] = MasterSector();
  Pieces[CopyAt()] = MasterSector();
  for (int tree = 0; tree < 2; ++tree) Pieces[TreeAt(tree)] = Tree(tree);
}

std::int64_t THikvisionBuilder::BlockAt(std::uint32_t block) const {
  return Shape.DataOffset + Shape.BlockSize * block;
}

std::int64_t THikvisionBuilder::TreeAt(int tree) const { return BlockAt(Shape.Blocks) + TreeSize() * tree; }

std::int64_t THikvisionBuilder::TreeSize() const {
  return PageSize * (3 + static_cast<std::int64_t>(FPages.size()));  // with header, list of pages and footer
}

std::int64_t THikvisionBuilder::RowAt(int tree, std::size_t page, std::size_t row) const {
  return TreeAt(tree) + PageSize * (2 + static_cast<std::int64_t>(page)) + FirstRow +
         RowSize * static_cast<std::int64_t>(row);
}

std::vector<std::uint8_t> THikvisionBuilder::MasterSector() const {
  TPieceBytes bytes(512);
  PutText(bytes, 0x10, "HIKVISION@HANGZHOU");
  PutText(bytes, 0x30, "HIK.2011.03.08");
  Put(bytes, 0x48, Size());
  Put(bytes, 0x60, Shape.LogsOffset);
  Put(bytes, 0x68, Shape.LogsSize);
  Put(bytes, 0x78, Shape.DataOffset);
  Put(bytes, 0x80, Shape.BlockSize * Shape.Blocks);
  Put(bytes, 0x88, Shape.BlockSize);
  Put(bytes, 0x90, 4, Shape.Blocks);
  for (int tree = 0; tree < 2; ++tree) {
    Put(bytes, 0x98 + 0x10 * tree, TreeAt(tree));
    Put(bytes, 0xA0 + 0x10 * tree, 4, static_cast<std::uint64_t>(TreeSize()));
  }
  Put(bytes, 0xF0, 4, 1622628000);
  return bytes;
}

std::vector<std::uint8_t> THikvisionBuilder::Tree(int tree) const {
  TPieceBytes bytes(static_cast<std::size_t>(TreeSize()));
  const auto pageCount = static_cast<std::int64_t>(FPages.size());
  const std::int64_t firstPage = TreeAt(tree) + 2 * PageSize;
  PutText(bytes, 0x10, "HIKBTREE");
  Put(bytes, 0x3C, 4, 1622628000);
  Put(bytes, 0x40, firstPage + PageSize * pageCount);
  Put(bytes, 0x50, TreeAt(tree) + PageSize);
  Put(bytes, 0x58, firstPage);

  const std::int64_t list = PageSize;
  Put(bytes, list + 0x18, firstPage);
  for (std::int64_t page = 0; page < pageCount; ++page) {
    const std::int64_t at = PageSize * (2 + page);
    const auto& rows = FPages[static_cast<std::size_t>(page)];
    Put(bytes, at + 0x10, 4, rows.size());
    Put(bytes, at + 0x20, page + 1 < pageCount ? firstPage + PageSize * (page + 1) : -1);
    const std::int64_t listed = list + FirstRow + RowSize * page;
    Put(bytes, listed, firstPage + PageSize * page);
    if (!rows.empty()) PutRow(bytes, listed, rows.front(), BlockAt(rows.front().Block));
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const std::int64_t row = at + FirstRow + RowSize * static_cast<std::int64_t>(i);
      Put(bytes, row, 8, AllOnes);
      if (!rows[i].Recorded) Put(bytes, row + 8, 8, AllOnes);
      PutRow(bytes, row, rows[i], BlockAt(rows[i].Block));
    }
  }
  return bytes;
}

TImage THikvisionBuilder::Image() const {
  TImage image(static_cast<std::size_t>(Size()));
  for (const auto& [at, bytes] : Pieces) std::copy(bytes.begin(), bytes.end(), image.begin() + at);
  return image;
}

}  // namespace brenlow::test

// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/deep_reference.h"

#include <algorithm>

#include "core/text.h"

namespace brenlow::test {
namespace {

std::int64_t Number(std::span<const std::uint8_t> buf, std::int64_t at, int size) {
  std::int64_t value = 0;
  for (int i = size; i-- > 0;) value = value * 256 + buf[static_cast<std::size_t>(at + i)];
  return value;
}

}  // namespace

bool TDeepReference::Fits(const TSignatureCells& cells, std::span<const std::uint8_t> buf, std::int64_t at) const {
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::size_t place = static_cast<std::size_t>(at) + i;
    if (place >= buf.size() || (cells[i] != -1 && cells[i] != buf[place])) return false;
  }
  return true;
}

std::int64_t TDeepReference::IconSize(std::span<const std::uint8_t> buf, std::int64_t at) const {
  const std::int64_t n = Number(buf, at + 4, 2);
  if (n == 0) return 0;
  if (buf[static_cast<std::size_t>(at + 9)] != 0 && buf[static_cast<std::size_t>(at + 9)] != 0xFF) return 0;
  if (Number(buf, at + 10, 2) != 0 && Number(buf, at + 10, 2) != 1) return 0;
  std::int64_t position = 16 * n + 6;
  for (std::int64_t i = 0; i < n; ++i) {
    const std::int64_t entry = at + 6 + 16 * i;
    if (entry + 16 > static_cast<std::int64_t>(buf.size())) continue;
    if (Number(buf, entry + 12, 4) != position) return 0;
    position += Number(buf, entry + 8, 4);
  }
  return position;
}

bool TDeepReference::Header(int row, std::int64_t sector) {
  if (FStart != 0 && Row(row).Ext == Open().Ext && Row(row).NeedsZeroTailBefore && !FLastNil) return false;
  if (FStart != 0 && FEnd == 0 && FHalf) return false;
  Close(sector);
  if (!Row(row).CanStartFile) return false;
  FStart = sector;
  FRow = row;
  return true;
}

void TDeepReference::Sector(std::span<const std::uint8_t> buf, std::int64_t iStart, std::int64_t sector) {
  bool any = false;
  for (int row = 0; row < static_cast<int>(FTable.Signatures().size()); ++row) {
    if (!Fits(Row(row).Header, buf, iStart)) continue;
    any = true;
    if (Row(row).Ext == u".ico") {
      const std::int64_t size = IconSize(buf, iStart);
      if (size == 0) continue;
      Close(sector);
      FStart = sector;
      FRow = row;
      FEnd = 0;
      FSize = size;
      Add();
    } else if (Header(row, sector)) {
      break;
    }
  }
  for (const TFileSignature& published : FTable.PublishedHeaders()) {
    if (any || !Fits(published.Header, buf, iStart)) continue;
    any = true;
    Header(FTable.FirstRowOf(published.Ext), sector);
  }
  Inside(buf, iStart, sector);
  const std::int64_t end = iStart + FSectorSize;
  FLastNil = Number(buf, end - 2, 2) == 0;
}

void TDeepReference::Inside(std::span<const std::uint8_t> buf, std::int64_t iStart, std::int64_t sector) {
  const std::int64_t end = iStart + FSectorSize;
  if (FStart != 0) {
    const bool compound = Open().Ext == u".doc";
    bool met = false;
    for (const TFileSubSignature& sub : Open().SubSignatures) {
      const auto length = static_cast<std::int64_t>(sub.Pattern.size());
      for (std::int64_t at = iStart; length > 0 && at + length <= end && !met; ++at) met = Fits(sub.Pattern, buf, at);
      if (!met) continue;
      FSameFound = true;
      FRow = FTable.FirstRowOf(u"." + sub.Ext);
      break;
    }
    if (compound && !met) NameByDirectory(buf, iStart);
  }
  FHalf = false;
  if (FStart != 0) {
    for (const TSignatureCells& marker : Open().HalfFileMarkers) {
      FHalf = FHalf || Fits(marker, buf, end - static_cast<std::int64_t>(marker.size()));
    }
  }
  const std::int64_t before = (sector - FStart) * FSectorSize;
  if (FStart != 0 && !Open().Footer.empty()) {
    for (std::int64_t at = end - 1; at >= iStart; --at) {
      if (!Fits(Open().Footer, buf, at)) continue;
      FEnd = before + (at - iStart) + static_cast<std::int64_t>(Open().Footer.size());
      break;
    }
  }
  if (FStart != 0 && Open().EndsAtZeroTail) {
    std::int64_t used = end;
    while (used > iStart && buf[static_cast<std::size_t>(used - 1)] == 0) --used;
    if (end - used >= 16) {
      FSize = before + (used - iStart);
      Add();
    }
  }
  if (FStart != 0 && (Open().Ext == u".odp" || Open().Ext == u".ods" || Open().Ext == u".odt")) {
    for (std::int64_t at = end - 1; at >= iStart; --at) {
      if (!Fits({0x50, 0x4B, 5, 6}, buf, at)) continue;
      FSize = before + (at - iStart) + 22;
      Add();
      break;
    }
  }
}

void TDeepReference::NameByDirectory(std::span<const std::uint8_t> buf, std::int64_t iStart) {
  const std::pair<std::u16string, std::u16string> streams[] = {
      {u"WordDocument", u".doc"}, {u"Workbook", u".xls"}, {u"Book", u".xls"}, {u"PowerPoint Document", u".ppt"}};
  for (std::int64_t entry = iStart; entry < iStart + FSectorSize && FByDirectory.empty(); entry += 128) {
    for (const auto& [name, extension] : streams) {
      bool same = Number(buf, entry + 64, 2) == static_cast<std::int64_t>(2 * name.size() + 2) &&
                  Number(buf, entry + 66, 1) == 2;
      for (std::size_t i = 0; same && i <= name.size(); ++i) {
        same = Number(buf, entry + 2 * static_cast<std::int64_t>(i), 2) == name.c_str()[i];
      }
      if (same) FByDirectory = extension;
    }
  }
}

void TDeepReference::Close(std::int64_t sector) {
  if (FStart == 0) return;
  FSize = (sector - FStart) * FSectorSize;
  Add();
}

void TDeepReference::Drive(std::span<const std::uint8_t> image) {
  constexpr std::int64_t block = 256;
  FSectors = static_cast<std::int64_t>(image.size()) / FSectorSize;
  for (std::int64_t sector = 0; sector < FSectors; ++sector) {
    const std::int64_t end = std::min((sector + 1) / block * block + block, FSectors);
    Sector(image.first(static_cast<std::size_t>(end * FSectorSize)), sector * FSectorSize, sector);
  }
  Close(FSectors);
}

void TDeepReference::Add() {
  std::u16string extension = Open().Ext;
  bool passes = Open().SubSignatures.empty() || FSameFound;
  for (const TFileSubSignature& sub : Open().SubSignatures) {
    if (passes || !sub.Pattern.empty()) continue;
    extension = u"." + sub.Ext;
    passes = true;
  }
  if (!passes && !FByDirectory.empty()) {
    extension = FByDirectory;
    passes = true;
  }
  std::int64_t size = FEnd != 0 ? FEnd : FSize;
  if (extension == u".mp3" && size < 1048576) passes = false;
  size = std::min({size, std::int64_t{2147483648}, (FSectors - FStart) * FSectorSize});
  if (passes && size > 0) {
    std::string number = std::to_string(++FCounters[extension]);
    while (number.size() < 5) number.insert(0, "0");
    Rows += "File " + number + ToUtf8(extension) + " " + std::to_string(FStart) + "+" + std::to_string(size) + "\n";
  }
  FStart = FEnd = 0;
  FSameFound = false;
  FByDirectory.clear();
}

}  // namespace brenlow::test

// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/file_records.h"

#include <algorithm>
#include <new>
#include <utility>

namespace brenlow {

std::size_t TFileArray::Add(const TFileInfo& info, std::int64_t parentCluster) {
  if (FSize == FRows.size() * RowsPerChunk) FRows.emplace_back(new TRowChunk);
  const TStringView name = Keep(info.strName);
  TFile* row = new (At(FSize)) TFile{parentCluster, info};
  row->FileInfo.strName = name;
  return FSize++;
}

void TFileArray::Clear() {
  for (std::size_t i = 0; i < FSize; ++i) At(i)->~TFile();
  FRows.clear();
  FNames.clear();
  FNameRoom = 0;
  FSize = 0;
}

std::size_t TFileArray::EraseIf(const std::function<bool(std::size_t, const TFile&)>& doomed,
                                std::vector<std::uint32_t>* newNumbers) {
  TFileArray kept;
  if (newNumbers != nullptr) newNumbers->assign(FSize, Erased);
  for (std::size_t i = 0; i < FSize; ++i) {
    const TFile& row = *At(i);
    if (doomed(i, row)) continue;
    const std::size_t number = kept.Add(row.FileInfo, row.ParentCluster);
    if (newNumbers != nullptr) (*newNumbers)[i] = static_cast<std::uint32_t>(number);
  }
  const std::size_t erased = FSize - kept.FSize;
  if (erased > 0) Swap(kept);
  return erased;
}

TStringView TFileArray::Keep(TStringView name) {
  if (name.empty()) return {};
  if (name.size() > FNameRoom) {
    FNameRoom = std::max(NameUnitsPerChunk, name.size());
    FNames.emplace_back(new char16_t[FNameRoom]);
  }
  // The chunk is filled from its end: the room that is left is also the place of the next name.
  FNameRoom -= name.size();
  char16_t* place = FNames.back().get() + FNameRoom;
  std::copy(name.begin(), name.end(), place);
  return {place, name.size()};
}

void TFileArray::Swap(TFileArray& other) noexcept {
  std::swap(FRows, other.FRows);
  std::swap(FNames, other.FNames);
  std::swap(FNameRoom, other.FNameRoom);
  std::swap(FSize, other.FSize);
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/file_order.h"

#include <algorithm>
#include <bit>
#include <map>
#include <span>
#include <vector>

#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"
#include "shell/natural_order.h"
#include "table/files.h"

namespace brenlow {
namespace {

/// Millions of rows are sorted by a number each; only rows with equal numbers are compared by name.
struct TKeyed {
  std::uint64_t Key;
  int Number;
};

std::uint64_t KeyOf(std::int64_t value) { return static_cast<std::uint64_t>(value) ^ (std::uint64_t{1} << 63); }

/// Times before 1899 do not occur, so that the bits of a time are in its order.
std::uint64_t KeyOf(TDateTime time) { return time > 0 ? std::bit_cast<std::uint64_t>(time) : 0; }

class TSorter {
 public:
  TSorter(TEngine& engine, TSortOrder order) : FEngine(engine), FOrder(order) {}

  void Sort(std::span<int> numbers) {
    std::vector<TKeyed> rows = Keys(numbers);
    std::sort(rows.begin(), rows.end(), [this](const TKeyed& a, const TKeyed& b) {
      if (a.Key != b.Key) return a.Key < b.Key;
      const int names = CompareNatural(Info(a.Number).strName, Info(b.Number).strName);
      return names != 0 ? names < 0 : a.Number < b.Number;
    });
    for (std::size_t i = 0; i < rows.size(); ++i) numbers[i] = rows[i].Number;
    if (FOrder.Descending) std::reverse(numbers.begin(), numbers.end());
  }

 private:
  const TFileInfo& Info(int number) const { return FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo; }

  const TDriveInfo* DriveOf(int number) const {
    const TDrives& drives = FEngine.Drives();
    const int drive = Info(number).aDriveNumber;
    return drives.IsWrongNumber(drive) ? nullptr : &drives.List[static_cast<std::size_t>(drive)];
  }

  std::vector<TKeyed> Keys(std::span<const int> numbers) {
    switch (FOrder.Key) {
      case TSortKey::Name:
        return NameKeys(numbers);
      case TSortKey::Type:
        return TextKeys(numbers, [this](int n) { return TypeOf(n); });
      case TSortKey::FileSystem:
        return TextKeys(numbers, [this](int n) {
          const TDriveInfo* drive = DriveOf(n);
          return TString(drive == nullptr ? TStringView() : TDrives::GetSystemNameBySystem(drive->FileSystem));
        });
      case TSortKey::Size:
        return NumberKeys(numbers, [this](int n) { return KeyOf(SizeOf(n)); });
      case TSortKey::Status:
        return NumberKeys(numbers, [this](int n) { return KeyOf(std::int64_t{Info(n).blnDeleted}); });
      case TSortKey::Modified:
        return NumberKeys(numbers, [this](int n) { return KeyOf(Info(n).TimeStamp.dtModified); });
      case TSortKey::Created:
        return NumberKeys(numbers, [this](int n) { return KeyOf(Info(n).TimeStamp.dtCreated); });
      case TSortKey::FreeSize:
        return NumberKeys(numbers, [this](int n) {
          const TDriveInfo* drive = DriveOf(n);
          return KeyOf(drive == nullptr ? std::int64_t{-1} : drive->aFreeSize);
        });
    }
    return {};
  }

  std::int64_t SizeOf(int number) const {
    const TDriveInfo* drive = TFiles::IsRootDir(Info(number)) ? DriveOf(number) : nullptr;
    return drive == nullptr ? Info(number).aSize : drive->SectorsCount * drive->BytesPerSector;
  }

  TString TypeOf(int number) {
    return Info(number).blnFolder ? TString() : FEngine.Files().GetType(Info(number).strName);
  }

  /// Names in one folder often start alike ("IMG_2023..."), so the key starts where they differ.
  std::vector<TKeyed> NameKeys(std::span<const int> numbers) const {
    std::size_t common = 256;
    for (const int number : numbers) {
      common = CommonNaturalBytes(Info(numbers.front()).strName, Info(number).strName, common);
    }
    return NumberKeys(numbers, [&](int n) { return NaturalKey(Info(n).strName, common); });
  }

  template <typename TOf>
  static std::vector<TKeyed> NumberKeys(std::span<const int> numbers, const TOf& of) {
    std::vector<TKeyed> rows;
    rows.reserve(numbers.size());
    for (const int number : numbers) rows.push_back({of(number), number});
    return rows;
  }

  /// There are few different texts: each gets its rank.
  template <typename TOf>
  static std::vector<TKeyed> TextKeys(std::span<const int> numbers, const TOf& of) {
    std::map<TString, std::uint64_t> ranks;
    std::vector<std::map<TString, std::uint64_t>::const_iterator> texts;
    texts.reserve(numbers.size());
    for (const int number : numbers) texts.push_back(ranks.try_emplace(LowerCase(of(number)), 0).first);
    std::uint64_t next = 0;
    for (auto& [text, rank] : ranks) rank = next++;
    std::vector<TKeyed> rows;
    rows.reserve(numbers.size());
    for (std::size_t i = 0; i < numbers.size(); ++i) rows.push_back({texts[i]->second, numbers[i]});
    return rows;
  }

  TEngine& FEngine;
  TSortOrder FOrder;
};

}  // namespace

void SortFiles(TEngine& engine, TIntegerDynArray& fileNumbers, TSortOrder order) {
  const auto isFolder = [&](int n) {
    return bool{engine.Files().List[static_cast<std::size_t>(n)].FileInfo.blnFolder};
  };
  const auto files = std::stable_partition(fileNumbers.begin(), fileNumbers.end(), isFolder);
  TSorter sorter(engine, order);
  if (files != fileNumbers.begin()) sorter.Sort({fileNumbers.begin(), files});
  if (files != fileNumbers.end()) sorter.Sort({files, fileNumbers.end()});
}

}  // namespace brenlow

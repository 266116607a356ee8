// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/recovery_list.h"

#include "core/engine.h"
#include "table/files.h"

namespace brenlow {

void TRecoveryList::AddFiles(const TIntegerDynArray& fileNumbers) {
  for (const int number : fileNumbers) {
    if (!FEngine.Files().IsWrongNumber(number) && FKnown.insert(number).second) FFiles.push_back(number);
  }
}

void TRecoveryList::EraseIf(const std::function<bool(int)>& doomed) {
  std::erase_if(FFiles, doomed);
  FKnown = {FFiles.begin(), FFiles.end()};
}

void TRecoveryList::RemoveFiles(const TIntegerDynArray& fileNumbers) {
  const std::unordered_set<int> doomed(fileNumbers.begin(), fileNumbers.end());
  EraseIf([&](int number) { return doomed.contains(number); });
}

void TRecoveryList::ClearFiles(int driveNumber) {
  EraseIf([&](int number) {
    return FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber == driveNumber;
  });
}

void TRecoveryList::ClearDeepFiles(int driveNumber) {
  EraseIf([&](int number) {
    const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo;
    return info.aDriveNumber == driveNumber && info.aDeepAnalyse;
  });
}

void TRecoveryList::MoveNumbers(const std::vector<std::uint32_t>& newNumbers) {
  const auto moved = [&](int number) { return newNumbers[static_cast<std::size_t>(number)]; };
  std::erase_if(FFiles, [&](int number) { return moved(number) == TFileArray::Erased; });
  for (int& number : FFiles) number = static_cast<int>(moved(number));
  FKnown = {FFiles.begin(), FFiles.end()};
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/recovery_list.h"

#include <unordered_set>

#include "analysis/files.h"
#include "core/engine.h"

namespace brenlow {

void TRecoveryList::AddFiles(const TIntegerDynArray& fileNumbers) {
  std::unordered_set<int> known(FFiles.begin(), FFiles.end());
  for (const int number : fileNumbers) {
    if (!FEngine.Files().IsWrongNumber(number) && known.insert(number).second) FFiles.push_back(number);
  }
}

void TRecoveryList::Remove(int fileNumber) { std::erase(FFiles, fileNumber); }

void TRecoveryList::ClearFiles(int driveNumber) {
  std::erase_if(FFiles, [&](int number) {
    return FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo.aDriveNumber == driveNumber;
  });
}

void TRecoveryList::ClearDeepFiles(int driveNumber) {
  std::erase_if(FFiles, [&](int number) {
    const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo;
    return info.aDriveNumber == driveNumber && info.aDeepAnalyse;
  });
}

void TRecoveryList::MoveNumbers(const std::vector<std::uint32_t>& newNumbers) {
  const auto gone = [&](int number) { return newNumbers[static_cast<std::size_t>(number)] == TFileArray::Erased; };
  std::erase_if(FFiles, gone);
  for (int& number : FFiles) number = static_cast<int>(newNumbers[static_cast<std::size_t>(number)]);
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <functional>
#include <unordered_set>
#include <vector>

#include "core/types.h"

namespace brenlow {

class TEngine;

/// The files and folders that the user chose for a recovery, in order, each once.
class TRecoveryList {
 public:
  explicit TRecoveryList(TEngine& engine) : FEngine(engine) {}

  const TIntegerDynArray& Files() const { return FFiles; }
  void AddFiles(const TIntegerDynArray& fileNumbers);
  void RemoveFiles(const TIntegerDynArray& fileNumbers);
  bool Has(int fileNumber) const { return FKnown.contains(fileNumber); }
  /// Drops what came from the analysis of a drive, or from its deep analysis only.
  void ClearFiles(int driveNumber);
  void ClearDeepFiles(int driveNumber);
  /// File numbers after rows of the file table went: `newNumbers[old]`.
  void MoveNumbers(const std::vector<std::uint32_t>& newNumbers);

 private:
  void EraseIf(const std::function<bool(int)>& doomed);

  TEngine& FEngine;
  TIntegerDynArray FFiles;
  std::unordered_set<int> FKnown;  // the same numbers
};

}  // namespace brenlow

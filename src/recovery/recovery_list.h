// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <vector>

#include "core/types.h"

namespace brenlow {

class TEngine;

/// The files and folders that the user put aside for a recovery, in order, each once.
class TRecoveryList {
 public:
  explicit TRecoveryList(TEngine& engine) : FEngine(engine) {}

  const TIntegerDynArray& Files() const { return FFiles; }
  void AddFiles(const TIntegerDynArray& fileNumbers);
  void Remove(int fileNumber);
  /// Drops what came from the analysis of a drive, or from its deep analysis only.
  void ClearFiles(int driveNumber);
  void ClearDeepFiles(int driveNumber);
  /// File numbers after rows of the file table went: `newNumbers[old]`.
  void MoveNumbers(const std::vector<std::uint32_t>& newNumbers);

 private:
  TEngine& FEngine;
  TIntegerDynArray FFiles;
};

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// What the bytes of a deleted file tell of themselves, while they go by.
#pragma once

#include <cstdint>
#include <span>

#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

class TContentCheck {
 public:
  TContentCheck(TEngine& engine, const TFile& file)
      : FEngine(engine), FFile(file), FWanted(file.FileInfo.blnDeleted && !file.FileInfo.aDeepAnalyse) {}

  /// The next piece of the content, from its start on.
  void Take(std::span<const std::uint8_t> bytes);
  /// `OnlyZeros`, `OtherType` or `None`. Files that are not deleted are not doubted.
  TContentDoubt Doubt() const;

 private:
  bool IsOtherType(std::span<const std::uint8_t> head) const;

  TEngine& FEngine;
  const TFile& FFile;
  bool FWanted;
  bool FBegun = false;
  bool FOnlyZeros = true;
  bool FIsOtherType = false;
};

}  // namespace brenlow

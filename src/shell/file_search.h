// SPDX-License-Identifier: GPL-3.0-or-later
// Finds files of the file table by name, size and date.
#pragma once

#include "core/datetime.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

struct TFindOptions {
  /// Part of the name, or with `*` and `?` a pattern for the whole of it; empty for any.
  TString Text;
  bool CaseSensitive = false;
  bool WholeWords = false;    ///< the text is between characters that are not letters or digits
  std::int64_t MinSize = -1;  ///< bytes; -1 for any
  std::int64_t MaxSize = -1;  ///< bytes; -1 for any
  bool ByCreated = false;     ///< the dates below are those of the creation, else of the last change
  TDateTime From = 0;         ///< 0 for any
  TDateTime To = 0;           ///< 0 for any
  bool HiddenFiles = true;
  bool SystemFiles = true;
  int Drive = -1;  ///< only this drive and those inside it; -1 for all

  /// True when nothing narrows the search.
  bool Empty() const;
};

/// Numbers of the files and folders that fit, in order of discovery.
TIntegerDynArray FindFiles(TEngine& engine, const TFindOptions& options);

}  // namespace brenlow

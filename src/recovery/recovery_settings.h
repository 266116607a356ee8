// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

#include "core/types.h"

namespace brenlow {

/// What the recovery wizard asks and remembers between runs.
struct TRecoverySettings {
  int Type = 0;                      ///< the `TRecoverType` chosen last
  bool Remember = false;             ///< the first page passes by itself
  std::string Path = "C:\\";         ///< target folder; "C:\" stands for none chosen yet
  bool Folders = true;               ///< restore the folder structure
  bool ADS = true;                   ///< write alternate data streams where the target holds them
  bool CanReplaceSymbols = false;    ///< refused characters in names are replaced without asking
  std::string UnknownSymbols = "_";  ///< its first character is the replacement
};

}  // namespace brenlow

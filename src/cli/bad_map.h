// SPDX-License-Identifier: GPL-3.0-or-later
// The file of `--bad-map`: which places of a source did not read, kept from run to run.
#pragma once

#include <cstdint>

#include "core/types.h"

namespace brenlow {

class TEngine;

namespace cli {

struct TOptions;

/// Once the source is mounted, takes over what earlier runs have noted, and from then on keeps the file up to
/// date until it goes out of scope. Does nothing where the option was not given. The format is that of a map file
/// (`core/images/rescue_map.h`): '-' failed alone, '/' was left out, '?' nothing is known against it.
class TBadMap {
 public:
  TBadMap(TEngine& engine, const TOptions& options) : FEngine(engine), FOptions(options) {}
  ~TBadMap();
  TBadMap(const TBadMap&) = delete;
  TBadMap& operator=(const TBadMap&) = delete;

  /// False, with a complaint, when the file is not a map of the source or may not be written.
  bool Open();

 private:
  void Keep();

  TEngine& FEngine;
  const TOptions& FOptions;
  TString FKey;
  std::int64_t FLastKept = 0;  // steady clock, milliseconds
  bool FIsOpen = false;
  bool FHasFailed = false;
};

}  // namespace cli
}  // namespace brenlow

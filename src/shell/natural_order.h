// SPDX-License-Identifier: GPL-3.0-or-later
// Order of names as people expect it: without regard to case, numbers by their value, so that
// "IMG_2" comes before "IMG_10".
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/types.h"

namespace brenlow {

/// A name as a sequence of bytes whose plain order is the natural order.
class TNaturalBytes {
 public:
  explicit TNaturalBytes(TStringView name) : FName(name) {}
  /// The next byte; -1 at the end.
  int Next();

 private:
  void StartNumber();

  TStringView FName;
  std::size_t FAt = 0;
  std::size_t FDigits = 0;  // digits of a number still to come
  std::uint8_t FWaiting[2] = {};
  int FWaitingCount = 0;
};

/// Below, equal to or above 0. Names that differ only in case or leading zeros are equal.
int CompareNatural(TStringView a, TStringView b);

/// The 8 bytes from byte `skip` on as a number: keys of different size are in the order of names
/// that share the bytes before.
std::uint64_t NaturalKey(TStringView name, std::size_t skip);

/// How many bytes, `most` at most, two names have in common at their start.
std::size_t CommonNaturalBytes(TStringView a, TStringView b, std::size_t most);

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/natural_order.h"

#include <algorithm>

#include "core/text.h"

namespace brenlow {
namespace {

bool IsDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

}  // namespace

/// A number is the byte of a digit, its length without leading zeros, and its digits.
void TNaturalBytes::StartNumber() {
  while (FAt + 1 < FName.size() && FName[FAt] == u'0' && IsDigit(FName[FAt + 1])) ++FAt;
  std::size_t end = FAt;
  while (end < FName.size() && IsDigit(FName[end])) ++end;
  FDigits = end - FAt;
  FWaiting[0] = static_cast<std::uint8_t>(std::min<std::size_t>(FDigits, 255));
  FWaitingCount = 1;
}

int TNaturalBytes::Next() {
  if (FWaitingCount > 0) return FWaiting[--FWaitingCount];
  if (FAt >= FName.size()) return -1;
  if (FDigits > 0) {
    --FDigits;
    return FName[FAt++];
  }
  if (IsDigit(FName[FAt])) {
    StartNumber();
    return u'0';
  }
  const char16_t c = LowerCase(FName[FAt++]);
  if (c < 0x80) return c;
  FWaiting[1] = static_cast<std::uint8_t>(c >> 1);
  FWaiting[0] = static_cast<std::uint8_t>(c & 1);
  FWaitingCount = 2;
  return 0x80 + (c >> 9);
}

int CompareNatural(TStringView a, TStringView b) {
  TNaturalBytes left(a);
  TNaturalBytes right(b);
  while (true) {
    const int x = left.Next();
    const int y = right.Next();
    if (x != y) return x - y;
    if (x < 0) return 0;
  }
}

std::uint64_t NaturalKey(TStringView name, std::size_t skip) {
  TNaturalBytes bytes(name);
  for (; skip > 0; --skip) bytes.Next();
  std::uint64_t key = 0;
  // The end of a name sorts as 0, before every byte of a name but NUL.
  for (int i = 0; i < 8; ++i) key = key << 8 | static_cast<std::uint64_t>(std::max(bytes.Next(), 0));
  return key;
}

std::size_t CommonNaturalBytes(TStringView a, TStringView b, std::size_t most) {
  TNaturalBytes left(a);
  TNaturalBytes right(b);
  std::size_t count = 0;
  for (int x = left.Next(); count < most && x >= 0 && x == right.Next(); x = left.Next()) ++count;
  return count;
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/content_check.h"

#include <algorithm>

#include "core/engine.h"
#include "core/numbers.h"
#include "core/text.h"
#include "table/signatures.h"

namespace brenlow {
namespace {

/// True unless one of the first bytes that a header states is another one. What comes after them depends
/// on the program that wrote the file.
bool MayBegin(const TSignatureCells& header, std::span<const std::uint8_t> bytes) {
  constexpr int mostStated = 3;
  int stated = 0;
  for (std::size_t i = 0; i < std::min(header.size(), bytes.size()) && stated < mostStated; ++i) {
    if (header[i] < 0) continue;
    if (header[i] != bytes[i]) return false;
    ++stated;
  }
  return true;
}

}  // namespace

void TContentCheck::Take(std::span<const std::uint8_t> bytes) {
  if (!FWanted) return;
  if (!FBegun) FIsOtherType = IsOtherType(bytes);
  FBegun = true;
  FOnlyZeros = FOnlyZeros && IsAllZero(bytes);
}

TContentDoubt TContentCheck::Doubt() const {
  if (!FBegun) return TContentDoubt::None;
  return FOnlyZeros ? TContentDoubt::OnlyZeros : FIsOtherType ? TContentDoubt::OtherType : TContentDoubt::None;
}

bool TContentCheck::IsOtherType(std::span<const std::uint8_t> head) const {
  const TString extension = u"." + LowerCase(Trim(Extension(FFile.FileInfo.strName)));
  bool known = false;
  for (const auto* rows : {&FEngine.Signatures().Signatures(), &FEngine.Signatures().PublishedHeaders()}) {
    for (const TFileSignature& row : *rows) {
      if (row.Ext != extension) continue;
      known = true;
      if (MayBegin(row.Header, head)) return false;
    }
  }
  return known;
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// The vocabulary of file types by content.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/types.h"

namespace brenlow {

struct TFileSignature {
  TString Ext;                       ///< lower case, with its dot
  std::vector<std::int16_t> Header;  ///< bytes at the file's start; -1 matches any byte
};

/// Builds a cell array from hexadecimal text, two characters a byte; a pair with an X is a
/// wildcard (-1).
std::vector<std::int16_t> ParseHexSignature(std::string_view text);

class TFileSignatures {
 public:
  TFileSignatures();

  const std::vector<TFileSignature>& Signatures() const { return FSignatures; }

  /// Whether the bytes from `start` on fit the extension (lower case, with its dot).
  /// `found`: there is a row that is not longer than the data. `same`: one of them matches.
  void CheckSignatureByFileExt(TStringView extension, std::span<const std::uint8_t> buffer, std::size_t start,
                               bool& found, bool& same) const;

 private:
  std::vector<TFileSignature> FSignatures;
};

}  // namespace brenlow

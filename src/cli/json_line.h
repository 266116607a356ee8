// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/types.h"

namespace brenlow::cli {

/// Builds one line of JSON Lines output, field by field.
class TJsonLine {
 public:
  TJsonLine& Text(std::string_view key, TStringView value);
  TJsonLine& Text(std::string_view key, const std::string& utf8);
  /// A path on a source. Where it is not valid text, `KEY_base64` follows with its exact value: UTF-8 in
  /// which unpaired surrogates stand as three bytes.
  TJsonLine& Path(std::string_view key, TStringView value);
  /// A path of this machine: bytes. Where they are not UTF-8, `KEY_base64` follows.
  TJsonLine& HostPath(std::string_view key, const std::string& path);
  /// An empty text becomes null.
  TJsonLine& TextOrNull(std::string_view key, const std::string& utf8);
  TJsonLine& Number(std::string_view key, std::int64_t value);
  TJsonLine& Flag(std::string_view key, bool value);
  /// The object with its line feed; then a new line starts.
  std::string Take();

 private:
  void Key(std::string_view key);
  std::string FLine;
};

}  // namespace brenlow::cli

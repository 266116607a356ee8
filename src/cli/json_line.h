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
  /// An empty text becomes null.
  TJsonLine& TextOrNull(std::string_view key, const std::string& utf8);
  TJsonLine& Number(std::string_view key, std::int64_t value);
  TJsonLine& Flag(std::string_view key, bool value);
  /// The object with its line feed; the line starts anew.
  std::string Take();

 private:
  void Key(std::string_view key);
  std::string FLine;
};

}  // namespace brenlow::cli

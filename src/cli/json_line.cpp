// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/json_line.h"

#include <nlohmann/json.hpp>

#include "cli/console.h"
#include "core/text.h"

namespace brenlow::cli {

void TJsonLine::Key(std::string_view key) {
  FLine += FLine.empty() ? "{\"" : ",\"";
  FLine += key;
  FLine += "\":";
}

TJsonLine& TJsonLine::Text(std::string_view key, TStringView value) { return Text(key, ToUtf8(value)); }

TJsonLine& TJsonLine::Text(std::string_view key, const std::string& utf8) {
  Key(key);
  FLine += PrintableJson(nlohmann::json(utf8).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  return *this;
}

TJsonLine& TJsonLine::TextOrNull(std::string_view key, const std::string& utf8) {
  if (!utf8.empty()) return Text(key, utf8);
  Key(key);
  FLine += "null";
  return *this;
}

TJsonLine& TJsonLine::Number(std::string_view key, std::int64_t value) {
  Key(key);
  FLine += std::to_string(value);
  return *this;
}

TJsonLine& TJsonLine::Flag(std::string_view key, bool value) {
  Key(key);
  FLine += value ? "true" : "false";
  return *this;
}

std::string TJsonLine::Take() {
  std::string line = std::move(FLine) + "}\n";
  FLine.clear();
  return line;
}

}  // namespace brenlow::cli

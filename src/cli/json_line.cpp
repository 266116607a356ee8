// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/json_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "cli/console.h"
#include "core/text.h"

namespace brenlow::cli {
namespace {

/// RFC 4648, with padding.
std::string Base64(std::string_view bytes) {
  constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(bytes.size() - i, 3);
    std::uint32_t group = 0;
    for (std::size_t n = 0; n < 3; ++n)
      group = group << 8 | (n < count ? static_cast<unsigned char>(bytes[i + n]) : 0U);
    for (std::size_t n = 0; n < 4; ++n) text += n <= count ? digits[group >> (18 - 6 * n) & 63] : '=';
  }
  return text;
}

/// UTF-8 in which unpaired surrogates keep their value, as three bytes each.
std::string WideUtf8(TStringView text) {
  std::string bytes;
  std::size_t done = 0;
  const auto isHigh = [](char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; };
  const auto isLow = [](char16_t unit) { return unit >= 0xDC00 && unit < 0xE000; };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isHigh(text[i]) && i + 1 < text.size() && isLow(text[i + 1])) {
      ++i;
    } else if (isHigh(text[i]) || isLow(text[i])) {
      bytes += ToUtf8(text.substr(done, i - done));
      bytes += static_cast<char>(0xE0 | text[i] >> 12);
      bytes += static_cast<char>(0x80 | (text[i] >> 6 & 0x3F));
      bytes += static_cast<char>(0x80 | (text[i] & 0x3F));
      done = i + 1;
    }
  }
  return bytes + ToUtf8(text.substr(done));
}

}  // namespace

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

TJsonLine& TJsonLine::Path(std::string_view key, TStringView value) {
  Text(key, value);
  const std::string bytes = WideUtf8(value);
  return bytes == ToUtf8(value) ? *this : Text(std::string(key) + "_base64", Base64(bytes));
}

TJsonLine& TJsonLine::HostPath(std::string_view key, const std::string& path) {
  bool valid = true;
  FromUtf8(path, &valid);
  Text(key, path);
  return valid ? *this : Text(std::string(key) + "_base64", Base64(path));
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

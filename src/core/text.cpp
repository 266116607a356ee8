// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/text.h"

#include <charconv>

namespace brenlow {
namespace {

constexpr bool IsHighSurrogate(char32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
constexpr bool IsLowSurrogate(char32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }
constexpr char16_t Replacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

/// Encodes `text`; `escapes` turns U+DC80 to U+DCFF back into the single bytes they represent.
std::string Encode(TStringView text, bool escapes) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char32_t c = text[i];
    if (IsHighSurrogate(c) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      AppendUtf8(out, 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00));
    } else if (escapes && c >= 0xDC80 && c <= 0xDCFF) {
      out += static_cast<char>(c - 0xDC00);
    } else {
      AppendUtf8(out, IsHighSurrogate(c) || IsLowSurrogate(c) ? char32_t{Replacement} : c);
    }
  }
  return out;
}

/// Length of the well-formed sequence at `at` and its value; length 0 when the byte starts none.
std::size_t DecodeOne(std::string_view text, std::size_t at, char32_t& value) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(at);
  if (first < 0x80) {
    value = first;
    return 1;
  }
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || at + length > text.size()) return 0;
  value = first & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
    value = (value << 6) | (byte(at + i) & 0x3F);
  }
  const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  if (overlong || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
  return length;
}

TString Decode(std::string_view text, bool escapes, bool* valid) {
  // No text has more units than bytes. Nearly all names are plain ASCII, and an analysis converts every one.
  TString out(text.size(), u'\0');
  std::size_t ascii = 0;
  while (ascii < text.size() && static_cast<unsigned char>(text[ascii]) < 0x80) {
    out[ascii] = static_cast<char16_t>(text[ascii]);
    ++ascii;
  }
  out.resize(ascii);
  bool good = true;
  for (std::size_t i = ascii; i < text.size();) {
    char32_t value = 0;
    const std::size_t length = DecodeOne(text, i, value);
    if (length == 0) {
      good = false;
      out += escapes ? static_cast<char16_t>(0xDC00 + static_cast<unsigned char>(text[i])) : Replacement;
      ++i;
      continue;
    }
    if (value >= 0x10000) {
      out += static_cast<char16_t>(0xD800 + ((value - 0x10000) >> 10));
      out += static_cast<char16_t>(0xDC00 + ((value - 0x10000) & 0x3FF));
    } else {
      out += static_cast<char16_t>(value);
    }
    i += length;
  }
  if (valid != nullptr) *valid = good;
  return out;
}

constexpr char16_t ToLower(char16_t c) {
  if ((c >= u'A' && c <= u'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7)) return static_cast<char16_t>(c + 32);
  if ((c >= 0x391 && c <= 0x3A9) || (c >= 0x410 && c <= 0x42F)) return static_cast<char16_t>(c + 32);
  if (c >= 0x400 && c <= 0x40F) return static_cast<char16_t>(c + 80);
  return c;
}

constexpr char16_t ToUpper(char16_t c) {
  if ((c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7)) return static_cast<char16_t>(c - 32);
  if ((c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) || (c >= 0x430 && c <= 0x44F)) return static_cast<char16_t>(c - 32);
  if (c >= 0x450 && c <= 0x45F) return static_cast<char16_t>(c - 80);
  return c;
}

}  // namespace

std::string ToUtf8(TStringView text) {
  // Most names are plain ASCII, and a listing converts every one.
  std::string ascii(text.size(), '\0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] >= 0x80) return Encode(text, false);
    ascii[i] = static_cast<char>(text[i]);
  }
  return ascii;
}
TString FromUtf8(std::string_view text, bool* valid) { return Decode(text, false, valid); }
TString TextFromPath(std::string_view path) { return Decode(path, true, nullptr); }
std::string PathFromText(TStringView text) { return Encode(text, true); }

TStringView Trim(TStringView text) {
  while (!text.empty() && text.front() <= u' ') text.remove_prefix(1);
  while (!text.empty() && text.back() <= u' ') text.remove_suffix(1);
  return text;
}

char16_t LowerCase(char16_t unit) { return ToLower(unit); }

TString LowerCase(TStringView text) {
  TString out(text);
  for (char16_t& c : out) c = ToLower(c);
  return out;
}

TString UpperCase(TStringView text) {
  TString out(text);
  for (char16_t& c : out) c = ToUpper(c);
  return out;
}

TStringView Extension(TStringView name) {
  const std::size_t dot = name.rfind(u'.');
  return dot == TStringView::npos ? TStringView() : name.substr(dot + 1);
}

TString NumberText(std::int64_t number) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  return TString(digits, end);
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/safe_name.h"

#include <algorithm>

#include "analysis/files.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::size_t LongestName = 255;      // bytes; NAME_MAX of Linux file systems
constexpr std::size_t LongestExtension = 32;  // bytes; a longer tail is no extension worth keeping

struct TSplit {
  std::string Stem;
  std::string Extension;  // with its dot
};

TSplit Split(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || name.size() - dot > LongestExtension) return {name, ""};
  return {name.substr(0, dot), name.substr(dot)};
}

/// Cuts UTF-8 to at most `length` bytes without splitting a character.
void CutUtf8(std::string& text, std::size_t length) {
  if (text.size() <= length) return;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
  text.resize(length);
}

std::string Fit(const TSplit& parts, const std::string& middle) {
  std::string stem = parts.Stem;
  CutUtf8(stem, LongestName - middle.size() - parts.Extension.size());
  return stem + middle + parts.Extension;
}

}  // namespace

std::string SafeName(TStringView name, char16_t replacement) {
  TString safe(name);
  for (char16_t& c : safe) {
    const bool control = c < u' ' || (c >= 0x7F && c <= 0x9F);
    if (control || TFiles::RefusedCharacters.find(c) != TStringView::npos) c = replacement;
  }
  // The name that the target keeps for the file being written.
  if (safe == u".brenlow-partial") safe.insert(safe.begin(), replacement);
  if (std::all_of(safe.begin(), safe.end(), [](char16_t c) { return c == u'.'; })) {
    safe.insert(safe.begin(), replacement);
  }
  return Fit(Split(ToUtf8(safe)), "");
}

std::string WithSuffix(const std::string& name, const std::string& suffix) { return Fit({name, suffix}, ""); }

std::string NumberedName(const std::string& name, int number) {
  return Fit(Split(name), " (" + std::to_string(number) + ")");
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/safe_name.h"

#include <algorithm>

#include "core/text.h"
#include "recovery/target_tree.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::size_t MaxName = 255;      // bytes; NAME_MAX of Linux file systems
constexpr std::size_t MaxStream = 127;    // bytes; leaves half of a name to the file
constexpr std::size_t MaxExtension = 32;  // bytes; a longer tail is not an extension worth keeping

struct TSplit {
  std::string Stem;
  std::string Extension;  // with its dot
};

TSplit Split(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || name.size() - dot > MaxExtension) return {name, ""};
  return {name.substr(0, dot), name.substr(dot)};
}

/// Cuts UTF-8 to at most `length` bytes without splitting a character.
void CutUtf8(std::string& text, std::size_t length) {
  if (text.size() <= length) return;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
  text.resize(length);
}

std::string Fit(const TSplit& parts, const std::string& middle, std::size_t longest = MaxName) {
  std::string stem = parts.Stem;
  CutUtf8(stem, longest - middle.size() - parts.Extension.size());
  return stem + middle + parts.Extension;
}

std::string Numbered(const std::string& name, int number, std::size_t longest) {
  return Fit(Split(name), number < 2 ? "" : " (" + std::to_string(number) + ")", longest);
}

}  // namespace

std::string SafeName(TStringView name, char16_t replacement) {
  TString safe(name);
  for (char16_t& c : safe) {
    const bool control = c < u' ' || (c >= 0x7F && c <= 0x9F);
    if (control || TFiles::RefusedCharacters.find(c) != TStringView::npos) c = replacement;
  }
  // Names that a run reserves for itself; some file systems ignore case.
  if (LowerCase(safe).starts_with(FromUtf8(TTargetTree::OwnPrefix))) safe.insert(safe.begin(), replacement);
  if (std::all_of(safe.begin(), safe.end(), [](char16_t c) { return c == u'.'; })) {
    safe.insert(safe.begin(), replacement);
  }
  return Fit(Split(ToUtf8(safe)), "");
}

std::string WithSuffix(const std::string& name, const std::string& suffix) { return Fit({name, suffix}, ""); }

std::string NumberedName(const std::string& name, int number) {
  return Fit(Split(name), " (" + std::to_string(number) + ")");
}

std::string StreamFileName(const std::string& file, const std::string& stream, int number) {
  return WithSuffix(file, ":" + Numbered(stream, number, MaxStream));
}

std::string StreamAttributeName(const std::string& stream, int number) {
  const std::string prefix = "user.";
  return prefix + Numbered(stream, number, MaxName - prefix.size());
}

}  // namespace brenlow

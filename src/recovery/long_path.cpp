// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/long_path.h"

#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::size_t MaxPath = 0x103;  // characters; MAX_PATH of Windows without its end mark
constexpr std::size_t MaxName = 100;
constexpr std::size_t MaxFolder = 159;  // with its separator

TStringView Cut(TStringView text, std::size_t length) {
  // Not between the halves of a pair.
  if (length > 0 && text[length - 1] >= 0xD800 && text[length - 1] < 0xDC00) --length;
  return Trim(text.substr(0, length));
}

}  // namespace

TString ShortenLongPath(TStringView path, char16_t separator) {
  if (path.size() <= MaxPath) return TString(path);
  const std::size_t end = path.rfind(separator) + 1;  // 0 without a separator
  TStringView folder = path.substr(0, end);
  TStringView name = path.substr(end);
  if (name.size() > MaxName) name = Cut(name, MaxName);
  if (folder.size() > MaxFolder) folder = Cut(folder, MaxFolder - 1);
  TString shorter(folder);
  if (!shorter.empty() && shorter.back() != separator) shorter += separator;
  return shorter += name;
}

}  // namespace brenlow

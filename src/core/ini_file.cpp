// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/ini_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "core/device/caller.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr std::size_t LargestFile = 4 << 20;  // bytes

bool SameName(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [&](char x, char y) { return lower(x) == lower(y); });
}

std::string_view TrimBlanks(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

std::string OnOneLine(std::string_view value) {
  std::string line;
  for (const char c : value) {
    if (c == '\n') {
      line += "<br>";
    } else if (c != '\r') {
      line += c;
    }
  }
  return line;
}

std::string DecodedText(std::string_view bytes) {
  if (bytes.starts_with("\xEF\xBB\xBF")) return std::string(bytes.substr(3));
  if (!bytes.starts_with("\xFF\xFE")) return std::string(bytes);
  TString wide;
  for (std::size_t i = 2; i + 1 < bytes.size(); i += 2) {
    const auto low = static_cast<unsigned char>(bytes[i]);
    const auto high = static_cast<unsigned char>(bytes[i + 1]);
    wide += static_cast<char16_t>(low | (high << 8));
  }
  return ToUtf8(wide);
}

TIniFile::TLine KeyLine(std::string_view section, std::string_view key, std::string_view value) {
  const std::string text = OnOneLine(value);
  return {std::string(section), std::string(key), text, std::string(key) + "=" + text};
}

}  // namespace

TIniFile TIniFile::Parse(std::string_view bytes) {
  TIniFile file;
  const std::string text = DecodedText(bytes);
  std::string section;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    std::string raw = text.substr(at, end - at);
    if (raw.ends_with('\r')) raw.pop_back();
    at = end + 1;
    const std::string_view line = TrimBlanks(raw);
    TLine parsed{section, "", "", raw};
    if (line.starts_with('[') && line.ends_with(']')) {
      parsed.Section = section = line.substr(1, line.size() - 2);
    } else if (const std::size_t equals = line.find('=');
               equals != std::string_view::npos && !line.starts_with(';') && !line.starts_with('#')) {
      parsed.Key = TrimBlanks(line.substr(0, equals));
      parsed.Value = TrimBlanks(line.substr(equals + 1));
    }
    file.FLines.push_back(std::move(parsed));
  }
  return file;
}

int TIniFile::Load(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return errno;
  std::string bytes(LargestFile + 1, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  if (file.bad()) return EIO;  // a folder, too
  if (bytes.size() > LargestFile) return EFBIG;
  *this = Parse(bytes);
  return 0;
}

bool TIniFile::Save(const std::string& path) const {
  const std::string text = Text();
  // A name that nothing has: what is there already may be a source. For its owner only, as it may hold passwords.
  std::string beside = path + ".new-XXXXXX";
  const int handle = ::mkostemp(beside.data(), O_CLOEXEC);
  if (handle < 0) return false;
  if (LiesWithCaller(path)) GiveToCaller(handle);
  bool written = ::write(handle, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  written = ::fsync(handle) == 0 && written;
  written = ::close(handle) == 0 && written;
  if (written && std::rename(beside.c_str(), path.c_str()) == 0) return true;
  ::unlink(beside.c_str());
  return false;
}

std::string TIniFile::Text() const {
  std::string text;
  for (const TLine& line : FLines) text += line.Raw + "\n";
  return text;
}

std::vector<TIniFile::TLine>::const_iterator TIniFile::Find(std::string_view section, std::string_view key) const {
  return std::find_if(FLines.begin(), FLines.end(), [&](const TLine& line) {
    return !line.Key.empty() && SameName(line.Key, key) && SameName(line.Section, section);
  });
}

std::optional<std::string_view> TIniFile::Value(std::string_view section, std::string_view key) const {
  const auto found = Find(section, key);
  if (found == FLines.end()) return std::nullopt;
  return found->Value;
}

void TIniFile::SetValue(std::string_view section, std::string_view key, std::string_view value) {
  const auto known = Find(section, key);
  if (known != FLines.end()) {
    TLine& line = FLines[static_cast<std::size_t>(known - FLines.begin())];
    if (line.Value != value) line = KeyLine(line.Section, line.Key, value);
    return;
  }
  // Behind the last line of the section that says something.
  const auto last = std::find_if(FLines.rbegin(), FLines.rend(), [&](const TLine& line) {
    return SameName(line.Section, section) && !TrimBlanks(line.Raw).empty();
  });
  if (last != FLines.rend()) {
    FLines.insert(last.base(), KeyLine(section, key, value));
    return;
  }
  if (!FLines.empty()) FLines.push_back({FLines.back().Section, "", "", ""});
  FLines.push_back({std::string(section), "", "", "[" + std::string(section) + "]"});
  FLines.push_back(KeyLine(section, key, value));
}

void TIniFile::Remove(std::string_view section, std::string_view key) {
  const auto found = Find(section, key);
  if (found != FLines.end()) FLines.erase(found);
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/file_id.h"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/file_fields.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow::cli {
namespace {

constexpr std::size_t IdDigits = 16;

/// FNV-1a over whole numbers, with a last round that spreads every bit.
class THash {
 public:
  THash& Add(std::uint64_t value) {
    for (int i = 0; i < 8; ++i, value >>= 8) FValue = (FValue ^ (value & 0xFF)) * 0x100000001B3U;
    return *this;
  }
  THash& Add(std::int64_t value) { return Add(static_cast<std::uint64_t>(value)); }
  THash& Add(TStringView text) {
    for (const char16_t unit : text) Add(std::uint64_t{unit});
    return Add(std::uint64_t{text.size()});
  }
  std::uint64_t Value() const {
    const std::uint64_t mixed = (FValue ^ FValue >> 32) * 0x9E3779B97F4A7C15U;
    return mixed ^ mixed >> 32;
  }

 private:
  std::uint64_t FValue = 0xCBF29CE484222325U;
};

bool ParseId(std::string_view text, TFileId& id) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, 16);
  return text.size() == IdDigits && error == std::errc() && end == text.data() + text.size();
}

/// The id of a line; empty where an object has none. The text as it stands when it is not an object.
std::string IdOfLine(const std::string& line) {
  if (!line.starts_with('{')) return line;
  const nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
  if (!object.is_object()) return line;
  const auto id = object.find("id");
  return id != object.end() && id->is_string() ? id->get<std::string>() : std::string();
}

}  // namespace

TFileId FileId(TEngine& engine, const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  const bool known = !engine.Drives().IsWrongNumber(info.aDriveNumber);
  static const TDriveInfo none;
  const TDriveInfo& drive = known ? engine.Drives().List[static_cast<std::size_t>(info.aDriveNumber)] : none;
  THash hash;
  hash.Add(drive.FirstSector).Add(std::int64_t{info.blnFolder}).Add(std::int64_t{info.aDeepAnalyse});
  // Names that the program gives are in its language, and numbered by what was found.
  if (*VirtualCode(file) != '\0') return hash.Add(info.FirstCluster).Value();
  if (info.aDeepAnalyse) return hash.Add(info.FirstCluster).Add(Extension(info.strName)).Value();
  // The place of the content is left out where that of the entry is known: a recovery may revise it.
  if (info.FirstSector >= 0) {
    hash.Add(info.FirstSector).Add(std::int64_t{info.OffsetInSector});
  } else {
    hash.Add(info.FirstCluster).Add(info.DataStartingSector);
  }
  // One record of NTFS may hold several links, even of one name, and the log holds earlier states.
  if (drive.FileSystem == TFileSystem::fsNTFS) hash.Add(file.ParentCluster).Add(info.JournalPosition);
  return hash.Add(info.strName).Value();
}

std::string FileIdText(TFileId id) { return fmt::format("{:016x}", id); }

std::string ReadFileIds(const TLanguage& texts, const std::string& path, TFileIds& ids) {
  std::ifstream file;
  if (path != "-") {
    file.open(path, std::ios::binary);
    if (!file) return texts.Utf8(TText::ErrorOf, {path, SystemErrorText(texts, errno)});
  }
  std::istream& input = path == "-" ? std::cin : file;
  std::string line;
  for (std::int64_t number = 1; std::getline(input, line); ++number) {
    const std::size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) continue;
    line = IdOfLine(line.substr(first, line.find_last_not_of(" \t\r") + 1 - first));
    if (line.empty()) continue;
    TFileId id = 0;
    if (!ParseId(line, id)) return texts.Utf8(TText::NotAnId, {path, std::to_string(number)});
    ids.insert(id);
  }
  if (input.bad()) return texts.Utf8(TText::ErrorOf, {path, SystemErrorText(texts, EIO)});
  return {};
}

}  // namespace brenlow::cli

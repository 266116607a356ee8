// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/language.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "core/english.h"
#include "core/ini_file.h"
#include "core/text.h"

namespace brenlow {
namespace {

constexpr TTextPlace Places[] = {
#define BRENLOW_TEXT(name, section, number) {TText::name, section, number},
#include "core/texts.inc"
#undef BRENLOW_TEXT
};

constexpr std::size_t NoArgument = static_cast<std::size_t>(-1);

/// Reads the place holder at `at` (a '%'): the index of its argument, `length` its units.
std::size_t PlaceHolder(TStringView text, std::size_t at, std::size_t& next, std::size_t& length) {
  std::size_t end = at + 1;
  std::size_t number = 0;
  while (end < text.size() && text[end] >= u'0' && text[end] <= u'9' && number < 100) {
    number = number * 10 + static_cast<std::size_t>(text[end++] - u'0');
  }
  const bool numbered = number > 0 && end < text.size() && text[end] == u'$';
  if (numbered) ++end;
  if ((!numbered && end != at + 1) || end >= text.size() || (text[end] != u's' && text[end] != u'd')) return NoArgument;
  length = end + 1 - at;
  return numbered ? number - 1 : next++;
}

TString WithLineBreaks(TStringView text) {
  TString result(text);
  for (std::size_t at = 0; (at = result.find(u"<br>", at)) != TString::npos; ++at) result.replace(at, 4, u"\n");
  return result;
}

}  // namespace

TText DoubtText(TContentDoubt doubt) {
  switch (doubt) {
    case TContentDoubt::Overwritten:
      return TText::DoubtOverwritten;
    case TContentDoubt::PartlyOverwritten:
      return TText::DoubtPartlyOverwritten;
    case TContentDoubt::LaterFile:
      return TText::DoubtLaterFile;
    case TContentDoubt::Contested:
      return TText::DoubtContested;
    case TContentDoubt::OtherType:
      return TText::DoubtOtherType;
    case TContentDoubt::OnlyZeros:
      return TText::DoubtOnlyZeros;
    case TContentDoubt::NameOnly:
      return TText::DoubtNameOnly;
    default:
      return TText::DoubtPlaceEstimated;
  }
}

const std::vector<TTextPlace>& TextPlaces() {
  static const std::vector<TTextPlace> places(std::begin(Places), std::end(Places));
  return places;
}

const TString& TLanguage::At(std::string_view section, int number) const {
  static const TString none;
  const auto place = std::find_if(std::begin(Places), std::end(Places), [&](const TTextPlace& text) {
    return text.Section == section && text.Number == number;
  });
  return place == std::end(Places) ? none : (*this)[place->Text];
}

const TLanguage& TLanguage::English() {
  static const TLanguage english = [] {
    TLanguage language;
    language.FTexts.resize(std::size(Places));
    language.Read(TIniFile::Parse(EnglishCommonTexts));
    language.Read(TIniFile::Parse(EnglishTexts));
    return language;
  }();
  return english;
}

bool TLanguage::Load(const std::string& folder, const std::string& name, TLanguage& result) {
  result = English();
  if (name.empty() || name.find('/') != std::string::npos) return false;
  bool found = false;
  for (const std::string& path : {folder + "/Common/" + name + ".lng", folder + "/" + name + ".lng"}) {
    TIniFile file;
    if (file.Load(path) != 0) continue;
    result.Read(file);
    found = true;
  }
  if (found) result.FName = name;
  return found;
}

std::vector<std::string> TLanguage::Names(const std::string& folder) {
  std::set<std::string> names;
  std::error_code error;
  for (const char* sub : {"", "/Common"}) {
    for (const auto& entry : std::filesystem::directory_iterator(folder + sub, error)) {
      if (entry.path().extension() == ".lng") names.insert(entry.path().stem().string());
    }
  }
  return {names.begin(), names.end()};
}

void TLanguage::Read(const TIniFile& file) {
  std::map<std::pair<std::string_view, int>, std::size_t> indexes;
  for (std::size_t i = 0; i < std::size(Places); ++i) indexes[{Places[i].Section, Places[i].Number}] = i;
  for (const TIniFile::TLine& line : file.Lines()) {
    int number = 0;
    const char* end = line.Key.data() + line.Key.size();
    if (line.Key.empty() || std::from_chars(line.Key.data(), end, number).ptr != end) continue;
    const auto index = indexes.find({line.Section, number});
    if (index != indexes.end()) FTexts[index->second] = WithLineBreaks(FromUtf8(line.Value));
  }
}

TString TLanguage::Format(TText text, std::initializer_list<TStringView> arguments) const {
  const TString& pattern = (*this)[text];
  TString result;
  std::size_t next = 0;
  for (std::size_t at = 0; at < pattern.size();) {
    std::size_t length = 1;
    const std::size_t index = pattern[at] == u'%' ? PlaceHolder(pattern, at, next, length) : NoArgument;
    if (index == NoArgument) {
      result += pattern[at++];
      continue;
    }
    if (index < arguments.size()) result += arguments.begin()[index];
    at += length;
  }
  return result;
}

std::string TLanguage::Utf8(TText text, std::initializer_list<std::string_view> arguments) const {
  if (arguments.size() == 0) return ToUtf8((*this)[text]);
  // Arguments may hold bytes that are not text (paths of the host): they are passed on unchanged.
  TString wide[8];
  const std::size_t count = std::min(arguments.size(), std::size(wide));
  for (std::size_t i = 0; i < count; ++i) wide[i] = TextFromPath(arguments.begin()[i]);
  return PathFromText(Format(text, {wide[0], wide[1], wide[2], wide[3], wide[4], wide[5], wide[6], wide[7]}));
}

std::string LanguageOfLocale(std::string_view locale) {
  constexpr std::pair<std::string_view, const char*> languages[] = {
      {"bg", "Bulgarian"}, {"cs", "Czech"},      {"da", "Danish"},    {"de", "German"},    {"el", "Greek"},
      {"es", "Spanish"},   {"fi", "Finnish"},    {"fr", "French"},    {"hu", "Hungarian"}, {"it", "Italian"},
      {"ja", "Japanese"},  {"ko", "Korean"},     {"nl", "Dutch"},     {"no", "Norwegian"}, {"nb", "Norwegian"},
      {"pl", "Polish"},    {"pt", "Portuguese"}, {"ro", "Romanian"},  {"ru", "Russian"},   {"sk", "Slovak"},
      {"sv", "Swedish"},   {"tr", "Turkish"},    {"uk", "Ukrainian"}, {"zh", "Chinese"}};
  const std::string_view code = locale.substr(0, locale.find_first_of("_.@-"));
  for (const auto& [known, name] : languages) {
    if (known == code) return name;
  }
  return "English";
}

std::string SystemErrorText(const TLanguage& language, int error) {
  switch (error) {
    case ENOENT:
      return language.Utf8(TText::SystemNotFound);
    case EIO:
      return language.Utf8(TText::SystemInputOutput);
    case EACCES:
    case EPERM:
      return language.Utf8(TText::SystemNoPermission);
    case EROFS:
      return language.Utf8(TText::SystemReadOnly);
    case ENOSPC:
      return language.Utf8(TText::SystemFull);
    case ETXTBSY:  // what the guard of the sources answers
      return language.Utf8(TText::SystemIsSource);
    case EWOULDBLOCK:  // a lock of another run
      return language.Utf8(TText::SystemTargetBusy);
    case EDQUOT:
      return language.Utf8(TText::SystemQuota);
    case EFBIG:
      return language.Utf8(TText::SystemFileTooLarge);
    case ENAMETOOLONG:
      return language.Utf8(TText::SystemNameTooLong);
    case ENOTDIR:
      return language.Utf8(TText::SystemNotAFolder);
    case EISDIR:
      return language.Utf8(TText::SystemIsAFolder);
    case EEXIST:
      return language.Utf8(TText::SystemExists);
    default:
      return std::strerror(error);
  }
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// Every text that the program shows, in the language in force. The texts lie in two INI files for
// each language, `Language/Common/NAME.lng` and `Language/NAME.lng`, as numbered keys in sections;
// the English ones are also built in.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "core/types.h"

namespace brenlow {

class TIniFile;

/// The texts by name; core/texts.inc says which section and number each has.
enum class TText : std::uint16_t {
#define BRENLOW_TEXT(name, section, number) name,
#include "core/texts.inc"
#undef BRENLOW_TEXT
};

/// Where a text is in the language files.
struct TTextPlace {
  TText Text;
  std::string_view Section;
  int Number;
};
/// The reason in words, for doubts from `Overwritten` on.
TText DoubtText(TContentDoubt doubt);

/// All texts, in the order of `TText`.
const std::vector<TTextPlace>& TextPlaces();

class TLanguage {
 public:
  /// The built-in texts.
  static const TLanguage& English();
  /// The texts of a language, named in English ("German"), from the folder `Language`. What is
  /// missing there stays English. False when neither file is there: all texts are English then.
  static bool Load(const std::string& folder, const std::string& name, TLanguage& result);
  /// Languages that the folder has, by the stems of its files, sorted.
  static std::vector<std::string> Names(const std::string& folder);

  /// Takes the texts that a file has.
  void Read(const TIniFile& file);

  const TString& operator[](TText text) const { return FTexts[static_cast<std::size_t>(text)]; }
  /// The text of a section and number; empty where there is none.
  const TString& At(std::string_view section, int number) const;
  /// The text with each "%s" or "%d" replaced by the next argument, or "%2$s" by the second.
  TString Format(TText text, std::initializer_list<TStringView> arguments) const;
  /// The same in UTF-8.
  std::string Utf8(TText text, std::initializer_list<std::string_view> arguments = {}) const;

  /// English name of the language, as in the file names.
  const std::string& Name() const { return FName; }

 private:
  std::string FName = "English";
  std::vector<TString> FTexts;
};

/// The English name of the language of a locale ("de_AT.UTF-8" gives "German"); "English" for those
/// not known.
std::string LanguageOfLocale(std::string_view locale);

/// What the system says of an error number, in the language; errors not known there as the C
/// library words them.
std::string SystemErrorText(const TLanguage& language, int error);

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/settings.h"

#include <doctest/doctest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "core/language.h"
#include "core/text.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {(std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()};
}

/// The place holders of a text, sorted.
std::multiset<std::string> PlaceHolders(std::string_view text) {
  std::multiset<std::string> found;
  for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
    found.emplace(text.substr(at, 2));
  }
  return found;
}

}  // namespace

TEST_CASE("INI text: what a change does not concern stays as it is") {
  TIniFile file =
      TIniFile::Parse("; mine\n[One]\n  Key = a=b \nUnknown=x\n\n[Two]\r\nkey=2\r\nnonsense\n[ONE]\nLater=3\n");
  CHECK(file.Value("one", "KEY") == "a=b");
  CHECK(file.Value("Two", "key") == "2");
  CHECK(file.Value("One", "Later") == "3");
  CHECK_FALSE(file.Value("Three", "key"));
  file.SetValue("One", "Key", "a=b");  // no change: the line keeps its blanks
  file.SetValue("Two", "New", "two\nlines");
  file.SetValue("Three", "Fresh", "1");
  file.Remove("One", "Later");
  CHECK(file.Text() ==
        "; mine\n[One]\n  Key = a=b "
        "\nUnknown=x\n\n[Two]\nkey=2\nnonsense\nNew=two<br>lines\n[ONE]\n\n[Three]\nFresh=1\n");
  CHECK(TIniFile::Parse("\xEF\xBB\xBF[A]\nb=c").Value("A", "b") == "c");
  CHECK(TIniFile::Parse(std::string_view("\xFF\xFE[\0A\0]\0\n\0b\0=\0\xFC\0", 16)).Value("A", "b") == "ü");
  CHECK(TIniFile::Parse("[\n=\n]=[\n[]\n=x").Text().size() == 14);
}

TEST_CASE("settings: defaults, order, wrong types, unknown keys, passwords") {
  const TTemporaryFolder folder;
  TSettingsFile file(folder.Path() + "/config/Settings.ini");
  TSettings settings = file.Load();
  CHECK(settings.Main.Maximize);
  CHECK(settings.Main.Width == 1024);
  settings.FTP.Password = "secret";
  settings.Proxy.Password = "hidden";
  settings.Proxy.RememberPassword = true;
  settings.Recovery.Path = "/media/Rettung äöü";
  REQUIRE(file.Save(settings, TSourceGuard()));
  const std::string text = ReadText(file.Path());
  CHECK(text.find("secret") == std::string::npos);
  CHECK(text.find("Password=hidden") != std::string::npos);
  // The head and tail of the file, and a part that mixes types.
  CHECK(
      text.starts_with("[Main]\nLanguage=\nLeft=0\nTop=0\nWidth=1024\nHeight=768\nMaximize=1\nTreeWidth=280\n"
                       "RightPanelsWidth=200\nFindFileBar=1\nImageBar=0\nWhereBar=1\nEncryptedInColor=1\n"
                       "DontAskOnClose=0\nEngineerMode=0\n\n[FileList]\nTab=0\nViewStyle=2\nSortIndex=0\nSortRevers=1\n"
                       "Column0Width=200\nColumn1Width=130\n"));
  CHECK(text.find("[Master_Recovery]\nType=0\nRemember=0\nFolders=1\nADS=1\nCanReplaceSymbols=0\n"
                  "Path=/media/Rettung äöü\nUnknownSymbols=_\n") != std::string::npos);
  CHECK(text.ends_with("SizeType=0\nSizeAtLeast=0\nSizeSpecify=0\nDateCreated=0\nDateType=0\n"));
  CHECK((std::filesystem::status(file.Path()).permissions() & std::filesystem::perms::others_read) ==
        std::filesystem::perms::none);

  // A newer version and a careless editor were at it.
  std::ofstream(file.Path()) << "# note\n[Main]\nWidth=wide\nHeight=600\nMaximize=yes\nColour=red\n[Plugins]\nx=1\n"
                                "[FileList]\nSortRevers=0\nColumn5Width=77\n[Master_FTP]\nPassword=old\n";
  settings = file.Load();
  CHECK(settings.Main.Width == 1024);
  CHECK(settings.Main.Height == 600);
  CHECK(settings.Main.Maximize);
  CHECK(settings.FileList.SortRevers == 0);
  CHECK(settings.FileList.ColumnWidths[5] == 77);
  settings.Main.Left = -5;
  REQUIRE(file.Save(settings, TSourceGuard()));
  const std::string saved = ReadText(file.Path());
  CHECK(saved.starts_with("# note\n[Main]\nWidth=1024\nHeight=600\nMaximize=1\nColour=red\n"));
  CHECK(saved.find("[Plugins]\nx=1\n") != std::string::npos);
  CHECK(saved.find("Password=old") == std::string::npos);
  CHECK(file.Load().Main.Left == -5);
}

TEST_CASE("settings lie beside the program, or where the user may write") {
  const TTemporaryFolder folder;
  CHECK(SettingsPath(folder.Path()) == folder.Path() + "/Settings.ini");
  const char* before = std::getenv("XDG_CONFIG_HOME");
  const std::string kept = before == nullptr ? "" : before;
  ::setenv("XDG_CONFIG_HOME", folder.Path().c_str(), 1);
  CHECK(SettingsPath("/usr/bin") == folder.Path() + "/brenlow/Settings.ini");
  before == nullptr ? ::unsetenv("XDG_CONFIG_HOME") : ::setenv("XDG_CONFIG_HOME", kept.c_str(), 1);
  CHECK_FALSE(TSettingsFile("/proc/nowhere/Settings.ini").Save(TSettings(), TSourceGuard()));
  TSettings settings;
  settings.Main.Language = "Klingon";
  CHECK(LanguageToUse(settings) == "Klingon");
}

TEST_CASE("every text is there in English, and in German with the same place holders") {
  TLanguage german;
  REQUIRE(TLanguage::Load(BRENLOW_LANGUAGES, "German", german));
  std::set<std::pair<std::string, std::string>> known;
  for (const TTextPlace& place : TextPlaces()) {
    CAPTURE(place.Section);
    CAPTURE(place.Number);
    CHECK_FALSE(TLanguage::English()[place.Text].empty());
    known.emplace(place.Section, std::to_string(place.Number));
  }
  CHECK(known.size() == TextPlaces().size());
  for (const char* name : {"/Common/", "/"}) {
    TIniFile english, other;
    REQUIRE(english.Load(BRENLOW_LANGUAGES + std::string(name) + "English.lng") == 0);
    REQUIRE(other.Load(BRENLOW_LANGUAGES + std::string(name) + "German.lng") == 0);
    std::size_t keys = 0;
    for (const TIniFile::TLine& line : english.Lines()) {
      if (line.Key.empty()) continue;
      ++keys;
      CAPTURE(line.Section);
      CAPTURE(line.Key);
      CHECK(known.contains({line.Section, line.Key}));  // nothing is left over
      const auto text = other.Value(line.Section, line.Key);
      REQUIRE(text);
      CHECK(PlaceHolders(*text) == PlaceHolders(line.Value));
    }
    CHECK(keys == static_cast<std::size_t>(std::count_if(other.Lines().begin(), other.Lines().end(),
                                                         [](const auto& line) { return !line.Key.empty(); })));
  }
  CHECK(TLanguage::Names(BRENLOW_LANGUAGES) == std::vector<std::string>{"English", "German"});
}

TEST_CASE("a language with gaps, or none, speaks English") {
  const TTemporaryFolder folder;
  std::filesystem::create_directory(folder.Path() + "/Common");
  std::ofstream(folder.Path() + "/Common/Pidgin.lng")
      << "[e_General]\n8=Dir %d\n99=spare\n[CommandLine]\n[e_Drives]\n0=%d<br>%2$s %x 100%";
  TLanguage language;
  REQUIRE(TLanguage::Load(folder.Path(), "Pidgin", language));
  CHECK(language.Name() == "Pidgin");
  CHECK(language.Format(TText::LostFolder, {u"7"}) == u"Dir 7");
  CHECK(language.Format(TText::UnallocatedSpace, {u"1", u"two"}) == u"1\ntwo %x 100%");
  CHECK(language.Utf8(TText::Volume) == "Volume");
  // Bytes of a path that are no text go through.
  CHECK(language.Utf8(TText::ErrorOf, {"a\xFF", "b"}) == "a\xFF: b.");
  CHECK_FALSE(TLanguage::Load(folder.Path(), "../Common/Pidgin", language));
  CHECK_FALSE(TLanguage::Load(folder.Path(), "Klingon", language));
  CHECK(language.Format(TText::LostFolder, {u"7"}) == u"Folder 7");
  CHECK(LanguageOfLocale("de_AT.UTF-8") == "German");
  CHECK(LanguageOfLocale("C") == "English");
}

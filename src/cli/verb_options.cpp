// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/verb_options.h"

namespace brenlow::cli {

void AddSourceOption(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_option("SOURCE", options.Sources, texts.Utf8(TText::HelpSource))->required()->expected(1);
  verb.add_option("--drive", options.Drive, texts.Utf8(TText::HelpDriveOption))
      ->check(CLI::PositiveNumber)
      ->type_name("N");
  verb.add_option("--oem-codepage", options.CodePage, texts.Utf8(TText::HelpCodePage))
      ->type_name("N")
      ->capture_default_str();
  verb.add_flag("--json", options.Json, texts.Utf8(TText::HelpJson));
}

void AddRangeOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_option("--first", options.First, texts.Utf8(TText::HelpFirst))
      ->check(CLI::NonNegativeNumber)
      ->type_name("N");
  verb.add_option("--count", options.Count, texts.Utf8(TText::HelpCount))->check(CLI::PositiveNumber)->type_name("N");
}

void AddSearchOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_option("--map", options.Map, texts.Utf8(TText::HelpSourceMap))->type_name("FILE");
  verb.add_flag("--scan", options.Scan, texts.Utf8(TText::HelpScan));
  verb.add_option("--systems", options.Systems, texts.Utf8(TText::HelpSystems))
      ->delimiter(',')
      ->check(CLI::IsMember({"fat", "ntfs"}))
      ->type_name("LIST");
}

void AddFilterOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_flag("--deleted", options.Deleted, texts.Utf8(TText::HelpDeleted));
  verb.add_flag("--existing", options.Existing, texts.Utf8(TText::HelpExisting));
  verb.add_option("--type", options.Kinds, texts.Utf8(TText::HelpType))
      ->check(CLI::IsMember({"archive", "audio", "database", "document", "image", "video"}))
      ->type_name("KIND");
  verb.add_option("--ext", options.Extensions, texts.Utf8(TText::HelpExtensions))->delimiter(',')->type_name("LIST");
  verb.add_option("--path", options.PathGlob, texts.Utf8(TText::HelpPath))->type_name("GLOB");
  CLI::Option* deep = verb.add_flag("--deep", options.Deep, texts.Utf8(TText::HelpDeep));
  verb.add_flag("--fast-off", options.FastOff, texts.Utf8(TText::HelpFastOff))->needs(deep);
  verb.add_option("--lost-folders", options.LostFolders, texts.Utf8(TText::HelpLostFolders))
      ->check(CLI::IsMember({"never", "auto", "always"}))
      ->type_name("WHEN")
      ->capture_default_str();
}

}  // namespace brenlow::cli

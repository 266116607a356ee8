// SPDX-License-Identifier: GPL-3.0-or-later
// brenlow-cli: command line of Brenlow Partition Recovery.
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <string_view>

#include "analysis/files.h"
#include "cli/commands.h"
#include "cli/options.h"
#include "cli/session.h"
#include "core/text.h"
#include "shell/settings.h"

namespace {

using brenlow::TLanguage;
using brenlow::TText;
using brenlow::cli::TOptions;

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

void AddSystemsOption(CLI::App& verb, TOptions& options) {
  verb.add_option("--systems", options.Systems, options.Texts.Utf8(TText::HelpSystems))
      ->delimiter(',')
      ->check(CLI::IsMember({"fat", "ntfs"}))
      ->type_name("LIST");
}

void AddImageOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_option("--out", options.Out, texts.Utf8(TText::HelpImageOut))->required()->type_name("FILE");
  CLI::Option* compressed = verb.add_flag("--compressed", options.Compressed, texts.Utf8(TText::HelpCompressed));
  verb.add_option("--map", options.Map, texts.Utf8(TText::HelpMap))->type_name("FILE")->excludes(compressed);
  verb.add_flag("--overwrite", options.Overwrite, texts.Utf8(TText::HelpOverwrite));
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

/// The one character of `--replace-symbols`, which must not be a refused one itself.
std::string CheckReplacement(const std::string& text) {
  const brenlow::TString character = brenlow::FromUtf8(text);
  const bool fits = character.size() == 1 && character[0] >= u' ' && brenlow::TFiles::RightName(character) == 0;
  return fits ? "" : "one character, none of \\ / : * ? \" < > |";
}

void AddRecoverOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  const auto choice = [&](const char* name, std::string& value, TText help, std::vector<std::string> values) {
    verb.add_option(name, value, texts.Utf8(help))
        ->check(CLI::IsMember(std::move(values)))
        ->type_name("HOW")
        ->capture_default_str();
  };
  verb.add_option("--out", options.Out, texts.Utf8(TText::HelpOut))->required()->type_name("DIR");
  choice("--conflict", options.Conflict, TText::HelpConflict, {"rename", "skip", "replace"});
  verb.add_option("--replace-symbols", options.ReplaceSymbols, texts.Utf8(TText::HelpReplaceSymbols))
      ->check(CheckReplacement)
      ->type_name("C")
      ->capture_default_str();
  verb.add_flag("--flat", options.Flat, texts.Utf8(TText::HelpFlat));
  choice("--candidates", options.Candidates, TText::HelpCandidates, {"first", "all"});
  choice("--streams", options.Streams, TText::HelpStreams, {"none", "files", "xattr"});
  choice("--long-paths", options.LongPaths, TText::HelpLongPaths, {"auto", "keep", "shorten"});
  verb.add_option("--report", options.Report, texts.Utf8(TText::HelpReport))->type_name("FILE");
}

/// The language, before anything is said: `--language`, else the settings, else the environment.
void ChooseLanguage(int argc, char** argv, TOptions& options) {
  const std::string program = brenlow::ProgramFolder();
  std::string name = brenlow::LanguageToUse(brenlow::TSettingsFile(brenlow::SettingsPath(program)).Load());
  constexpr std::string_view option = "--language";
  bool asked = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    const bool apart = argument == option && i + 1 < argc;
    if (!apart && !(argument.starts_with(option) && argument.substr(option.size()).starts_with('='))) continue;
    name = apart ? argv[i + 1] : argument.substr(option.size() + 1);
    asked = true;
  }
  const bool found = TLanguage::Load(brenlow::LanguageFolder(program), name, options.Texts);
  if (!found && asked && name != "English") {
    brenlow::cli::Complain(options.Texts.Utf8(TText::LanguageUnknown, {name}));
  }
}

/// What the parser says of a wrong command line stays in its own words behind ours.
int ComplainOfUsage(const CLI::ParseError& error, const TOptions& options) {
  TText text = TText::UsageValue;
  if (error.get_name() == "RequiredError") text = TText::UsageMissing;
  if (error.get_name() == "ExtrasError" || error.get_name() == "InvalidError") text = TText::UsageUnknown;
  brenlow::cli::Complain(options.Texts.Utf8(text, {error.what()}));
  std::fprintf(stderr, "%s\n", options.Texts.Utf8(TText::UsageHint).c_str());
  return brenlow::cli::WrongUsage;
}

int Run(int argc, char** argv) {
  TOptions options;
  ChooseLanguage(argc, argv, options);
  const TLanguage& texts = options.Texts;
  CLI::App app(texts.Utf8(TText::HelpProgram), "brenlow-cli");
  const auto formatter = std::make_shared<CLI::Formatter>();
  formatter->label("Usage", texts.Utf8(TText::HelpUsage));
  formatter->label("OPTIONS", texts.Utf8(TText::HelpOptions));
  formatter->label("SUBCOMMAND", texts.Utf8(TText::HelpSubcommands));
  formatter->label("Positionals", texts.Utf8(TText::HelpPositionals));
  formatter->label("REQUIRED", texts.Utf8(TText::HelpRequired));
  app.formatter(formatter);
  app.option_defaults()->group(texts.Utf8(TText::HelpOptions));
  app.set_help_flag("-h,--help", texts.Utf8(TText::HelpHelp));
  app.fallthrough();
  app.footer(texts.Utf8(TText::HelpExamples));
  app.set_version_flag("--version", "brenlow-cli " BRENLOW_VERSION, texts.Utf8(TText::HelpVersion));
  std::string language;  // taken before, by `ChooseLanguage`
  app.add_option("--language", language, texts.Utf8(TText::HelpLanguage))->type_name("NAME");
  const auto addVerb = [&](const char* name, TText about, TText example) {
    CLI::App* verb = app.add_subcommand(name, texts.Utf8(about));
    verb->group(texts.Utf8(TText::HelpSubcommands));
    verb->footer(texts.Utf8(example));
    verb->get_help_ptr()->group(texts.Utf8(TText::HelpOptions));
    return verb;
  };

  CLI::App* drives = addVerb("drives", TText::HelpDrives, TText::HelpDrivesExample);
  drives->add_option("SOURCE", options.Sources, texts.Utf8(TText::HelpDrivesSource));
  drives->add_flag("--json", options.Json, texts.Utf8(TText::HelpJson));

  CLI::App* info = addVerb("info", TText::HelpInfo, TText::HelpInfoExample);
  AddSourceOption(*info, options);

  CLI::App* ls = addVerb("ls", TText::HelpLs, TText::HelpLsExample);
  AddSourceOption(*ls, options);
  AddFilterOptions(*ls, options);
  ls->add_flag("--tree", options.Tree, texts.Utf8(TText::HelpTree));
  ls->add_flag("--streams", options.ListStreams, texts.Utf8(TText::HelpListStreams));

  CLI::App* recover = addVerb("recover", TText::HelpRecover, TText::HelpRecoverExample);
  AddSourceOption(*recover, options);
  AddFilterOptions(*recover, options);
  AddRecoverOptions(*recover, options);

  CLI::App* image = addVerb("image", TText::HelpImage, TText::HelpImageExample);
  AddSourceOption(*image, options);
  AddRangeOptions(*image, options);
  AddImageOptions(*image, options);

  CLI::App* find = addVerb("find", TText::HelpFind, TText::HelpFindExample);
  AddSourceOption(*find, options);
  AddRangeOptions(*find, options);
  find->add_option("--map", options.Map, texts.Utf8(TText::HelpSourceMap))->type_name("FILE");
  find->add_flag("--scan", options.Scan, texts.Utf8(TText::HelpScan));
  AddSystemsOption(*find, options);

  for (CLI::App* verb : {ls, recover}) {
    AddRangeOptions(*verb, options);
    verb->add_flag("--scan", options.Scan, texts.Utf8(TText::HelpScan));
    AddSystemsOption(*verb, options);
    verb->add_option("--map", options.Map, texts.Utf8(TText::HelpSourceMap))->type_name("FILE");
  }

  CLI::App* types = addVerb("types", TText::HelpTypes, TText::HelpTypesExample);
  types->add_flag("--json", options.Json, texts.Utf8(TText::HelpJson));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // --help and --version arrive here as well, with exit code 0.
    if (error.get_exit_code() == 0) return app.exit(error);
    return ComplainOfUsage(error, options);
  }
  if (drives->parsed()) return brenlow::cli::ListDrives(options);
  if (info->parsed()) return brenlow::cli::ShowInfo(options);
  if (ls->parsed()) return brenlow::cli::ListFiles(options);
  if (recover->parsed()) return brenlow::cli::RecoverFiles(options);
  if (find->parsed()) return brenlow::cli::FindPartitions(options);
  if (image->parsed()) return brenlow::cli::CreateImage(options);
  if (types->parsed()) return brenlow::cli::ListTypes(options);
  brenlow::cli::Complain(texts.Utf8(TText::UsageNoVerb));
  return brenlow::cli::WrongUsage;
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");  // patterns of --path are matched by character, not by byte
  // Without the variable every conversion of a time looks whether /etc/localtime has changed.
  ::setenv("TZ", ":/etc/localtime", 0);
  tzset();
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "brenlow-cli: %s\n", error.what());
    return brenlow::cli::DoneWithFailures;
  }
}

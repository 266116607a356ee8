// SPDX-License-Identifier: GPL-3.0-or-later
// brenlow-cli: command line of Brenlow Partition Recovery.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <sstream>
#include <string_view>

#include "cli/commands.h"
#include "cli/options.h"
#include "cli/session.h"
#include "cli/usage.h"
#include "cli/verb_options.h"
#include "shell/settings.h"

namespace {

using brenlow::TLanguage;
using brenlow::TText;
using brenlow::cli::TOptions;

/// One verb of the program.
struct TVerb {
  const char* Name;
  TText About;
  TText Example;
  void (*AddOptions)(CLI::App&, TOptions&);
  int (*Run)(const TOptions&);
};

constexpr TVerb Verbs[] = {
    {"drives", TText::HelpDrives, TText::HelpDrivesExample, brenlow::cli::AddDrivesOptions, brenlow::cli::ListDrives},
    {"info", TText::HelpInfo, TText::HelpInfoExample, brenlow::cli::AddInfoOptions, brenlow::cli::ShowInfo},
    {"ls", TText::HelpLs, TText::HelpLsExample, brenlow::cli::AddListOptions, brenlow::cli::ListFiles},
    {"recover", TText::HelpRecover, TText::HelpRecoverExample, brenlow::cli::AddRecoverOptions,
     brenlow::cli::RecoverFiles},
    {"image", TText::HelpImage, TText::HelpImageExample, brenlow::cli::AddImageOptions, brenlow::cli::CreateImage},
    {"find", TText::HelpFind, TText::HelpFindExample, brenlow::cli::AddFindOptions, brenlow::cli::FindPartitions},
    {"types", TText::HelpTypes, TText::HelpTypesExample, brenlow::cli::AddTypesOptions, brenlow::cli::ListTypes},
};

/// The language, before anything is said: `--language`, else the settings, else the environment.
void ChooseLanguage(int argc, char** argv, TOptions& options) {
  const std::string program = brenlow::ProgramFolder();
  brenlow::TSettingsFile settings(brenlow::SettingsPath(program));
  std::string name = brenlow::LanguageToUse(settings.Load());
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
  if (const int error = settings.LoadError(); error != 0) {
    const std::string reason = brenlow::SystemErrorText(options.Texts, error);
    brenlow::cli::Complain(options.Texts.Utf8(TText::SettingsUnreadable, {settings.Path(), reason}));
  }
}

/// What goes to standard output and is all that was asked for.
int Say(const std::string& text) {
  brenlow::cli::TOutput().Write(text);
  return brenlow::cli::AllDone;
}

/// The verb `help`: the options of a verb, or without one those of the program.
int ShowHelp(CLI::App& app, std::string verbName, const TLanguage& texts) {
  app.clear();  // else the help is that of the verb `help`
  if (verbName.empty()) return Say(app.help());
  for (const CLI::App* verb : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (verb->get_name() == verbName) return Say(verb->help(app.get_name()));
  }
  brenlow::cli::Complain(texts.Utf8(TText::UsageNoSuchVerb, {verbName, brenlow::cli::VerbList(app, texts)}));
  return brenlow::cli::WrongUsage;
}

int Run(int argc, char** argv, TOptions& options) {
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
  CLI::Option* quiet = app.add_flag("--quiet", options.Quiet, texts.Utf8(TText::HelpQuiet));
  app.add_flag("--progress", options.ProgressLines, texts.Utf8(TText::HelpProgress))->excludes(quiet);
  app.require_subcommand(0, 1);
  const auto addVerb = [&](const char* name, TText about, TText example) {
    CLI::App* parser = app.add_subcommand(name, texts.Utf8(about));
    parser->group(texts.Utf8(TText::HelpSubcommands));
    parser->footer(texts.Utf8(example));
    parser->get_help_ptr()->group(texts.Utf8(TText::HelpOptions));
    return parser;
  };
  for (const TVerb& verb : Verbs) verb.AddOptions(*addVerb(verb.Name, verb.About, verb.Example), options);
  std::string helpVerb;
  CLI::App* help = addVerb("help", TText::HelpHelpVerb, TText::HelpHelpExample);
  help->add_option("COMMAND", helpVerb, texts.Utf8(TText::HelpHelpVerbName));

  try {
    app.parse(brenlow::cli::WordsForParser(argc, argv));
  } catch (const CLI::ParseError& error) {
    // --help and --version arrive here as well, with exit code 0.
    if (error.get_exit_code() != 0) return brenlow::cli::ComplainOfUsage(app, error, texts);
    std::ostringstream text;
    app.exit(error, text);
    return Say(text.str());
  }
  if (help->parsed()) return ShowHelp(app, helpVerb, texts);
  for (const TVerb& verb : Verbs) {
    if (app.got_subcommand(verb.Name)) return verb.Run(options);
  }
  brenlow::cli::Complain(texts.Utf8(TText::UsageNoVerb, {brenlow::cli::VerbList(app, texts)}));
  return brenlow::cli::WrongUsage;
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");  // patterns of --path are matched by character, not by byte
  // Without the variable every conversion of a time checks whether /etc/localtime has changed.
  ::setenv("TZ", ":/etc/localtime", 0);
  tzset();
  brenlow::cli::PrepareSignals();
  TOptions options;
  ChooseLanguage(argc, argv, options);
  try {
    const int status = Run(argc, argv, options);
    return brenlow::cli::OutputArrived(options.Texts) ? status : std::max(status, brenlow::cli::DoneWithFailures);
  } catch (const std::exception& error) {
    brenlow::cli::Complain(error.what());
    return brenlow::cli::DoneWithFailures;
  }
}

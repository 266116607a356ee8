// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/usage.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "cli/console.h"
#include "cli/options.h"
#include "fs/fat/fat_entry.h"

namespace brenlow::cli {
namespace {

/// The two parts of a message of the parser around some words; the second is empty without them.
struct THalves {
  std::string Before;
  std::string After;
};
THalves SplitAt(const std::string& text, std::string_view words) {
  const std::size_t at = text.find(words);
  if (at == std::string::npos) return {text, ""};
  return {text.substr(0, at), text.substr(at + words.size())};
}

/// "{a,b}" as people write it: "a, b".
std::string AsList(std::string set) {
  std::erase_if(set, [](char c) { return c == '{' || c == '}'; });
  for (std::size_t at = 0; (at = set.find(',', at)) != std::string::npos; at += 2) set.insert(at + 1, " ");
  return set;
}

/// What nobody asked for on the line.
std::string UnexpectedText(const CLI::App& app, const TLanguage& texts) {
  const std::vector<std::string> rest = app.remaining(true);
  const std::vector<const CLI::App*> verbs = app.get_subcommands([](const CLI::App* verb) { return verb->parsed(); });
  const auto option = std::find_if(rest.begin(), rest.end(), [](const auto& word) { return word.starts_with('-'); });
  if (option != rest.end()) {
    const bool isEarly = verbs.empty() || verbs.front()->get_option_no_throw(*option) != nullptr;
    return isEarly ? texts.Utf8(TText::UsageOptionBeforeVerb, {*option})
                   : texts.Utf8(TText::UsageNoOption, {*option, verbs.front()->get_name()});
  }
  const std::string word = rest.empty() ? "" : rest.front();
  return verbs.empty() ? texts.Utf8(TText::UsageNoSuchVerb, {word, VerbList(app, texts)})
                       : texts.Utf8(TText::UsageTooMuch, {word});
}

/// A wrong value: "OPTION: WHY", where the reason is ours or "VALUE not in {a,b}".
std::string ValueText(const std::string& message, const TLanguage& texts) {
  const auto [option, reason] = SplitAt(message, ": ");
  const auto [value, set] = SplitAt(reason, " not in ");
  if (set.empty()) return message;
  return option + ": " + texts.Utf8(TText::NotInList, {value, AsList(set)});
}

std::string UsageText(const CLI::App& app, const CLI::ParseError& error, const TLanguage& texts) {
  const std::string message = error.what();
  switch (static_cast<CLI::ExitCodes>(error.get_exit_code())) {
    case CLI::ExitCodes::ExtrasError:
      return UnexpectedText(app, texts);
    case CLI::ExitCodes::RequiredError:
      return texts.Utf8(TText::UsageMissing, {SplitAt(message, " is required").Before});
    case CLI::ExitCodes::RequiresError: {
      const auto [option, other] = SplitAt(message, " requires ");
      return texts.Utf8(TText::UsageRequires, {option, other});
    }
    case CLI::ExitCodes::ExcludesError: {
      const auto [option, other] = SplitAt(message, " excludes ");
      return texts.Utf8(TText::UsageExcludes, {option, other});
    }
    case CLI::ExitCodes::ArgumentMismatch: {
      const std::string option = SplitAt(message, ": ").Before;
      return texts.Utf8(option.starts_with('-') ? TText::UsageNeedsValue : TText::UsageOneOnly, {option});
    }
    case CLI::ExitCodes::ValidationError:
      return ValueText(message, texts);
    case CLI::ExitCodes::ConversionError:
      return texts.Utf8(TText::UsageValue, {SplitAt(message, "Could not convert: ").After});
    default:
      return texts.Utf8(TText::UsageValue, {message});
  }
}

}  // namespace

CLI::Validator WholeNumber(const TLanguage& texts, std::int64_t least) {
  const auto check = [&texts, least](const std::string& text) {
    std::int64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool fits = error == std::errc() && stop == end && number >= least;
    return fits ? std::string() : texts.Utf8(TText::UsageWholeNumber, {text, std::to_string(least)});
  };
  return {check, ""};
}

CLI::Validator KnownCodePage(const TLanguage& texts) {
  const auto check = [&texts](const std::string& text) {
    fat::TOemTable table;
    int number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool known = error == std::errc() && stop == end && fat::LoadCodePage(number, table);
    return known ? std::string() : texts.Utf8(TText::CodePageUnknown, {text});
  };
  return {check, ""};
}

std::string VerbList(const CLI::App& app, const TLanguage& texts) {
  const std::vector<const CLI::App*> verbs = app.get_subcommands([](const CLI::App*) { return true; });
  std::string list;
  for (const CLI::App* verb : verbs) {
    const std::string name = verb->get_name();
    if (list.empty()) {
      list = name;
    } else {
      list = verb == verbs.back() ? texts.Utf8(TText::ListOr, {list, name}) : list + ", " + name;
    }
  }
  return list;
}

int ComplainOfUsage(const CLI::App& app, const CLI::ParseError& error, const TLanguage& texts) {
  Complain(UsageText(app, error, texts));
  std::fprintf(stderr, "%s\n", texts.Utf8(TText::UsageHint).c_str());
  return WrongUsage;
}

}  // namespace brenlow::cli

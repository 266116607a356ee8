// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/verb_options.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "cli/option_values.h"
#include "cli/usage.h"
#include "core/families.h"

namespace brenlow::cli {
namespace {

/// Whether the last of these words is, or gives with "=", the value of an option that takes a list.
bool EndsWithList(const std::vector<std::string>& words) {
  constexpr std::string_view lists[] = {"--ext", "--systems", "--type"};
  const std::string before = words.size() > 1 ? words[words.size() - 2] : "";
  return std::any_of(std::begin(lists), std::end(lists), [&](std::string_view option) {
    return before == option || words.back().starts_with(std::string(option) + "=");
  });
}

/// The families of file systems that can be asked for, in the order of the alphabet.
std::vector<std::string> ServedNames() {
  std::vector<std::string> names;
  for (const TFamily& family : Families()) {
    if (ServedFamilies().Has(family.Bit)) names.emplace_back(family.ScriptName);
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// An option that takes a list and may be given several times: "jpg,png", "jpg, png", "jpg png".
CLI::Option* AddListOption(CLI::App& verb, const char* name, std::vector<std::string>& target,
                           const std::vector<std::string>& allowed, const TOptions& options) {
  const auto check = [&options, allowed](const std::string& list) -> std::string {
    for (const std::string& member : SplitList(list)) {
      if (allowed.empty() || std::find(allowed.begin(), allowed.end(), member) != allowed.end()) continue;
      return options.Texts.Utf8(TText::NotInList, {member, fmt::format("{}", fmt::join(allowed, ", "))});
    }
    return {};
  };
  const auto take = [&target](const std::vector<std::string>& lists) {
    for (const std::string& list : lists) {
      for (std::string& member : SplitList(list)) target.push_back(std::move(member));
    }
  };
  return verb.add_option_function<std::vector<std::string>>(name, take)->allow_extra_args(false)->check(check);
}

/// An option whose value is worked out of its text.
template <typename TValue>
CLI::Option* AddValueOption(CLI::App& verb, const char* name, TValue& target,
                            std::optional<TValue> (*parse)(std::string_view), TText complaint,
                            const TOptions& options) {
  const auto check = [&options, parse, complaint](const std::string& text) -> std::string {
    return parse(text) ? std::string() : options.Texts.Utf8(complaint, {text});
  };
  const auto take = [&target, parse](const std::string& text) { target = *parse(text); };
  return verb.add_option_function<std::string>(name, take)->check(check);
}

}  // namespace

std::vector<std::string> WordsForParser(int argc, char** argv) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    const bool isBetween = !words.empty() && (words.back().ends_with(',') || word.starts_with(','));
    if (isBetween && !word.starts_with('-') && EndsWithList(words)) {
      words.back() += word;
    } else {
      words.emplace_back(word);
    }
  }
  std::reverse(words.begin(), words.end());
  return words;
}

void AddSourceOption(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_option("SOURCE", options.Sources, texts.Utf8(TText::HelpSource))->required()->expected(1);
  verb.add_option("--drive", options.Drive, texts.Utf8(TText::HelpDriveOption))
      ->check(WholeNumber(texts, 1))
      ->type_name("N");
  verb.add_option("--oem-codepage", options.CodePage, texts.Utf8(TText::HelpCodePage))
      ->check(KnownCodePage(texts))
      ->type_name("N")
      ->capture_default_str();
  verb.add_flag("--json", options.Json, texts.Utf8(TText::HelpJson));
}

void AddRangeOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_option("--first", options.First, texts.Utf8(TText::HelpFirst))->check(WholeNumber(texts, 0))->type_name("N");
  verb.add_option("--count", options.Count, texts.Utf8(TText::HelpCount))->check(WholeNumber(texts, 1))->type_name("N");
}

void AddBadTimeOption(CLI::App& verb, TOptions& options, TText help) {
  verb.add_option("--bad-time", options.BadTime, options.Texts.Utf8(help))
      ->check(WholeNumber(options.Texts, 0))
      ->type_name("SECONDS");
}

void AddSearchOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  AddBadTimeOption(verb, options, TText::HelpBadTime);
  verb.add_option("--bad-map", options.BadMap, texts.Utf8(TText::HelpBadMap))->type_name("FILE");
  verb.add_flag("--retry", options.Retry, texts.Utf8(TText::HelpRetry));
  verb.add_option("--map", options.Map, texts.Utf8(TText::HelpSourceMap))->type_name("FILE");
  verb.add_flag("--scan", options.Scan, texts.Utf8(TText::HelpScan));
  AddListOption(verb, "--systems", options.Systems, ServedNames(), options)
      ->description(texts.Utf8(TText::HelpSystems))
      ->type_name("LIST");
}

void AddFilterOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  verb.add_flag("--deleted", options.Deleted, texts.Utf8(TText::HelpDeleted));
  verb.add_flag("--existing", options.Existing, texts.Utf8(TText::HelpExisting));
  AddListOption(verb, "--type", options.Kinds, {"archive", "audio", "database", "document", "image", "video"}, options)
      ->description(texts.Utf8(TText::HelpType))
      ->type_name("LIST");
  AddListOption(verb, "--ext", options.Extensions, {}, options)
      ->description(texts.Utf8(TText::HelpExtensions))
      ->type_name("LIST");
  const auto patterns = [&](const char* name, std::vector<std::string>& target, TText help) {
    verb.add_option(name, target, texts.Utf8(help))->allow_extra_args(false)->type_name("GLOB");
  };
  patterns("--path", options.Paths, TText::HelpPath);
  patterns("--exclude", options.Excludes, TText::HelpExclude);
  AddValueOption(verb, "--min-size", options.MinSize, ParseSize, TText::WrongSize, options)
      ->description(texts.Utf8(TText::HelpMinSize))
      ->type_name("SIZE");
  AddValueOption(verb, "--max-size", options.MaxSize, ParseSize, TText::WrongSize, options)
      ->description(texts.Utf8(TText::HelpMaxSize))
      ->type_name("SIZE");
  AddValueOption(verb, "--newer", options.Newer, ParseTime, TText::WrongTime, options)
      ->description(texts.Utf8(TText::HelpNewer))
      ->type_name("TIME");
  AddValueOption(verb, "--older", options.Older, ParseTime, TText::WrongTime, options)
      ->description(texts.Utf8(TText::HelpOlder))
      ->type_name("TIME");
  const auto readIds = [&options](const std::string& path) {
    const std::string complaint = ReadFileIds(options.Texts, path, options.Ids);
    if (!complaint.empty()) throw CLI::ValidationError("--id", complaint);
    options.ByIds = true;
  };
  verb.add_option_function<std::string>("--id", readIds, texts.Utf8(TText::HelpId))->type_name("FILE");
  CLI::Option* deep = verb.add_flag("--deep", options.Deep, texts.Utf8(TText::HelpDeep));
  verb.add_flag("--fast-off", options.FastOff, texts.Utf8(TText::HelpFastOff))->needs(deep);
  verb.add_option("--lost-folders", options.LostFolders, texts.Utf8(TText::HelpLostFolders))
      ->check(CLI::IsMember({"never", "auto", "always"}))
      ->type_name("WHEN")
      ->capture_default_str();
}

void AddBestOption(CLI::App& verb, TOptions& options) {
  CLI::Option* best = verb.add_flag("--best", options.Best, options.Texts.Utf8(TText::HelpBest));
  for (const char* other : {"--scan", "--deep", "--fast-off"}) best->excludes(verb.get_option(other));
}

}  // namespace brenlow::cli

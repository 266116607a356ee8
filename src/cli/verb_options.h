// SPDX-License-Identifier: GPL-3.0-or-later
// Options that several verbs share. What a verb has for itself is declared beside it.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "cli/options.h"

namespace brenlow::cli {

/// The words of the command line for the parser, which takes them from the last one on. A list that goes on
/// after a comma and a blank, as in "--type image, document", is one word there.
std::vector<std::string> WordsForParser(int argc, char** argv);

/// SOURCE and what every verb with one source has.
void AddSourceOption(CLI::App& verb, TOptions& options);
/// `--first` and `--count`.
void AddRangeOptions(CLI::App& verb, TOptions& options);
/// `--bad-time`: how long places of the source may take that do not read.
void AddBadTimeOption(CLI::App& verb, TOptions& options, TText help);
/// `--bad-time`, `--retry`, `--map` of an image that is read, `--scan` and `--systems`.
void AddSearchOptions(CLI::App& verb, TOptions& options);
/// Which files are selected, and how they are searched for.
void AddFilterOptions(CLI::App& verb, TOptions& options);

/// `--best`, after the options that it combines.
void AddBestOption(CLI::App& verb, TOptions& options);

}  // namespace brenlow::cli

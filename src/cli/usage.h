// SPDX-License-Identifier: GPL-3.0-or-later
// Error messages for wrong command lines.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>

#include "core/language.h"

namespace brenlow::cli {

/// Lets an option take whole numbers from `least` on, and says so of anything else.
CLI::Validator WholeNumber(const TLanguage& texts, std::int64_t least);

/// Lets an option take code pages that short names of FAT can be read with.
CLI::Validator KnownCodePage(const TLanguage& texts);

/// "drives, info, ls": the verbs of the program.
std::string VerbList(const CLI::App& app, const TLanguage& texts);

/// Says what is wrong with the command line; the exit status.
int ComplainOfUsage(const CLI::App& app, const CLI::ParseError& error, const TLanguage& texts);

}  // namespace brenlow::cli

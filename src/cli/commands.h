// SPDX-License-Identifier: GPL-3.0-or-later
// The verbs of the program: `Add...Options` declares what a verb takes, the other function carries it
// out and returns the exit status.
#pragma once

#include "cli/options.h"

namespace CLI {
class App;
}  // namespace CLI

namespace brenlow::cli {

void AddDrivesOptions(CLI::App& verb, TOptions& options);
int ListDrives(const TOptions& options);
void AddInfoOptions(CLI::App& verb, TOptions& options);
int ShowInfo(const TOptions& options);
void AddListOptions(CLI::App& verb, TOptions& options);
int ListFiles(const TOptions& options);
void AddRecoverOptions(CLI::App& verb, TOptions& options);
int RecoverFiles(const TOptions& options);
void AddFindOptions(CLI::App& verb, TOptions& options);
int FindPartitions(const TOptions& options);
void AddImageOptions(CLI::App& verb, TOptions& options);
int CreateImage(const TOptions& options);
void AddTypesOptions(CLI::App& verb, TOptions& options);
int ListTypes(const TOptions& options);

}  // namespace brenlow::cli

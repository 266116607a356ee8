// SPDX-License-Identifier: GPL-3.0-or-later
// The verbs of the program. Each returns the exit status.
#pragma once

#include "cli/options.h"

namespace brenlow::cli {

int ListDrives(const TOptions& options);
int ShowInfo(const TOptions& options);
int ListFiles(const TOptions& options);
int RecoverFiles(const TOptions& options);
int FindPartitions(const TOptions& options);
int CreateImage(const TOptions& options);
int ListTypes(const TOptions& options);

}  // namespace brenlow::cli

// SPDX-License-Identifier: GPL-3.0-or-later
// What every file-system driver owes its callers, written once. A driver's test supplies a volume
// that it can read, with at least one file of several clusters, and calls the checks.
#pragma once

#include <functional>

#include "support/images.h"

namespace brenlow::test {

struct TDriverSpecimen {
  TImage Volume;  // one volume, no partition table
  TFileSystem FileSystem = TFileSystem::fsUnknown;
};

/// Recognition, analysis with its states and progress, stop, listing, reading in any pieces,
/// fragments, size on disk; and that damage anywhere ends in an answer.
void CheckDriverContract(const TDriverSpecimen& specimen);

}  // namespace brenlow::test

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace brenlow {
class TEngine;
}  // namespace brenlow

namespace brenlow::cli {

/// Drops the files of a deep analysis that file systems list as well: those that begin within a live
/// file, or where a deleted one begins. Rows whose place is a guess or has been overwritten drop
/// nothing.
void DropClaimedDeepFiles(TEngine& engine);

}  // namespace brenlow::cli

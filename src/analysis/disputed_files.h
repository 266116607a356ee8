// SPDX-License-Identifier: GPL-3.0-or-later
// Which deleted files still have their clusters for themselves: each cluster of each is compared with what
// is in use, and with what other deleted files of the volume claim.
#pragma once

namespace brenlow {

class TEngine;

/// Sets `TFileInfo::Doubt` of all deleted files of a drive, once it was analysed.
void MarkDisputedFiles(TEngine& engine, int driveNumber);

}  // namespace brenlow

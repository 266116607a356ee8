// SPDX-License-Identifier: GPL-3.0-or-later
// Which deleted files still have their clusters for themselves: each cluster of each is compared with what
// is in use, and with what other deleted files of the volume claim.
#pragma once

#include "core/types.h"

namespace brenlow {

class TEngine;

/// Sets `TFileInfo::Doubt` of all deleted files of a drive, once it was analysed. Called again when the places of more
/// files are known, it adds doubts and takes none back.
void MarkDisputedFiles(TEngine& engine, int driveNumber);

/// Finds where those of these files begin of which that is not known yet, which takes reads, and compares them with
/// the others of their drives. Ends early when the recovery is stopped.
void SettlePlaces(TEngine& engine, const TInt64DynArray& fileNumbers);

}  // namespace brenlow

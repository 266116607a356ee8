// SPDX-License-Identifier: GPL-3.0-or-later
// Makes the values that a window shows from drives and files.
#pragma once

#include "shell/snapshots.h"

namespace brenlow {

class TEngine;
struct TDriveInfo;
struct TFile;

TEntryKind KindOf(TEngine& engine, const TFile& file);
TEntryKind KindOf(const TDriveInfo& drive);

/// A row without its location and its tick. While a scan runs no driver is asked, so that it stays
/// undisturbed: overwritten files are then shown as deleted. `inDeletedFolder`: it lies below a
/// deleted folder, and counts as deleted itself.
TFileRow MakeRow(TEngine& engine, int fileNumber, bool inDeletedFolder = false);

TDriveSnapshot MakeDrive(TEngine& engine, int driveNumber);

/// What is known of a file, folder or drive without reading its content.
TProperties MakeGeneralProperties(TEngine& engine, int fileNumber, bool inDeletedFolder = false);
/// All that is known of it. While a scan runs no driver is asked.
TProperties MakeProperties(TEngine& engine, int fileNumber, bool inDeletedFolder = false);

}  // namespace brenlow

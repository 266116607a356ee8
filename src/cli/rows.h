// SPDX-License-Identifier: GPL-3.0-or-later
// The rows of `drives`, whose numbers `--drive` takes, and how drives that a search found are reached.
#pragma once

#include <string>

#include "core/engine.h"
#include "core/types.h"

namespace brenlow::cli {

/// Adds rows for the partitions that the table of a disk names and that got none, being too small or
/// reserved. They come last, so that the other rows keep their numbers.
void AddSmallRows(TEngine& engine, int disk);
/// How many partitions of a disk have no row although their file system is known.
int CountSmallVolumes(TEngine& engine, int disk);

/// Whether a drive is a row of `drives`, which no search or analysis has added.
bool IsRow(const TDriveInfo& drive);

/// The row of a drive: its own, that of the volume at its place, or the innermost one
/// that holds it.
struct TRow {
  int Number;     ///< from 1
  bool IsItsOwn;  ///< false where the drive is only a part of it
};
TRow RowOf(TEngine& engine, int number);
/// "2", or "1, sector 2048" for what lies in a row.
std::string RowText(TEngine& engine, int number);
/// "--drive 2", or "--drive 1 --first 2048 --count 8000".
std::string ReachText(TEngine& engine, int number);
/// The folder that keeps a drive's files apart from those of the others: "2 HOLIDAY".
TString RowFolder(TEngine& engine, int number);

/// Every disk of the machine, and mounted volumes that lie on none, each with the rows that a verb
/// sees when it is given as source; complains when one cannot be read. `all`: with their small rows.
void MountMachine(TEngine& engine, bool all);

}  // namespace brenlow::cli

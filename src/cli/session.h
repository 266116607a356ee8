// SPDX-License-Identifier: GPL-3.0-or-later
// What all commands share: opening the source, analysing it, error messages.
#pragma once

#include <string>

#include "cli/console.h"
#include "cli/options.h"
#include "core/drives.h"
#include "core/engine.h"

namespace brenlow::cli {

/// Adds a source to the registry; -1 with a complaint when it cannot be read. `map`, when not empty,
/// is the map file of an image: what was not read counts as unreadable.
int MountSource(TEngine& engine, const TOptions& options, const std::string& source, const std::string& map = "");
/// Whether two paths, of which either may be empty or not there yet, lead to one file.
bool IsSamePath(const std::string& a, const std::string& b);
/// The number of the drive that `--drive` and `--first` name, else of the source itself; -1 with a
/// complaint when there is none.
int ChosenDrive(TEngine& engine, const TOptions& options);

/// Language, code page and the like.
void ApplyOptions(TEngine& engine, const TOptions& options);

/// "1 file", "2 files".
std::string FilesText(const TLanguage& texts, std::int64_t count);
/// The complaint that `--drive` names none.
std::string NoSuchDrive(const TOptions& options);

struct TAnalysed {
  TIntegerDynArray Drives;  ///< that hold the files; empty when there was nothing to analyse
  bool WrongDrive = false;  ///< there is no drive with the requested number
  bool AllReadable = true;  ///< every volume turned out to be what it seemed
};

/// The file systems that `--systems` names; empty when it names none, for all.
TFileSystems ChosenSystems(const TOptions& options);
/// One drive through the thorough search; the sub-drives that it found are below it.
void ScanForPartitions(TEngine& engine, const TOptions& options, int number);

/// Tells of volumes that a partition table names and that are too small for a row.
void ComplainOfSmallVolumes(TEngine& engine, const TOptions& options, const std::string& source, int disk);

/// Says that a stop during the scan has left the target as it was, and how to get at what was found.
void ComplainOfStoppedScan(TEngine& engine, const TOptions& options, const TAnalysed& analysed);

/// For the progress line: ", 3 unreadable sectors"; empty while everything reads.
std::string UnreadDetail(TEngine& engine, const TOptions& options);
/// Tells at the end of a verb what of the source could not be read or was left out.
void ComplainOfUnread(TEngine& engine, const TOptions& options);

/// Analyses what the options name; complains where that fails.
TAnalysed Analyse(TEngine& engine, const TOptions& options, TProgressLine& progress);

inline TDriveInfo& Drive(TEngine& engine, int number) { return engine.Drives().List[static_cast<std::size_t>(number)]; }
std::string SystemName(const TDriveInfo& drive);
std::int64_t SizeOf(const TDriveInfo& drive);

}  // namespace brenlow::cli

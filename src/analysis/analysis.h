// SPDX-License-Identifier: GPL-3.0-or-later
// Runs scans: which one for which drive, in what order, and how it is stopped.
#pragma once

#include <cstdint>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

/// The entry of every file-system analysis. Earlier results of the drive are thrown away.
/// Clearing `TEngine::Analysing` stops it; what was found stays.
void AnalyseDrive(TEngine& engine, int driveNumber);

/// One volume through its driver.
void AnalyseFileSystem(TEngine& engine, int driveNumber);

/// A physical drive: copies of its volumes are analysed as its sub-drives.
void AnalysePhysicalDrive(TEngine& engine, int driveNumber);

/// How long files are that the deep analysis finds: as its step leaves them, or as their own structure says, where
/// that can be walked to its end.
enum class TDeepSizes { AsFound, ByStructure };

/// The deep analysis of a drive on its own: earlier finds of one are thrown away, the files of the
/// drive's file system stay. Clearing `TEngine::Analysing` stops it; what was found stays, but for
/// the file that was open.
void DeepAnalyseDrive(TEngine& engine, int driveNumber, TDeepSizes sizes = TDeepSizes::AsFound);

/// Lists a volume that need not be registered, without touching the file table.
void GetDriveFiles(TEngine& engine, TDriveInfo& drive, TFileArray& result, bool rootDirOnly,
                   const TOnFilesGotten& onFilesGotten);

}  // namespace brenlow

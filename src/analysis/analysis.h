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

/// The deep analysis of a drive on its own: earlier finds of one are thrown away, the files of the
/// drive's file system stay. Clearing `TEngine::Analysing` stops it; what was found stays, but for
/// the file that was open.
void DeepAnalyseDrive(TEngine& engine, int driveNumber);

/// Lists a volume that need not be registered, without touching the file table.
void GetDriveFiles(TEngine& engine, TDriveInfo& drive, TFileArray& result, bool rootDirOnly,
                   const TOnFilesGotten& onFilesGotten);

/// Reads at most `size` bytes of a file from byte `start` on into `result`. A shorter result means
/// the end of the file or of what can be read of it. `adsNumber` -1 is the main stream.
void GetFileData(TEngine& engine, TByteDynArray& result, TFile& file, int adsNumber, std::int64_t start,
                 std::int64_t size);

/// Drops what the driver of a file keeps between reads.
void ClearReadCache(TEngine& engine, const TFile& file);

/// Looks, once a file, for the places where a deleted file may begin (`TFileInfo::FirstClusters`).
void FindFirstClusters(TEngine& engine, TFile& file);

/// The streams and attributes of a file; empty on file systems that have none.
void FillADS(TEngine& engine, const TFile& file, TADSDynArray& result);

/// True for a deleted file whose place belongs to something else by now: what reads back is hardly
/// its content.
bool IsOverwritten(TEngine& engine, const TFile& file);

/// How it is known where a file's content lies, with what is known of its volume and what the driver
/// adds (content inside a record needs no geometry).
TPlaceSource PlaceOf(TEngine& engine, const TFile& file);

/// The file's layout in file order; empty when the driver cannot tell.
void GetFileFragments(TEngine& engine, TFile& file, TFileFragments& result);

}  // namespace brenlow

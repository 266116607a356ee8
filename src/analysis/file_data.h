// SPDX-License-Identifier: GPL-3.0-or-later
// The content of files, whatever file system they lie on: bytes, layout, streams, and what is known of them.
#pragma once

#include <cstdint>
#include <memory>

#include "core/extent_reader.h"
#include "core/extents.h"
#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

/// Reads at most `size` bytes of a file from byte `start` on into `result`. A shorter result means
/// the end of the file or of what can be read of it. `adsNumber` -1 is the main stream.
void GetFileData(TEngine& engine, TByteDynArray& result, TFile& file, int adsNumber, std::int64_t start,
                 std::int64_t size);

/// The same stream as its reader sees it, kept between reads: `TExtentReader::Read` gives its bytes. Null when there
/// is no such stream, or nothing in it.
std::shared_ptr<TFileStream> OpenStream(TEngine& engine, TFile& file, int adsNumber);

/// The stretch of a stream that begins at byte `start` and needs no reading; without length where it does.
TFileStretch GetFileStretch(TEngine& engine, TFile& file, int adsNumber, std::int64_t start, std::int64_t size);

/// Looks, once a file, for the places where a deleted file may begin (`TFileInfo::FirstClusters`).
void FindFirstClusters(TEngine& engine, TFile& file);

/// True for a deleted file that may begin at several places, of which none was looked at yet.
bool IsPlaceOpen(TEngine& engine, const TFile& file);

/// The streams and attributes of a file; empty on file systems that have none.
void FillADS(TEngine& engine, const TFile& file, TADSDynArray& result);

/// What speaks against the content of a file, as far as is known without reading it.
TContentDoubt DoubtOf(TEngine& engine, const TFile& file);

/// True for a deleted file whose place, or a part of it, was given to something else: what reads back is not
/// its content.
bool IsOverwritten(TEngine& engine, const TFile& file);
bool IsOverwritten(TContentDoubt doubt);

/// How it is known where a file's content lies, with what is known of its volume and what the driver
/// adds (content inside a record needs no geometry).
TPlaceSource PlaceOf(TEngine& engine, const TFile& file);

/// The file's layout in file order; empty when the driver cannot tell.
void GetFileFragments(TEngine& engine, TFile& file, TFileFragments& result);

}  // namespace brenlow

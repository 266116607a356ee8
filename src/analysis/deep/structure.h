// SPDX-License-Identifier: GPL-3.0-or-later
// Where files that were found by their content really end: their own structure is walked from the first byte on.
#pragma once

#include <cstdint>
#include <span>

#include "analysis/deep/file_window.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

/// What the walk over a file's structure tells.
struct TStructure {
  std::int64_t Size = 0;  ///< bytes to where the walk got; the file's size when it is sound
  bool Sound = false;     ///< the structure was walked to its own end
};

/// Walks one format from byte 0 of the window on. Bounded by the window: every step of a loop moves on, or counts.
using TStructureReader = TStructure (*)(TFileWindow& window);

struct TStructureFormat {
  TStringView Extensions;  ///< of the rows it serves: lower case, each with its dot, a blank between them
  TStructureReader Read;
};

/// All formats that have a reader. Their order is that of the fuzz target's first byte: add at the end.
std::span<const TStructureFormat> StructureFormats();

/// The reader for an extension (lower case, with its dot); null when there is none.
TStructureReader StructureReaderOf(TStringView extension);

/// Gives each file that the deep analysis of the drive found the size that its structure tells, where that is sound.
/// Rows stay as they are otherwise; none goes. Stops when `Analysing` is cleared.
void MeasureDeepFiles(TEngine& engine, int driveNumber);

TStructure ReadAsf(TFileWindow& window);
TStructure ReadBmp(TFileWindow& window);
TStructure ReadCab(TFileWindow& window);
TStructure ReadChm(TFileWindow& window);
TStructure ReadCompound(TFileWindow& window);
TStructure ReadGif(TFileWindow& window);
TStructure ReadGzip(TFileWindow& window);
TStructure ReadJpeg(TFileWindow& window);
TStructure ReadMidi(TFileWindow& window);
TStructure ReadPng(TFileWindow& window);
TStructure ReadPsd(TFileWindow& window);
TStructure ReadRar(TFileWindow& window);
TStructure ReadRiff(TFileWindow& window);
TStructure ReadSwf(TFileWindow& window);
TStructure ReadWmf(TFileWindow& window);
TStructure ReadZip(TFileWindow& window);

}  // namespace brenlow

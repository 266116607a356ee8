// SPDX-License-Identifier: GPL-3.0-or-later
// The journal: where it lies, which blocks of the file system it has copies of, and for a volume that was not
// unmounted, which of those are newer than the volume.
//
// Format facts: Linux kernel documentation, "ext4 Data Structures and Algorithms" (Journal). All its numbers
// are big-endian.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "core/drive_records.h"
#include "fs/ext/ext_info.h"

namespace brenlow {

class TEngine;

namespace ext {

class TVolumeReader;

/// The mark that each block of the journal's own begins with.
inline constexpr std::uint8_t JournalMark[4] = {0xC0, 0x3B, 0x39, 0x98};

/// Finds the journal and fills `TExtXInfo::Journal`; of a volume that was not unmounted also what is to be
/// taken from it. False when there is none on this device.
bool OpenJournal(TEngine& engine, TDriveInfo& drive);

/// One copy that the journal holds.
struct TLoggedCopy {
  std::int64_t Block = 0;  ///< of the file system
  std::uint32_t Sequence = 0;
  std::uint32_t JournalBlock = 0;
  std::span<const std::uint8_t> Bytes;  ///< with the mark put back where it was taken out
};

/// Visits all copies in the journal, old ones too, and fills `Logged` and `Sequences`. A visitor that answers
/// false ends it.
void SweepJournal(TVolumeReader& reader, TExtXJournal& journal, const std::function<bool(const TLoggedCopy&)>& visit);

}  // namespace ext
}  // namespace brenlow

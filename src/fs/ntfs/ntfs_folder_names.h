// SPDX-License-Identifier: GPL-3.0-or-later
// Names of folders in entries of indexes, wherever such an entry is left: in the free room of an index
// or of a record, or in the log.
//
// Format facts: linux-ntfs project documentation ("Index entry", "$FILE_NAME"); B. Carrier, "File System
// Forensic Analysis", ch. 13.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <unordered_set>

#include "core/types.h"

namespace brenlow {
struct TDriveInfo;
namespace ntfs {

using TFolderNames = std::unordered_map<std::int64_t, TString>;

/// Adds the names of folders by `ReferenceKey`, out of entries that begin at any 8 bytes. A name that is
/// known stays.
void FindFolderNames(std::span<const std::uint8_t> bytes, TFolderNames& names);
/// The same for those in `wanted` only.
void FindFolderNames(std::span<const std::uint8_t> bytes, const std::unordered_set<std::int64_t>& wanted,
                     TFolderNames& names);

/// What of a fixed-up record lies after its attributes.
std::span<const std::uint8_t> UnusedPart(std::span<const std::uint8_t> record);

/// Puts the bytes back that the update sequences of index blocks of 4 KiB have replaced.
void FixIndexBlocks(std::span<std::uint8_t> bytes);

/// The keys that rows of a drive have as their folder, and that are no record's number.
std::unordered_set<std::int64_t> LostFolders(const TDriveInfo& drive);

}  // namespace ntfs
}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// The superblock: what it says of the volume, and which of its features this driver reads.
//
// Format facts: Linux kernel documentation, "ext4 Data Structures and Algorithms" (Super Block).
#pragma once

#include <cstdint>
#include <span>

#include "core/types.h"
#include "fs/ext/ext_info.h"

namespace brenlow::ext {

inline constexpr std::int64_t SuperblockOffset = 1024;  ///< bytes from the volume's start
inline constexpr std::size_t SuperblockSize = 1024;     ///< bytes
inline constexpr std::uint16_t Magic = 0xEF53;
inline constexpr std::uint32_t RootInode = 2;

/// Bits of the three feature words.
namespace Feature {
inline constexpr std::uint32_t CompatHasJournal = 0x4;
inline constexpr std::uint32_t CompatSparseSuper2 = 0x200;
inline constexpr std::uint32_t IncompatCompression = 0x1;
inline constexpr std::uint32_t IncompatRecover = 0x4;
inline constexpr std::uint32_t IncompatJournalDevice = 0x8;
inline constexpr std::uint32_t IncompatMetaGroups = 0x10;
inline constexpr std::uint32_t IncompatExtents = 0x40;
inline constexpr std::uint32_t Incompat64Bit = 0x80;
inline constexpr std::uint32_t IncompatFlexibleGroups = 0x200;
inline constexpr std::uint32_t IncompatChecksumSeed = 0x2000;
inline constexpr std::uint32_t IncompatLargeFolders = 0x4000;
inline constexpr std::uint32_t ReadOnlyGroupChecksums = 0x10;
inline constexpr std::uint32_t ReadOnlyClusters = 0x200;
inline constexpr std::uint32_t ReadOnlyMetadataChecksums = 0x400;
}  // namespace Feature

/// Reads the superblock at `start` of the buffer into `info`, tables and journal blocks left out. False for
/// one that fails the tests. `additionalCheck` asks for the mark and for sound inode sizes. `volumeName`
/// gets the label, or the path of the last mount.
bool ParseSuperblock(std::span<const std::uint8_t> buffer, std::size_t start, bool additionalCheck, TExtXInfo& info,
                     TString& volumeName);

/// True when all fields are there that a volume cannot be read without.
bool IsFilled(const TExtXInfo& info);

/// True when the fields agree with each other as those of a real volume do: so that bytes which only look
/// like a superblock are told from one.
bool IsPlausible(std::span<const std::uint8_t> buffer, std::size_t start);

/// The group that the copy at `start` says to belong to; 0 for the superblock itself.
std::uint32_t GroupOfCopy(std::span<const std::uint8_t> buffer, std::size_t start);

TFileSystem SystemOf(std::span<const std::uint8_t> buffer, std::size_t start);

/// The first block of a group.
inline std::int64_t GroupStart(const TExtXInfo& info, std::int64_t group) {
  return info.FirstDataBlock + group * std::int64_t{info.BlocksPerGroup};
}
/// Groups of the volume.
std::int64_t GroupCount(const TExtXInfo& info);

}  // namespace brenlow::ext

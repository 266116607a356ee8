// SPDX-License-Identifier: GPL-3.0-or-later
// Directory entries: slots of 32 bytes that together, as a set, describe one file or folder.
#pragma once

#include <cstdint>
#include <span>

#include "core/file_records.h"
#include "core/types.h"

namespace brenlow::exfat {

/// The type of a slot with the bit of entries in use set, so that deleted ones compare alike.
inline std::uint8_t TypeOf(std::span<const std::uint8_t> slot) { return slot[0] | 0x80; }

/// True for the types of entries that are known, in use or deleted.
bool IsKnownType(std::uint8_t type);

/// The running checksum of a set after one more of its slots (section 6.3.3). The bits of entries in use
/// are taken as set: deleting clears them and leaves the sum.
std::uint16_t SetChecksum(std::uint16_t sum, std::span<const std::uint8_t> slot);

/// The hash of a name that stream entries carry (section 7.6.4). `upCase` has 65,536 units.
std::uint16_t NameHash(TStringView name, TStringView upCase);

/// The times of a File entry in local time, with their 10 ms parts and, where they state one, from their
/// own time zone (sections 7.4.8 to 7.4.10).
TTimeStamp EntryTimes(std::span<const std::uint8_t> slot);

/// Strict test of slots that no folder vouches for: true when the sector holds nothing but slots as drivers
/// write them and, after those, zeros. `lastCluster` is the highest number of the volume.
bool IsDirectorySector(std::span<const std::uint8_t> sector, std::int64_t lastCluster);

/// True for the start of a root folder: a label, and a bitmap and an up-case table after it. Roots that have other
/// entries before these two count as well, where both say where they lie.
bool IsRootForm(std::span<const std::uint8_t> sector);

/// What the slots of a set have told.
struct TEntrySet {
  std::int64_t Position = 0;     ///< byte position of its first slot in the volume
  std::int64_t ValidLength = 0;  ///< bytes of the content that were written
  std::uint16_t NameHash = 0;
  bool WasInUse = false;      ///< its own bit says so, whatever the folder is
  bool HasFile = false;       ///< attributes and times are known
  bool HasStream = false;     ///< size and place are known
  bool NameIsWhole = false;   ///< as long as the stream entry says
  bool ChecksumFits = false;  ///< all slots are there as they were written
};

/// Takes slots one after the other and puts sets together, also those of which slots are missing.
class TSetParser {
 public:
  /// True when the slot goes on with the set in hand.
  bool Continues(std::span<const std::uint8_t> slot) const;
  /// Takes a slot that goes on with the set in hand.
  void Add(std::span<const std::uint8_t> slot);
  /// Drops the set in hand and begins another one with the slot, if one can begin with it.
  void Begin(std::span<const std::uint8_t> slot, std::int64_t position);
  /// True when no slot is missing of the set in hand.
  bool IsComplete() const;
  /// True when the slots of `bytes` complete the set in hand and its checksum then fits: they go together,
  /// wherever they lie.
  bool IsCompletedBy(std::span<const std::uint8_t> bytes) const;
  /// True for a set that needs more slots.
  bool IsPending() const { return FBegun && !IsComplete(); }
  /// Ends the set in hand. False when it tells of nothing. The name in `info` views the parser and stays
  /// until the next set begins.
  bool Take(TFileInfo& info, TEntrySet& set);
  void Clear() { FBegun = false; }

 private:
  void TakeFile(std::span<const std::uint8_t> slot);
  void TakeStream(std::span<const std::uint8_t> slot);
  void TakeName(std::span<const std::uint8_t> slot);

  bool FBegun = false;
  TEntrySet FSet;
  TFileInfo FInfo;
  TString FName;
  std::uint16_t FSum = 0;
  std::uint16_t FStoredSum = 0;
  int FSlots = 0;        // taken so far
  int FSecondaries = 0;  // that the File entry states
  int FNameLeft = 0;     // units of the name still to come
  bool FNameEnded = false;
};

}  // namespace brenlow::exfat

// SPDX-License-Identifier: GPL-3.0-or-later
// References to file records. A record's number is used again and again; its sequence number tells
// the uses apart.
//
// Format facts: linux-ntfs project documentation ("File Reference", "FILE Record"); B. Carrier, "File
// System Forensic Analysis", ch. 13.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "core/types.h"

namespace brenlow::ntfs {

/// As in names, index entries, attribute lists and extension records. Sequence 0 means any.
struct TReference {
  std::int64_t Number = 0;
  std::uint16_t Sequence = 0;
};

TReference ReadFullReference(std::span<const std::uint8_t> buffer, std::size_t offset);

/// What the head of a record says of its current use.
struct TRecordUse {
  std::uint16_t Sequence = 0;
  bool InUse = false;
};

TRecordUse ReadRecordUse(std::span<const std::uint8_t> record);

/// Whether a reference with this sequence number means the use of the record, or its last one when it
/// is free: whoever frees a record counts its sequence number up by one, skipping 0 (one implementation
/// does so only when the record is used again).
bool IsSameUse(const TRecordUse& use, std::uint16_t sequence);

/// Whether an extension record belongs to a base record: by its reference, as the base record is now or
/// was before it was freed. `baseNumber` is negative when only the record itself may tell it.
bool IsExtensionOf(std::span<const std::uint8_t> base, std::int64_t baseNumber,
                   std::span<const std::uint8_t> extension);

/// A reference as one key of the file table, apart from all plain record numbers. Numbers that no
/// volume can have, and references of sequence 0, give the plain number.
std::int64_t ReferenceKey(const TReference& reference);
bool IsReferenceKey(std::int64_t key);
/// The reference of a key; sequence 0 for a plain number.
TReference ReferenceOf(std::int64_t key);

/// The uses of the records that an analysis has met, about two bytes each.
class TRecordUses {
 public:
  /// `certain`: the number comes from the table, and replaces what was known of it.
  void Enter(std::int64_t number, const TRecordUse& use, bool certain);
  bool IsKnown(std::int64_t number) const;
  /// True when the record was met and its use is the one that the reference means.
  bool Agrees(const TReference& reference) const;
  void Clear() { *this = TRecordUses(); }

 private:
  static constexpr std::int64_t PerPage = 256;
  struct TPage {
    std::array<std::uint16_t, PerPage> Sequences{};
    std::array<std::uint8_t, PerPage / 8> Known{};
    std::array<std::uint8_t, PerPage / 8> InUse{};
  };
  const TPage* PageOf(std::int64_t number) const;

  std::unordered_map<std::int64_t, TPage> FPages;
};

}  // namespace brenlow::ntfs

// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs_references.h"

#include "core/numbers.h"
#include "fs/ntfs/ntfs_record.h"

namespace brenlow::ntfs {
namespace {

constexpr int NumberBits = 46;  // no volume has more records
constexpr std::int64_t NumberMask = (std::int64_t{1} << NumberBits) - 1;
constexpr std::int64_t KeyBit = std::int64_t{1} << 62;

}  // namespace

TReference ReadFullReference(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return {ReadReference(buffer, offset), ReadLe16(buffer, offset + 6)};
}

TRecordUse ReadRecordUse(std::span<const std::uint8_t> record) {
  constexpr std::size_t sequence = 0x10;
  constexpr std::size_t flags = 0x16;
  return {ReadLe16(record, sequence), (ReadLe16(record, flags) & 1) != 0};
}

bool IsSameUse(const TRecordUse& use, std::uint16_t sequence) {
  if (sequence == 0 || use.Sequence == 0 || sequence == use.Sequence) return true;
  const auto next = static_cast<std::uint16_t>(sequence == 0xFFFF ? 1 : sequence + 1);
  return !use.InUse && next == use.Sequence;
}

bool IsExtensionOf(std::span<const std::uint8_t> base, std::int64_t baseNumber,
                   std::span<const std::uint8_t> extension) {
  constexpr std::size_t baseReference = 0x20;
  if (baseNumber < 0) baseNumber = OwnNumber(base);
  const TReference reference = ReadFullReference(extension, baseReference);
  const bool sameNumber = baseNumber < 0 || reference.Number == baseNumber;
  return sameNumber && IsSameUse(ReadRecordUse(base), reference.Sequence);
}

std::int64_t ReferenceKey(const TReference& reference) {
  if (reference.Sequence == 0 || reference.Number < 0 || reference.Number > NumberMask) return reference.Number;
  return KeyBit | std::int64_t{reference.Sequence} << NumberBits | reference.Number;
}

bool IsReferenceKey(std::int64_t key) { return key >= KeyBit; }

TReference ReferenceOf(std::int64_t key) {
  if (!IsReferenceKey(key)) return {key, 0};
  return {key & NumberMask, static_cast<std::uint16_t>((key & ~KeyBit) >> NumberBits)};
}

const TRecordUses::TPage* TRecordUses::PageOf(std::int64_t number) const {
  const auto page = FPages.find(number / PerPage);
  return page == FPages.end() ? nullptr : &page->second;
}

void TRecordUses::Enter(std::int64_t number, const TRecordUse& use, bool certain) {
  if (number < 0) return;
  TPage& page = FPages[number / PerPage];
  const auto at = static_cast<std::size_t>(number % PerPage);
  const auto bit = static_cast<std::uint8_t>(1U << at % 8);
  if (!certain && (page.Known[at / 8] & bit) != 0) return;
  page.Known[at / 8] |= bit;
  page.Sequences[at] = use.Sequence;
  page.InUse[at / 8] = static_cast<std::uint8_t>(use.InUse ? page.InUse[at / 8] | bit : page.InUse[at / 8] & ~bit);
}

bool TRecordUses::IsKnown(std::int64_t number) const {
  const TPage* page = number < 0 ? nullptr : PageOf(number);
  return page != nullptr && (page->Known[static_cast<std::size_t>(number % PerPage) / 8] >> number % 8 & 1) != 0;
}

bool TRecordUses::Agrees(const TReference& reference) const {
  if (!IsKnown(reference.Number)) return false;
  const TPage& page = *PageOf(reference.Number);
  const auto at = static_cast<std::size_t>(reference.Number % PerPage);
  const bool inUse = (page.InUse[at / 8] >> at % 8 & 1) != 0;
  return IsSameUse({page.Sequences[at], inUse}, reference.Sequence);
}

}  // namespace brenlow::ntfs

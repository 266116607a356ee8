// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs_record.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "core/numbers.h"
#include "core/text.h"

namespace brenlow::ntfs {
namespace {

constexpr std::size_t FixupBlock = 512;  // bytes, whatever the sector size
// A stream may be all holes, and far longer than its volume; but damage must not make one that takes
// days to write.
constexpr std::int64_t LongestSparse = std::int64_t{1} << 28;  // clusters, on a small volume
constexpr std::int64_t SparseFactor = 64;                      // times the volume, on a large one
constexpr std::int64_t LongestDoubtfulRun = 10'000'000;        // clusters; longer ones must fit into the volume

}  // namespace

bool IsMFT(std::span<const std::uint8_t> buffer, std::size_t start) {
  if (start > buffer.size() || buffer.size() - start < 4) return false;
  const std::uint8_t* at = buffer.data() + start;
  return std::memcmp(at, "FILE", 4) == 0 || std::memcmp(at, "BAAD", 4) == 0;
}

void ApplyFixups(std::span<std::uint8_t> record) {
  if (record.size() < 8) return;
  const std::size_t sequence = ReadLe16(record, 4);
  const std::size_t count = ReadLe16(record, 6);
  if (count < 2 || sequence + 2 > record.size()) return;
  for (std::size_t i = 1; i < count; ++i) {
    const std::size_t end = i * FixupBlock;
    const std::size_t original = sequence + 2 * i;
    if (end > record.size() || original + 2 > record.size()) break;
    if (std::memcmp(&record[end - 2], &record[sequence], 2) != 0) continue;
    std::memcpy(&record[end - 2], &record[original], 2);
  }
}

std::uint8_t TAttribute::Number8(std::size_t offset) const {
  return static_cast<std::uint8_t>(ReadNumber(FRecord, true, 1, FAt + offset));
}
std::uint16_t TAttribute::Number16(std::size_t offset) const { return ReadLe16(FRecord, FAt + offset); }
std::uint32_t TAttribute::Number32(std::size_t offset) const { return ReadLe32(FRecord, FAt + offset); }
std::int64_t TAttribute::Number64(std::size_t offset) const {
  return static_cast<std::int64_t>(ReadLe64(FRecord, FAt + offset));
}

TString TAttribute::Name() const { return ReadText(FRecord, FAt + Number16(0x0A), Number8(9)); }

bool TAttribute::IsDefaultDataStream() const {
  if (Number8(9) == 0) return true;
  const TString name = Name();
  return Trim(name).empty() || Trim(name) == u"$DATA";
}

std::span<const std::uint8_t> TAttribute::Value() const {
  const std::size_t start = FAt + Number16(0x14);
  const std::size_t length = ValueLength();
  if (NonResident() || start > FRecord.size()) return {};
  return FRecord.subspan(start, std::min(length, FRecord.size() - start));
}

TRuns TAttribute::Runs(std::int64_t volumeClusters) const {
  TRuns runs;
  const std::int64_t first = FirstVcn();
  const std::int64_t last = LastVcn();
  if (!NonResident() || first < 0 || first > MostClusters || last < first) return runs;
  const std::int64_t longest = std::max(LongestSparse, SparseFactor * std::min(volumeClusters, MostClusters));
  std::int64_t left = std::min(last - first, std::min(longest, MostClusters)) + 1;
  std::int64_t vcn = 0;
  std::uint64_t lcn = 0;
  for (std::size_t at = FAt + Number16(0x20); left > 0 && at < FRecord.size();) {
    const std::size_t lengthSize = FRecord[at] & 15U;
    const std::size_t deltaSize = FRecord[at] >> 4U;
    if (FRecord[at] == 0) break;
    std::int64_t length = ReadSignedNumber(FRecord, true, lengthSize, at + 1);
    lcn += static_cast<std::uint64_t>(ReadSignedNumber(FRecord, true, deltaSize, at + 1 + lengthSize));
    at += 1 + lengthSize + deltaSize;
    if (at > FRecord.size() || length < 0) break;
    length = std::min(length, left);
    const bool hole = deltaSize == 0;
    const auto start = static_cast<std::int64_t>(lcn);
    const bool fits = start >= 0 && start < volumeClusters && length <= volumeClusters - start;
    if (!hole && !fits && (length > LongestDoubtfulRun || start < 0 || start > MostClusters)) break;
    if (length == 0) continue;
    if (!runs.empty() && runs.back().Lcn >= 0 && !hole && runs.back().Lcn + runs.back().Count == start) {
      runs.back().Count += length;
    } else {
      runs.push_back({vcn, hole ? -1 : start, length});
    }
    vcn += length;
    left -= length;
  }
  return runs;
}

TAttributeWalk::TAttributeWalk(std::span<const std::uint8_t> record)
    : FRecord(record), FAttribute(record, 0), FNext(ReadLe16(record, 0x14)) {}

bool TAttributeWalk::Next() {
  if (FCount++ >= MostAttributes || FNext >= FRecord.size()) return false;
  FAttribute = TAttribute(FRecord, FNext);
  const std::uint32_t length = FAttribute.Length();
  if (FAttribute.Type() == AttrEnd || length == 0) return false;
  FNext += length;
  return true;
}

void AddListedRecords(std::span<const std::uint8_t> list, TInt64DynArray& records) {
  std::unordered_set<std::int64_t> known(records.begin(), records.end());
  std::size_t at = 0;
  for (std::size_t i = 0; i < MostListed && at + 0x16 <= list.size(); ++i) {
    const std::int64_t number = ReadReference(list, at + 0x10);
    if (known.insert(number).second) records.push_back(number);
    const std::size_t step = ReadLe16(list, at + 4);
    if (step == 0) break;
    at += step;
  }
}

std::int64_t ListedDataClusters(std::span<const std::uint8_t> list) {
  std::int64_t clusters = 0;
  std::size_t at = 0;
  for (std::size_t i = 0; i < MostListed && at + 0x16 <= list.size(); ++i) {
    const auto first = static_cast<std::int64_t>(ReadLe64(list, at + 8));
    const bool isDefault = ReadLe32(list, at) == AttrData && list[at + 6] == 0;
    if (isDefault && first >= 0 && first < MostClusters) clusters = std::max(clusters, first + 1);
    const std::size_t step = ReadLe16(list, at + 4);
    if (step == 0) break;
    at += step;
  }
  return clusters;
}

std::int64_t OwnNumber(std::span<const std::uint8_t> record) {
  // Before version 3.1 the update sequence stood where the number is now.
  constexpr std::size_t numberOffset = 0x2C;
  if (ReadLe16(record, 4) < numberOffset + 4) return -1;
  return ReadLe32(record, numberOffset);
}

std::int64_t ReadReference(std::span<const std::uint8_t> buffer, std::size_t offset) {
  return static_cast<std::int64_t>(ReadNumber(buffer, true, 6, offset));
}

TString ReadText(std::span<const std::uint8_t> buffer, std::size_t offset, std::size_t count) {
  if (offset > buffer.size()) return {};
  count = std::min(count, (buffer.size() - offset) / 2);
  TString text(count, u'\0');
  for (std::size_t i = 0; i < count; ++i) text[i] = static_cast<char16_t>(ReadLe16(buffer, offset + 2 * i));
  return text;
}

}  // namespace brenlow::ntfs

// SPDX-License-Identifier: GPL-3.0-or-later
// Structures inside NTFS file records. Everything is bounded by the record: what lies outside reads
// as zeros.
//
// Format facts: linux-ntfs project documentation; B. Carrier, "File System Forensic Analysis", ch. 13.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/types.h"

namespace brenlow::ntfs {

enum : std::uint32_t {
  AttrStandardInformation = 0x10,
  AttrAttributeList = 0x20,
  AttrFileName = 0x30,
  AttrVolumeName = 0x60,
  AttrData = 0x80,
  AttrIndexRoot = 0x90,
  AttrIndexAllocation = 0xA0,
  AttrBitmap = 0xB0,
  AttrEnd = 0xFFFFFFFF,
};
inline constexpr std::int64_t RootRecord = 5;
inline constexpr int MostAttributes = 257;  // of one record
inline constexpr int MostRecords = 257;     // of one file, that turn out to be another file's
inline constexpr int MostEntries = 257;     // of one index
/// Of one attribute list. Windows ends lists at 256 KiB, which hold fewer.
inline constexpr std::size_t MostListed = 16384;
/// No volume has more clusters (Windows stops at 2^32), no cluster more bytes: products of the two
/// cannot overflow.
inline constexpr std::int64_t MostClusters = std::int64_t{1} << 36;
inline constexpr std::int64_t LargestCluster = std::int64_t{1} << 24;

/// Clusters that lie one after the other. `Lcn` -1 is a hole; `MissingLcn` stands for clusters that the
/// stream has, but that no record found tells of.
struct TRun {
  std::int64_t Vcn = 0;  ///< of the first cluster, within the stream
  std::int64_t Lcn = 0;
  std::int64_t Count = 0;
};
using TRuns = std::vector<TRun>;
inline constexpr std::int64_t MissingLcn = -2;

/// True for the signatures of a file record, sound or marked bad.
bool IsMFT(std::span<const std::uint8_t> buffer, std::size_t start);

/// Puts the bytes back that the update sequence has replaced at the end of each 512-byte block; a
/// block that does not match is left as it stands.
void ApplyFixups(std::span<std::uint8_t> record);

/// A view of one attribute of a record.
class TAttribute {
 public:
  TAttribute(std::span<const std::uint8_t> record, std::size_t at) : FRecord(record), FAt(at) {}
  std::size_t At() const { return FAt; }
  std::uint32_t Type() const { return Number32(0); }
  std::uint32_t Length() const { return Number32(4); }
  bool NonResident() const { return Number8(8) == 1; }
  bool Compressed() const { return (Number16(0x0C) & 1) != 0; }
  bool Encrypted() const { return (Number16(0x0C) & 0x4000) != 0; }
  TString Name() const;
  /// The stream that a file's size and content mean.
  bool IsDefaultDataStream() const;
  /// Of a resident attribute; empty when it lies outside of the record.
  std::span<const std::uint8_t> Value() const;
  std::uint32_t ValueLength() const { return Number32(0x10); }
  // Of a non-resident one.
  std::int64_t FirstVcn() const { return Number64(0x10); }
  std::int64_t LastVcn() const { return Number64(0x18); }
  unsigned CompressionUnit() const { return Number16(0x22); }  ///< as a power of two, in clusters
  std::int64_t AllocatedSize() const { return Number64(0x28); }
  std::int64_t RealSize() const { return Number64(0x30); }
  std::int64_t ValidSize() const { return Number64(0x38); }
  /// The clusters, counted from the attribute's first one on. `volumeClusters` bounds runs that
  /// are longer than any sound list of old would hold.
  TRuns Runs(std::int64_t volumeClusters) const;

 private:
  std::uint8_t Number8(std::size_t offset) const;
  std::uint16_t Number16(std::size_t offset) const;
  std::uint32_t Number32(std::size_t offset) const;
  std::int64_t Number64(std::size_t offset) const;

  std::span<const std::uint8_t> FRecord;
  std::size_t FAt;
};

/// Steps over the attributes of a fixed-up record: for (TAttributeWalk walk(record); walk.Next();)
class TAttributeWalk {
 public:
  explicit TAttributeWalk(std::span<const std::uint8_t> record);
  bool Next();
  const TAttribute& operator*() const { return FAttribute; }
  const TAttribute* operator->() const { return &FAttribute; }

 private:
  std::span<const std::uint8_t> FRecord;
  TAttribute FAttribute;
  std::size_t FNext;
  int FCount = 0;
};

/// The record numbers that the entries of an attribute list name, in order, each once. At most
/// `MostListed` entries are looked at.
void AddListedRecords(std::span<const std::uint8_t> list, TInt64DynArray& records);

/// What the entries of an attribute list tell of the default stream: one more than the first cluster of
/// its last piece, in clusters; 0 when it is not listed.
std::int64_t ListedDataClusters(std::span<const std::uint8_t> list);

/// The number that a record says it has (NTFS 3.1 and later); -1 when it says none.
std::int64_t OwnNumber(std::span<const std::uint8_t> record);

/// A number of 6 bytes, as in references to records.
std::int64_t ReadReference(std::span<const std::uint8_t> buffer, std::size_t offset);

/// UTF-16 text of `count` characters, as far as it lies in the buffer.
TString ReadText(std::span<const std::uint8_t> buffer, std::size_t offset, std::size_t count);

}  // namespace brenlow::ntfs

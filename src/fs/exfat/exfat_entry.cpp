// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/exfat/exfat_entry.h"

#include <algorithm>

#include "core/datetime.h"
#include "core/numbers.h"
#include "fs/exfat/exfat_layout.h"
#include "table/files.h"

namespace brenlow::exfat {
namespace {

constexpr int MaxNameSlots = 17;    // of 15 units each: 255
constexpr int MaxSecondaries = 18;  // of a file without slots of vendors
constexpr std::uint16_t KnownAttributes = AttrReadOnly | AttrHidden | AttrSystem | AttrFolder | AttrArchive;

std::uint16_t AddByte(std::uint16_t sum, std::uint8_t byte) {
  return static_cast<std::uint16_t>((std::uint32_t{sum} << 15 | sum >> 1) + byte);
}

/// A time stamp (date in the high half) with hundredths of a second and a zone in quarters of an hour.
TDateTime TimeOf(std::uint32_t stamp, std::uint8_t hundredths, std::uint8_t zone) {
  constexpr std::uint8_t zoneIsValid = 0x80;
  constexpr double quartersPerDay = 96;
  const auto date = static_cast<int>(stamp >> 16);
  const TDateTime day = EncodeDate(1980 + (date >> 9), (date >> 5) & 15, date & 31);
  if (day == 0) return 0;
  const int milliseconds = hundredths < 200 ? hundredths * 10 : 0;
  const TDateTime time = day + EncodeTime(static_cast<int>(stamp >> 11 & 31), static_cast<int>(stamp >> 5 & 63),
                                          static_cast<int>(stamp & 31) * 2, milliseconds);
  if ((zone & zoneIsValid) == 0) return time;
  const int quarters = (zone & 0x40) != 0 ? (zone & 0x7F) - 128 : zone & 0x7F;
  return FromUtc(time - quarters / quartersPerDay);
}

bool IsDate(std::uint32_t stamp) {
  const std::uint32_t month = stamp >> 21 & 15;
  return month >= 1 && month <= 12 && (stamp >> 16 & 31) >= 1 && (stamp >> 11 & 31) < 24 && (stamp >> 5 & 63) < 60;
}

bool IsPlausibleFile(std::span<const std::uint8_t> slot) {
  const std::uint16_t attributes = ReadLe16(slot, AttributesAt);
  return slot[SecondaryCountAt] >= 2 && slot[SecondaryCountAt] <= MaxSecondaries &&
         (attributes & ~KnownAttributes) == 0 && ReadLe16(slot, 6) == 0 && IsDate(ReadLe32(slot, ModifiedAt)) &&
         IsDate(ReadLe32(slot, CreatedAt)) && slot[Created10msAt] < 200 && slot[Modified10msAt] < 200;
}

bool IsPlausibleStream(std::span<const std::uint8_t> slot, std::int64_t lastCluster) {
  const std::uint32_t cluster = ReadLe32(slot, FirstClusterAt);
  const std::uint64_t length = ReadLe64(slot, DataLengthAt);
  const bool placed = cluster == 0 ? length == 0 : cluster >= 2 && cluster <= lastCluster;
  return placed && slot[NameLengthAt] != 0 && (slot[FlagsAt] & ~3) == 0 && slot[2] == 0 && ReadLe16(slot, 6) == 0 &&
         ReadLe32(slot, 16) == 0 && ReadLe64(slot, ValidLengthAt) <= length;
}

/// Characters that no name has (section 7.7.3); zeros only fill the rest.
bool IsPlausibleName(std::span<const std::uint8_t> slot) {
  constexpr TStringView refused = u"\"*/:<>?\\|";
  bool ended = false;
  for (std::size_t i = 0; i < UnitsPerName; ++i) {
    const char16_t unit = ReadLe16(slot, NameAt + 2 * i);
    if (unit == 0 && i == 0) return false;
    if (unit != 0 && (ended || unit < 0x20 || refused.find(unit) != TStringView::npos)) return false;
    ended = ended || unit == 0;
  }
  return slot[FlagsAt] == 0;
}

}  // namespace

bool IsKnownType(std::uint8_t type) {
  switch (type | InUse) {
    case BitmapEntry:
    case UpCaseEntry:
    case LabelEntry:
    case FileEntry:
    case VolumeGuidEntry:
    case PaddingEntry:
    case AccessControlEntry:
    case StreamEntry:
    case NameEntry:
    case VendorExtensionEntry:
    case VendorAllocationEntry:
      return true;
    default:
      return false;
  }
}

std::uint16_t SetChecksum(std::uint16_t sum, std::span<const std::uint8_t> slot) {
  sum = AddByte(sum, TypeOf(slot));
  const bool holdsSum = TypeOf(slot) == FileEntry;
  for (std::size_t i = 1; i < EntrySize; ++i) {
    if (!holdsSum || (i != SetChecksumAt && i != SetChecksumAt + 1)) sum = AddByte(sum, slot[i]);
  }
  return sum;
}

std::uint16_t NameHash(TStringView name, TStringView upCase) {
  std::uint16_t hash = 0;
  for (const char16_t unit : name) {
    const char16_t upper = unit < upCase.size() ? upCase[unit] : unit;
    hash = AddByte(hash, static_cast<std::uint8_t>(upper & 0xFF));
    hash = AddByte(hash, static_cast<std::uint8_t>(upper >> 8));
  }
  return hash;
}

TTimeStamp EntryTimes(std::span<const std::uint8_t> slot) {
  TTimeStamp times;
  times.dtCreated = TimeOf(ReadLe32(slot, CreatedAt), slot[Created10msAt], slot[CreatedZoneAt]);
  times.dtModified = TimeOf(ReadLe32(slot, ModifiedAt), slot[Modified10msAt], slot[ModifiedZoneAt]);
  times.dtAccessed = TimeOf(ReadLe32(slot, AccessedAt), 0, slot[AccessedZoneAt]);
  return times;
}

bool IsDirectorySector(std::span<const std::uint8_t> sector, std::int64_t lastCluster) {
  bool any = false;
  for (std::size_t at = 0; at + EntrySize <= sector.size(); at += EntrySize) {
    const auto slot = sector.subspan(at, EntrySize);
    if (slot[0] == 0) return any && IsAllZero(sector.subspan(at));
    const std::uint8_t type = TypeOf(slot);
    const bool plausible = type == FileEntry     ? IsPlausibleFile(slot)
                           : type == StreamEntry ? IsPlausibleStream(slot, lastCluster)
                           : type == NameEntry   ? IsPlausibleName(slot)
                                                 : IsKnownType(type);
    if (!plausible) return false;
    any = any || type == FileEntry || type == StreamEntry || type == NameEntry;
  }
  return any;
}

bool IsRootForm(std::span<const std::uint8_t> sector) {
  constexpr std::size_t mostSlots = 6;
  if (sector.size() < 3 * EntrySize) return false;
  const auto isTable = [&](std::size_t at) { return sector[at] == BitmapEntry || sector[at] == UpCaseEntry; };
  if (TypeOf(sector) == LabelEntry && isTable(EntrySize) && isTable(2 * EntrySize)) return true;
  bool hasBitmap = false;
  for (std::size_t at = 0; at < mostSlots * EntrySize && at + EntrySize <= sector.size(); at += EntrySize) {
    const auto slot = sector.subspan(at, EntrySize);
    const bool placed = ReadLe32(slot, FirstClusterAt) >= 2 && ReadLe64(slot, DataLengthAt) != 0;
    if (!IsKnownType(slot[0])) return false;
    if (slot[0] == BitmapEntry && placed && IsAllZero(slot.subspan(2, 18))) hasBitmap = true;
    if (slot[0] == UpCaseEntry && placed && IsAllZero(slot.subspan(1, 3))) return hasBitmap;
  }
  return false;
}

bool TSetParser::Continues(std::span<const std::uint8_t> slot) const {
  if (!FBegun || (slot[0] & Secondary) == 0) return false;
  const std::uint8_t type = TypeOf(slot);
  if (type == StreamEntry) return FSet.HasFile && !FSet.HasStream;
  if (type == NameEntry) return FSet.HasStream ? FNameLeft > 0 : !FSet.HasFile && !FNameEnded && FSlots < MaxNameSlots;
  return FSet.HasStream && FSet.HasFile && FSlots <= FSecondaries;
}

void TSetParser::Add(std::span<const std::uint8_t> slot) {
  const std::uint8_t type = TypeOf(slot);
  if (type == StreamEntry) TakeStream(slot);
  if (type == NameEntry) TakeName(slot);
  FSum = SetChecksum(FSum, slot);
  ++FSlots;
}

void TSetParser::Begin(std::span<const std::uint8_t> slot, std::int64_t position) {
  const std::uint8_t type = TypeOf(slot);
  FBegun = type == FileEntry || type == StreamEntry || type == NameEntry;
  if (!FBegun) return;
  FSet = {};
  FSet.Position = position;
  FSet.WasInUse = (slot[0] & InUse) != 0;
  TFiles::ClearInfo(FInfo, -1);
  FInfo.blnFolder = false;
  FInfo.blnDeleted = (slot[0] & InUse) == 0;
  FName.clear();
  FSum = 0;
  FSlots = FSecondaries = FNameLeft = 0;
  FNameEnded = false;
  if (type == FileEntry) TakeFile(slot);
  if (type == StreamEntry) TakeStream(slot);
  if (type == NameEntry) TakeName(slot);
  FSum = SetChecksum(FSum, slot);
  ++FSlots;
}

void TSetParser::TakeFile(std::span<const std::uint8_t> slot) {
  FSet.HasFile = true;
  FSecondaries = slot[SecondaryCountAt];
  FStoredSum = ReadLe16(slot, SetChecksumAt);
  const std::uint16_t attributes = ReadLe16(slot, AttributesAt);
  FInfo.blnFolder = (attributes & AttrFolder) != 0;
  FInfo.Atributes.blnReadOnly = (attributes & AttrReadOnly) != 0;
  FInfo.Atributes.blnHidden = (attributes & AttrHidden) != 0;
  FInfo.Atributes.blnSystem = (attributes & AttrSystem) != 0;
  FInfo.Atributes.blnArchive = (attributes & AttrArchive) != 0;
  FInfo.TimeStamp = EntryTimes(slot);
}

void TSetParser::TakeStream(std::span<const std::uint8_t> slot) {
  FSet.HasStream = true;
  FSet.NameHash = ReadLe16(slot, NameHashAt);
  FNameLeft = slot[NameLengthAt];
  FInfo.FirstCluster = ReadLe32(slot, FirstClusterAt);
  FInfo.aSize = FInfo.DefaultSize =
      static_cast<std::int64_t>(std::min<std::uint64_t>(ReadLe64(slot, DataLengthAt), INT64_MAX));
  FInfo.blnFragmented = (slot[FlagsAt] & NoFATChain) == 0;
  FSet.ValidLength = static_cast<std::int64_t>(std::min<std::uint64_t>(ReadLe64(slot, ValidLengthAt), INT64_MAX));
}

void TSetParser::TakeName(std::span<const std::uint8_t> slot) {
  const int most = FSet.HasStream ? std::min<int>(FNameLeft, UnitsPerName) : static_cast<int>(UnitsPerName);
  for (int i = 0; i < most; ++i) {
    const char16_t unit = ReadLe16(slot, NameAt + 2 * static_cast<std::size_t>(i));
    FNameEnded = FNameEnded || unit == 0;
    if (!FNameEnded) FName += unit;
  }
  FNameLeft -= std::min(FNameLeft, most);
}

bool TSetParser::IsComplete() const {
  if (!FBegun) return false;
  if (!FSet.HasStream) return !FSet.HasFile && FNameEnded;
  return FNameLeft == 0 && (!FSet.HasFile || FSlots > FSecondaries);
}

bool TSetParser::IsCompletedBy(std::span<const std::uint8_t> bytes) const {
  TSetParser copy = *this;
  std::size_t at = 0;
  for (; at + EntrySize <= bytes.size() && !copy.IsComplete(); at += EntrySize) {
    if (!copy.Continues(bytes.subspan(at, EntrySize))) return false;
    copy.Add(bytes.subspan(at, EntrySize));
  }
  return copy.IsComplete() && copy.FSet.HasFile && copy.FSum == copy.FStoredSum;
}

bool TSetParser::Take(TFileInfo& info, TEntrySet& set) {
  if (!FBegun) return false;
  FBegun = false;
  if (!FSet.HasStream && FName.empty()) return false;
  FSet.NameIsWhole = FSet.HasStream && FNameLeft == 0 && !FName.empty();
  FSet.ChecksumFits = FSet.HasFile && FSlots == FSecondaries + 1 && FSum == FStoredSum;
  info = FInfo;
  info.strName = FName;
  set = FSet;
  return true;
}

}  // namespace brenlow::exfat

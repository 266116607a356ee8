// SPDX-License-Identifier: GPL-3.0-or-later
// Content of files and streams: resident, in clusters, sparse, compressed, over several records.
#include <algorithm>
#include <memory>

#include "core/drives.h"
#include "core/engine.h"
#include "core/extent_reader.h"
#include "core/lznt1.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr std::int64_t LargestUnit = 65536;  // bytes that the stream of one unit decompresses to
// A stream that is worth decompressing is never longer than its data, stored chunks and all.
constexpr std::int64_t LargestPackedUnit = LargestUnit + 2 * 16;
constexpr unsigned LargestUnitPower = 16;

std::int64_t ClusterCount(const TRuns& runs) { return runs.empty() ? 0 : runs.back().Vcn + runs.back().Count; }

/// The run that holds a cluster of a stream, or the first one after it.
TRuns::const_iterator RunOf(const TRuns& runs, std::int64_t vcn) {
  return std::upper_bound(runs.begin(), runs.end(), vcn,
                          [](std::int64_t v, const TRun& run) { return v < run.Vcn + run.Count; });
}

std::int64_t LcnOf(const TRuns& runs, std::int64_t vcn) {
  const auto run = RunOf(runs, vcn);
  return run == runs.end() || run->Lcn < 0 || vcn < run->Vcn ? -1 : run->Lcn + (vcn - run->Vcn);
}

/// Whether any of these clusters is one that no record found tells of.
bool HasMissing(const TRuns& runs, std::int64_t vcn, std::int64_t count) {
  for (auto run = RunOf(runs, vcn); run != runs.end() && run->Vcn < vcn + count; ++run) {
    if (run->Lcn == MissingLcn) return true;
  }
  return false;
}

/// Part of a run: `count` clusters from the one `skip` clusters after its first.
TExtent ExtentOf(const TRun& run, std::int64_t skip, std::int64_t count, std::int64_t clusterBytes) {
  TExtent extent;
  extent.Length = std::min(count, TExtents::MaxLength / clusterBytes) * clusterBytes;
  if (run.Lcn >= 0) {
    extent.Place = PlaceOfCluster(run.Lcn + skip, clusterBytes);
  } else {
    extent.Kind = run.Lcn == MissingLcn ? TExtentKind::Lost : TExtentKind::Zeros;
  }
  return extent;
}

void AddRuns(TExtents& extents, const TRuns& runs, std::int64_t clusterBytes) {
  for (const TRun& run : runs) extents.Add(ExtentOf(run, 0, run.Count, clusterBytes));
}

/// The runs of a stream that is stored in units, some of them compressed.
struct TUnits {
  TRuns Runs;
  std::int64_t UnitClusters = 1;
  std::int64_t ClusterBytes = 0;

  /// Clusters of the unit that begins at a cluster; the last one may be shorter.
  std::int64_t Length(std::int64_t first) const { return std::min(UnitClusters, ClusterCount(Runs) - first); }
  /// A unit whose first cluster is there and whose last one is not is compressed.
  bool IsPacked(std::int64_t first) const {
    return LcnOf(Runs, first) >= 0 && LcnOf(Runs, first + Length(first) - 1) < 0;
  }
  /// Clusters of a compressed unit that are there.
  std::int64_t Present(std::int64_t first) const {
    std::int64_t present = 1;
    while (present < Length(first) && LcnOf(Runs, first + present) >= 0) ++present;
    return present;
  }
};

/// The units of a stream one after the other: each stands at its number times its size, whatever became of the
/// others.
class TUnitSource final : public IExtentSource {
 public:
  explicit TUnitSource(std::shared_ptr<const TUnits> units) : FUnits(std::move(units)) {}
  void Rewind() override { FNext = FPlainEnd = 0; }

  bool Next(TExtent& extent) override {
    if (FNext >= ClusterCount(FUnits->Runs)) return false;
    if (FNext == FPlainEnd && FUnits->IsPacked(FNext)) {
      extent = PackedUnit();
      FNext = FPlainEnd = FNext + FUnits->Length(FNext);
      return true;
    }
    const auto run = RunOf(FUnits->Runs, FNext);
    const std::int64_t runEnd = run->Vcn + run->Count;
    // All units that lie in one run, or the unit that several runs share.
    if (FNext == FPlainEnd)
      FPlainEnd += std::max((runEnd - FNext) / FUnits->UnitClusters * FUnits->UnitClusters, FUnits->Length(FNext));
    const std::int64_t count = std::min(runEnd, FPlainEnd) - FNext;
    extent = ExtentOf(*run, FNext - run->Vcn, count, FUnits->ClusterBytes);
    FNext += count;
    return true;
  }

 private:
  TExtent PackedUnit() const {
    TExtent unit;
    unit.Length = FUnits->Length(FNext) * FUnits->ClusterBytes;
    if (HasMissing(FUnits->Runs, FNext, FUnits->Length(FNext))) {
      unit.Kind = TExtentKind::Lost;  // where its compressed stream ends is not known
      return unit;
    }
    unit.Kind = TExtentKind::Packed;
    unit.Place = PlaceOfCluster(LcnOf(FUnits->Runs, FNext), FUnits->ClusterBytes);
    unit.PackedBytes =
        static_cast<std::uint32_t>(std::min<std::int64_t>(FUnits->Present(FNext) * FUnits->ClusterBytes, UINT32_MAX));
    return unit;
  }

  std::shared_ptr<const TUnits> FUnits;
  std::int64_t FNext = 0;      // cluster
  std::int64_t FPlainEnd = 0;  // up to here units are known to be as they stand
};

/// The first bytes of a compressed unit. A chunk that cannot be had is zeros.
bool UnpackUnit(TEngine& engine, const TUnits& units, const TDriveInfo& drive, const TExtent& unit,
                std::span<std::uint8_t> head, int shift) {
  const std::int64_t first = unit.Offset / units.ClusterBytes;
  // More than a unit can come from is not even read.
  const std::int64_t useful = std::min(units.Present(first), CeilDiv(LargestPackedUnit, units.ClusterBytes));
  TByteDynArray packed(static_cast<std::size_t>(useful * units.ClusterBytes));
  std::vector<TBufferRange> lost;
  for (std::int64_t at = 0; at < useful;) {
    const auto run = RunOf(units.Runs, first + at);
    const std::int64_t count = std::min(run->Vcn + run->Count - first - at, useful - at);
    const auto begin = static_cast<std::size_t>(at * units.ClusterBytes);
    const auto piece = std::span(packed).subspan(begin, static_cast<std::size_t>(count * units.ClusterBytes));
    const std::size_t before = lost.size();
    engine.Content().ReadPlace(drive, PlaceOfCluster(LcnOf(units.Runs, first + at), units.ClusterBytes), piece, shift,
                               &lost);
    for (std::size_t i = before; i < lost.size(); ++i) lost[i] = {lost[i].First + begin, lost[i].End + begin};
    at += count;
  }
  const auto isUnreadable = [&](std::size_t from, std::size_t until) {
    return std::any_of(lost.begin(), lost.end(),
                       [&](const TBufferRange& l) { return l.First < until && from < l.End; });
  };
  const auto there = std::min<std::size_t>(head.size(), LargestUnit);
  const bool whole = SalvageLZNT1(packed, head.first(there), isUnreadable);
  std::fill(head.begin() + static_cast<std::ptrdiff_t>(there), head.end(), std::uint8_t{0});
  return whole && there == head.size();
}

TStringView TypeName(std::int64_t type) {
  switch (type) {
    case 0x10:
      return u"$STANDARD_INFORMATION";
    case 0x20:
      return u"$ATTRIBUTE_LIST";
    case 0x30:
      return u"$FILE_NAME";
    case 0x40:
      return u"$OBJECT_ID";
    case 0x50:
      return u"$SECURITY_DESCRIPTOR";
    case 0x60:
      return u"$VOLUME_NAME";
    case 0x70:
      return u"$VOLUME_INFORMATION";
    case 0x80:
      return u"$DATA";
    case 0x90:
      return u"$INDEX_ROOT";
    case 0xA0:
      return u"$INDEX_ALLOCATION";
    case 0xB0:
      return u"$\u0412\u0418\u0422\u041C\u0410\u0420";  // in Cyrillic letters that look like BITMAP; only shown
    case 0xC0:
      return u"$REPARSE_POINT";
    case 0xD0:
      return u"$EA_INFORMATION";
    case 0xE0:
      return u"$\u0415\u0410";  // the same for EA
    case 0x100:
      return u"$LOGGED_UTILITY_STREAM";
    default:
      return {};
  }
}

}  // namespace

// ---- records of a file ----------------------------------------------------------------------

/// The record of a row: where it was found, an image from the log, or by its number.
bool TNTFS::ReadRecordOf(const TDriveInfo& drive, const TFile& file, TByteDynArray& record, TMFTRecord& place) {
  const TFileInfo& info = file.FileInfo;
  const auto& images = NTFSInfo(drive).LogMFTs;
  if (info.FirstSector >= 0) {
    place = {info.FirstSector + drive.DefaultFirstSector - drive.FirstSector, info.OffsetInSector};
  } else if (info.JournalPosition > 0 && info.JournalPosition < static_cast<std::int64_t>(images.size())) {
    record = images[static_cast<std::size_t>(info.JournalPosition)];
    return true;
  } else if (!GetSectorByMFTNumber(drive, info.FirstCluster, place, true)) {
    return false;
  }
  return ReadRecord(drive, place, record);
}

/// Calls `callable(record, place, attribute)` for all attributes of a file, record by record in the
/// order of its attribute list, until it answers false.
template <typename TCallable>
void TNTFS::ForEachAttribute(const TDriveInfo& drive, const TFile& file, TCallable&& callable) {
  TByteDynArray base;
  TByteDynArray extension;
  TMFTRecord place;
  const TFileInfo& info = file.FileInfo;
  if (NTFSInfo(drive).MFTRecordSize < 1 || drive.BytesPerSector < 1) return;
  if (!ReadRecordOf(drive, file, base, place)) return;
  const std::int64_t number = info.FirstClusterInfo == TFirstClusterInfo::fciNormal ? info.FirstCluster : -1;
  TInt64DynArray records{info.FirstCluster};
  int foreign = 0;
  for (std::size_t i = 0; i < records.size() && i < MostListed && foreign < MostRecords; ++i) {
    if (i > 0) {
      const bool isThere = GetSectorByMFTNumber(drive, records[i], place, true) && ReadRecord(drive, place, extension);
      if (!isThere || !IsExtensionOf(base, number, extension)) {
        ++foreign;
        continue;
      }
    }
    for (TAttributeWalk walk(i > 0 ? extension : base); walk.Next();) {
      if (walk->Type() == AttrAttributeList) AddListedRecords(ReadAttributeList(drive, *walk), records);
      if (!callable(place, *walk)) return;
    }
  }
}

// ---- content --------------------------------------------------------------------------------

/// What the records of a file tell of one of its streams.
struct TNTFS::TStream {
  struct TPiece {
    std::int64_t FirstVcn = 0;
    TRuns Runs;
  };
  bool Found = false;  ///< the record in which it starts
  bool Resident = false;
  std::uint32_t Type = 0;
  TString Name;
  TByteDynArray Value;         ///< of a resident stream
  std::int64_t Size = 0;       ///< bytes, as the first piece states it
  std::int64_t ValidSize = 0;  ///< bytes; what lies after it was never written and reads as zeros
  bool Compressed = false;
  unsigned UnitPower = 0;
  std::vector<TPiece> Pieces;

  void TakeUnit(const TAttribute& attribute) {
    Compressed = attribute.Compressed() && attribute.CompressionUnit() > 0;
    UnitPower = std::min(attribute.CompressionUnit(), LargestUnitPower);
  }
  void TakeStart(const TAttribute& attribute) {
    Found = true;
    Type = attribute.Type();
    Name = attribute.Name();
    Resident = !attribute.NonResident();
    Size = Resident ? attribute.ValueLength() : attribute.RealSize();
    ValidSize = attribute.ValidSize();
    TakeUnit(attribute);
    const auto value = attribute.Value();
    Value.assign(value.begin(), value.end());
  }
};

/// Gathers a stream from all records of the file: the default one, or that of a number of `FillADS`.
TNTFS::TStream TNTFS::GatherStream(const TDriveInfo& drive, const TFile& file, int adsNumber) {
  TStream stream;
  int number = -1;
  const std::int64_t clusters = VolumeClusters(drive);
  ForEachAttribute(drive, file, [&](const TMFTRecord&, const TAttribute& attribute) {
    const bool starts = !attribute.NonResident() || attribute.FirstVcn() == 0;
    if (attribute.Type() != 0 && starts) ++number;
    bool wanted = adsNumber < 0 && attribute.Type() == AttrData && attribute.IsDefaultDataStream();
    if (adsNumber >= 0) {
      const bool goesOn = stream.Found && attribute.Type() == stream.Type && attribute.Name() == stream.Name;
      wanted = number == adsNumber && (starts || goesOn);
    }
    if (!wanted) return true;
    if (!stream.Found) starts ? stream.TakeStart(attribute) : stream.TakeUnit(attribute);
    if (attribute.NonResident()) stream.Pieces.push_back({attribute.FirstVcn(), attribute.Runs(clusters)});
    return true;
  });
  return stream;
}

/// The runs of all pieces, in the order of their first clusters.
TRuns TNTFS::JoinPieces(TStream& stream, std::int64_t volumeClusters) {
  TRuns runs;
  std::stable_sort(stream.Pieces.begin(), stream.Pieces.end(),
                   [](const auto& a, const auto& b) { return a.FirstVcn < b.FirstVcn; });
  for (const TStream::TPiece& piece : stream.Pieces) {
    const std::int64_t end = ClusterCount(runs);
    if (stream.Resident || piece.FirstVcn < end) continue;
    // A piece that is missing leaves a gap, as long as that is a length that a volume can have.
    if (piece.FirstVcn - end > volumeClusters) break;
    if (piece.FirstVcn > end) runs.push_back({end, MissingLcn, piece.FirstVcn - end});
    for (TRun run : piece.Runs) {
      if (run.Count > INT64_MAX / 2 - piece.FirstVcn - run.Vcn) break;
      run.Vcn += piece.FirstVcn;
      runs.push_back(run);
    }
  }
  return runs;
}

bool TNTFS::MapStream(const TDriveInfo& drive, const TFile& file, int adsNumber, TFileStream& result) {
  const std::uint64_t failedReads = FEngine.Reader().FailedReads();
  TStream stream = GatherStream(drive, file, adsNumber);
  if (!stream.Found) {
    if (stream.Pieces.empty() || adsNumber >= 0) return false;
    // The record with the start is gone: what the others tell still has its place.
    stream.Size = stream.ValidSize = file.FileInfo.DefaultSize;
  }
  result.Size = adsNumber < 0 ? file.FileInfo.DefaultSize : stream.Size;
  result.UnitBytes = ClusterBytes(drive);
  result.VolumeBytes = VolumeEnd(drive);
  if (stream.Resident) {
    result.InlineDamaged = FEngine.Reader().FailedReads() != failedReads;
    result.Inline = std::move(stream.Value);
    result.Extents.Add({.Length = static_cast<std::int64_t>(result.Inline.size()), .Kind = TExtentKind::Inline});
    return true;
  }
  if (result.UnitBytes < 1) return false;
  TRuns runs = JoinPieces(stream, VolumeClusters(drive));
  if (stream.Compressed) {
    const auto units =
        std::make_shared<TUnits>(TUnits{std::move(runs), std::int64_t{1} << stream.UnitPower, result.UnitBytes});
    result.Extents.SetSource(std::make_unique<TUnitSource>(units));
    result.Unpack = [&engine = FEngine, units](const TDriveInfo& of, const TExtent& unit, std::span<std::uint8_t> head,
                                               int shift) { return UnpackUnit(engine, *units, of, unit, head, shift); };
    return true;
  }
  AddRuns(result.Extents, runs, result.UnitBytes);
  result.Unreadable = TUnreadableRule::RepeatUnitBefore;
  if (stream.ValidSize >= 0 && stream.ValidSize < stream.Size) result.ValidSize = stream.ValidSize;
  return true;
}

void TNTFS::GetFileData(const TDriveInfo& drive, TByteDynArray& result, const TFile& file, int adsNumber,
                        std::int64_t start, std::int64_t size, int incDataSector) {
  const auto stream = FEngine.Content().Open(
      drive, file.FileInfo, adsNumber, [&](TFileStream& made) { return MapStream(drive, file, adsNumber, made); });
  if (!stream) return result.clear();
  FEngine.Content().Read(drive, *stream, start, size, result, incDataSector);
}

void TNTFS::ClearMemory() { FEngine.Content().Forget(); }

// ---- what a file consists of ----------------------------------------------------------------

void TNTFS::FillADS(const TFile& file, TADSDynArray& result) {
  result.clear();
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(file.FileInfo.aDriveNumber)) return;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(file.FileInfo.aDriveNumber)];
  ForEachAttribute(drive, file, [&](const TMFTRecord&, const TAttribute& attribute) {
    if (attribute.Type() == 0 || (attribute.NonResident() && attribute.FirstVcn() != 0)) return true;
    TADS ads;
    ads.aType = attribute.Type();
    ads.sType = TypeName(ads.aType);
    ads.Name = attribute.Name();
    const bool isData = attribute.Type() == AttrData;
    const bool isDefault = isData && attribute.IsDefaultDataStream();
    ads.aSize = attribute.NonResident() ? attribute.RealSize() : attribute.ValueLength();
    if (isDefault) ads.aSize = file.FileInfo.DefaultSize;
    ads.IsSystem = !isData || isDefault;
    result.push_back(std::move(ads));
    return true;
  });
}

/// The clusters of all streams, one after the other, or of the attribute with a number in the walk; `inRecord` is
/// called with the record of each that lies in one.
template <typename TCallable>
TFileStream TNTFS::LayoutOf(const TDriveInfo& drive, const TFile& file, int attributeNumber, TCallable&& inRecord) {
  TFileStream layout;
  layout.Size = file.FileInfo.aSize;
  const std::int64_t clusters = VolumeClusters(drive);
  int number = -1;
  ForEachAttribute(drive, file, [&](const TMFTRecord& place, const TAttribute& attribute) {
    ++number;
    if (attribute.Type() != AttrData || (attributeNumber >= 0 && attributeNumber != number)) return true;
    if (attribute.NonResident()) AddRuns(layout.Extents, attribute.Runs(clusters), ClusterBytes(drive));
    inRecord(!attribute.NonResident(), place);
    return true;
  });
  return layout;
}

void TNTFS::GetFileFragments(const TFile& file, TFileFragments& result, bool& resident, int adsNumber) {
  result.clear();
  resident = true;
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(file.FileInfo.aDriveNumber)) return;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(file.FileInfo.aDriveNumber)];
  if (ClusterBytes(drive) < 1) return;
  TFileStream layout = LayoutOf(drive, file, adsNumber, [&](bool inRecord, const TMFTRecord& place) {
    resident = inRecord;
    if (inRecord) result.push_back({place.Sector, 0, 1});
  });
  const TFileFragments fragments = FragmentsOf(drive, layout);
  result.insert(result.end(), fragments.begin(), fragments.end());
}

bool TNTFS::ClaimedClusters(const TDriveInfo& drive, const TFile& file, TClaim& claim) {
  const TFileInfo& info = file.FileInfo;
  const std::int64_t volume = VolumeClusters(drive);
  if (info.FirstCluster < 0 && info.FirstSector < 0 && info.JournalPosition <= 0) return false;
  ForEachAttribute(drive, file, [&](const TMFTRecord&, const TAttribute& attribute) {
    if (!attribute.NonResident()) return true;
    const bool isContent = !info.blnFolder && attribute.Type() == AttrData && attribute.IsDefaultDataStream();
    for (const TRun& run : attribute.Runs(volume)) {
      if (run.Lcn >= 0) (isContent ? claim.Content : claim.Others).push_back({run.Lcn, run.Count});
    }
    return true;
  });
  return !claim.Content.empty() || !claim.Others.empty();
}

std::int64_t TNTFS::GetSizeOnDisk(const TFile& file) {
  const TDrives& drives = FEngine.Drives();
  if (drives.IsWrongNumber(file.FileInfo.aDriveNumber)) return 0;
  const TDriveInfo& drive = drives.List[static_cast<std::size_t>(file.FileInfo.aDriveNumber)];
  if (ClusterBytes(drive) < 1) return 0;
  TFileStream layout = LayoutOf(drive, file, -1, [](bool, const TMFTRecord&) {});
  return std::min(StoredBytes(layout), VolumeClusters(drive) * ClusterBytes(drive));
}

}  // namespace brenlow

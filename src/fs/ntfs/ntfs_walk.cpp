// SPDX-License-Identifier: GPL-3.0-or-later
// The walk over the table of file records: names, links, times, sizes and state of every file.
#include <algorithm>
#include <array>
#include <cstring>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"
#include "fs/ntfs/ntfs_folder_names.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr std::int64_t ChunkSectors = 256;
constexpr std::int64_t ProgressStep = 256;  // records between two reports
constexpr std::size_t NameText = 0x42;      // of a $FILE_NAME value
constexpr std::size_t MostIndexes = 1 << 20;

int NamePriority(unsigned space) {
  constexpr int priorities[] = {2, 4, 1, 3};  // POSIX, Win32, DOS, Win32 and DOS
  return space < std::size(priorities) ? priorities[space] : 0;
}

TAtributes AttributesOf(std::uint32_t bits) {
  TAtributes attributes;
  attributes.blnReadOnly = (bits & 1) != 0;
  attributes.blnHidden = (bits & 2) != 0;
  attributes.blnSystem = (bits & 4) != 0;
  attributes.blnArchive = (bits & 0x20) != 0;
  attributes.blnCompressed = (bits & 0x800) != 0;
  attributes.blnEncrypted = (bits & 0x4000) != 0;
  return attributes;
}

/// Sizes on disk are signed for whoever adds them up: a negative one is damage.
std::int64_t Sane(std::int64_t size) { return std::max<std::int64_t>(size, 0); }

}  // namespace

int TNTFS::SystemFileNumber(TStringView name) {
  constexpr TStringView names[] = {u"$MFT",    u"$MFTMirr", u"$LogFile", u"$Volume", u"$AttrDef", u".",
                                   u"$Bitmap", u"$Boot",    u"$BadClus", u"$Secure", u"$Upcase",  u"$Extend"};
  const auto found = std::find(std::begin(names), std::end(names), name);
  return found == std::end(names) ? -1 : static_cast<int>(found - std::begin(names));
}

bool TNTFS::IsMFTDeleted(const TDriveInfo& drive, std::int64_t mftNumber, bool otherwise) const {
  const TByteDynArray& usage = NTFSInfo(drive).MFTUsage;
  if (mftNumber < 0 || mftNumber / 8 >= static_cast<std::int64_t>(usage.size())) return otherwise;
  const auto& unknown = NTFSInfo(drive).MFTUsageUnknown;
  const auto range = std::upper_bound(unknown.begin(), unknown.end(), mftNumber / 8,
                                      [](std::int64_t byte, const TByteRange& r) { return byte < r.End; });
  if (range != unknown.end() && mftNumber / 8 >= range->First) return otherwise;
  return (usage[static_cast<std::size_t>(mftNumber / 8)] >> (mftNumber % 8) & 1) == 0;
}

// ---- one record -----------------------------------------------------------------------------

/// Parses a record and its extension records to names and a common row. False when the record
/// yields nothing.
bool TNTFS::AnalyseMFTRecord(TDriveInfo& drive, std::span<const std::uint8_t> buffer, std::size_t start,
                             bool canCheckForAnalysing, TParsed& parsed, std::int64_t mftNumber,
                             std::int64_t sectorNumber, int offsetInSector, bool rootDirFastScan) {
  parsed.Names.clear();
  parsed.HaveMainRecord = false;
  parsed.HaveData = false;
  parsed.ListedClusters = 0;
  TFiles::ClearInfo(parsed.Info, parsed.Info.aDriveNumber);
  if (!ntfs::IsMFT(buffer, start)) return false;
  const std::size_t size = std::min(static_cast<std::size_t>(NTFSInfo(drive).MFTRecordSize), buffer.size() - start);
  FRecord.assign(buffer.begin() + static_cast<std::ptrdiff_t>(start),
                 buffer.begin() + static_cast<std::ptrdiff_t>(start + size));
  // A record met by a search may go on after the block that was read.
  const bool cut = size < static_cast<std::size_t>(NTFSInfo(drive).MFTRecordSize) && mftNumber < 0 && sectorNumber >= 0;
  if (!cut || !ReadRecord(drive, {sectorNumber, offsetInSector, 0, 0}, FRecord)) ApplyFixups(FRecord);
  const unsigned flags = FRecord.size() > 0x16 ? FRecord[0x16] : 0;
  if ((flags & 2) != 0) FindFolderNames(UnusedPart(FRecord), NTFSInfo(drive).LostFolderNames);
  parsed.Info.blnFolder = (flags & 2) != 0;
  parsed.Info.blnDeleted = (flags & 1) == 0;
  parsed.Info.FirstCluster = mftNumber;
  if (mftNumber < 0) {
    parsed.Info.FirstSector = sectorNumber;
    parsed.Info.OffsetInSector = offsetInSector;
  }
  parsed.Use = ReadRecordUse(FRecord);
  parsed.HaveMainRecord = ReadLe64(FRecord, 0x20) != 0;
  if (parsed.HaveMainRecord) return true;

  FRecords.assign(1, mftNumber);
  if (!ParseAttributes(drive, FRecord, parsed, FRecords, mftNumber, rootDirFastScan, canCheckForAnalysing)) {
    return false;
  }
  int foreign = 0;
  for (std::size_t i = 1; i < FRecords.size() && i < MostListed && foreign < MostRecords; ++i) {
    TMFTRecord place;
    const bool isThere = GetSectorByMFTNumber(drive, FRecords[i], place, false) && ReadRecord(drive, place, FExtension);
    if (!isThere || !IsExtensionOf(FRecord, mftNumber, FExtension)) {
      ++foreign;
      continue;
    }
    if (!ParseAttributes(drive, FExtension, parsed, FRecords, mftNumber, rootDirFastScan, canCheckForAnalysing)) {
      return false;
    }
  }
  // The record that holds the start of the content is gone: its size is at least what the list tells.
  if (parsed.ListedClusters > 0 && !parsed.HaveData) {
    TFileInfo& info = parsed.Info;
    info.Place = TPlaceSource::Estimated;
    const std::int64_t clusters = std::min(parsed.ListedClusters, std::max<std::int64_t>(VolumeClusters(drive), 1));
    info.aSize = info.DefaultSize = std::max(info.aSize, clusters * std::max<std::int64_t>(ClusterBytes(drive), 1));
  }
  return true;
}

/// False abandons the file.
bool TNTFS::ParseAttributes(TDriveInfo& drive, std::span<const std::uint8_t> record, TParsed& parsed,
                            TInt64DynArray& records, std::int64_t mftNumber, bool rootDirFastScan,
                            bool canCheckForAnalysing) {
  TFileInfo& info = parsed.Info;
  for (TAttributeWalk walk(record); walk.Next();) {
    if (canCheckForAnalysing && !FEngine.Analysing) return false;
    switch (walk->Type()) {
      case AttrStandardInformation: {
        if (rootDirFastScan) break;
        const auto value = walk->Value();
        info.TimeStamp.dtCreated = FromFileTime(ReadLe64(value, 0));
        info.TimeStamp.dtModified = FromFileTime(ReadLe64(value, 8));
        info.TimeStamp.dtAccessed = FromFileTime(ReadLe64(value, 0x18));
        info.Atributes = AttributesOf(ReadLe32(value, 0x20));
        break;
      }
      case AttrAttributeList:
        if (!rootDirFastScan) {
          const TByteDynArray list = ReadAttributeList(drive, *walk);
          AddListedRecords(list, records);
          parsed.ListedClusters = std::max(parsed.ListedClusters, ListedDataClusters(list));
        }
        break;
      case AttrFileName:
        if (!walk->NonResident() && !AddName(walk->Value(), parsed, rootDirFastScan)) return false;
        break;
      case AttrVolumeName:
        if (FEngine.PartRecRunning && walk->ValueLength() > 0) {
          parsed.VolumeName = ReadText(walk->Value(), 0, walk->Value().size() / 2);
        }
        break;
      case AttrData:
        if (!walk->IsDefaultDataStream()) break;
        ApplyDataAttribute(drive, *walk, info, mftNumber);
        if (!walk->NonResident() || walk->FirstVcn() == 0) parsed.HaveData = true;
        break;
      case AttrIndexRoot: {
        const auto value = walk->Value();
        if (!info.blnFolder || ReadLe32(value, 0) != AttrFileName) break;
        const std::size_t start = static_cast<std::size_t>(value.data() - record.data());
        DeriveMFTNumberFromIndex(drive, record, start + 0x10, start + value.size(), info);
        break;
      }
      case AttrIndexAllocation:
        if (info.blnFolder && mftNumber >= 0 && NTFSInfo(drive).SectorsPerCluster > 0 &&
            FIndexes.size() < MostIndexes) {
          for (const TRun& run : walk->Runs(VolumeClusters(drive))) {
            if (run.Lcn >= 0) FIndexes.push_back(run);
          }
        }
        break;
      default:
        break;
    }
  }
  return true;
}

/// False for a file that a look at the root folder only does not want.
bool TNTFS::AddName(std::span<const std::uint8_t> value, TParsed& parsed, bool rootDirFastScan) {
  if (value.size() < NameText) return true;
  const TReference parent = ReadFullReference(value, 0);
  if (rootDirFastScan && parent.Number != RootRecord) return false;
  TFileInfo& info = parsed.Info;
  for (const std::size_t field : {std::size_t{0x30}, std::size_t{0x28}}) {
    if (info.aSize == 0) info.aSize = Sane(static_cast<std::int64_t>(ReadLe64(value, field)));
  }
  info.DefaultSize = info.aSize;
  TString text = ReadText(value, NameText, value[0x40]);
  if (text.empty()) return true;
  const int priority = NamePriority(value[0x41]);
  const bool sameFolder = !parsed.Names.empty() && parsed.Names.back().Parent.Number == parent.Number;
  if (!sameFolder || parsed.Names.back().Priority == priority) {
    parsed.Names.push_back({parent, priority, std::move(text)});
  } else if (parsed.Names.back().Priority < priority) {
    parsed.Names.back() = {parent, priority, std::move(text)};
  }
  return true;
}

void TNTFS::ApplyDataAttribute(const TDriveInfo& drive, const TAttribute& data, TFileInfo& info,
                               std::int64_t mftNumber) {
  info.Atributes.blnCompressed = data.Compressed();
  info.Atributes.blnEncrypted = data.Encrypted();
  if (!data.NonResident()) {
    if (data.ValueLength() != 0) info.aSize = data.ValueLength();
    // The size of a name may be out of date; that of the content never is.
    if (data.ValueLength() == 0) info.aSize = 0;
    info.DefaultSize = info.aSize;
    return;
  }
  if (data.FirstVcn() == 0) info.aSize = Sane(data.RealSize());
  if (info.aSize == 0 && data.FirstVcn() == 0 && data.RealSize() < 0) info.aSize = Sane(data.AllocatedSize());
  info.DefaultSize = info.aSize;
  const int perCluster = NTFSInfo(drive).SectorsPerCluster;
  if (info.aSize <= 0 || perCluster < 1 || (mftNumber >= 0 && !info.blnDeleted)) return;
  if (data.FirstVcn() != 0) return;
  for (const TRun& run : data.Runs(drive.SectorsCount / perCluster)) {
    if (run.Lcn < 0) continue;
    info.DataStartingSector = run.Lcn * perCluster;
    break;
  }
}

/// Gives a folder found without a number its own, out of what its children say.
void TNTFS::DeriveMFTNumberFromIndex(const TDriveInfo& drive, std::span<const std::uint8_t> record, std::size_t header,
                                     std::size_t end, TFileInfo& info) {
  if (info.FirstCluster >= 0 || NTFSInfo(drive).MFTRecordSize < 1) return;
  std::size_t at = header + ReadLe32(record, header);
  end = std::min({end, header + ReadLe32(record, header + 8), record.size()});
  if (at >= record.size() || ReadLe32(record, at + 0x0C) >= 4) return;
  const std::int64_t numbers = drive.SectorsCount / std::max(NTFSInfo(drive).MFTRecordSize / drive.BytesPerSector, 1);
  for (int i = 0; i < MostEntries && at + 0x52 <= end; ++i) {
    const std::size_t length = record[at + 0x50];
    if (length != 0 && record[at + 0x51] != 2) {
      const TString name = ReadText(record, at + 0x52, length);
      if (name.find(u'\0') != TString::npos) return;
      const std::int64_t parent = ReadReference(record, at + 0x10);
      if (ReadLe16(record, at + 0x0A) != 0 && parent != 0 && parent < numbers) {
        info.FirstCluster = parent;
        return;
      }
    }
    const std::size_t step = ReadLe16(record, at + 8);
    if (step == 0) return;
    at += step;
  }
}

/// The parent that a row is shown under: what the system keeps in the root for itself has a folder
/// of its own.
std::int64_t TNTFS::MoveToSystemDataFolder(TStringView name, std::int64_t parent) {
  if (parent != RootRecord) return parent;
  const bool system = name.starts_with(u'$') && Extension(name).empty();
  return system ? SpecialCluster::NTFSSystemData : SpecialCluster::Root;
}

/// The folder that a reference means: the record number, or where the record is another one by now, or
/// was not met yet, a key of its own for this use of the number.
std::int64_t TNTFS::ParentKey(const TDriveInfo& drive, const TReference& parent) {
  // The root's record is never used for anything else.
  const bool known = parent.Number == RootRecord || NTFSInfo(drive).RecordUses.Agrees(parent);
  return known ? parent.Number : ReferenceKey(parent);
}

void TNTFS::AddRow(TDriveInfo& drive, int driveNumber, const TFileInfo& info, const TReference& parent,
                   bool canIncFoundCount) {
  std::int64_t folder = MoveToSystemDataFolder(info.strName, ParentKey(drive, parent));
  if (folder == SpecialCluster::NTFSSystemData) AddSystemDataFolder(drive, driveNumber);
  // A folder that says that it lies in itself.
  if (info.blnFolder && info.FirstCluster == folder) folder = SpecialCluster::LostAndFound;
  FEngine.Files().Add(info, folder, canIncFoundCount);
}

TFileInfo TNTFS::SystemDataFolder(int driveNumber, TString& name) const {
  TFileInfo folder;
  TFiles::ClearInfo(folder, driveNumber);
  folder.FirstCluster = SpecialCluster::NTFSSystemData;
  folder.Atributes.blnSystem = true;
  folder.TimeStamp = {Now(), Now(), Now(), 0};
  name = u"$" + FEngine.Language()[TText::SystemData];
  folder.strName = name;
  return folder;
}

void TNTFS::AddSystemDataFolder(TDriveInfo& drive, int driveNumber) {
  if (NTFSInfo(drive).SystemDataFolderAdded) return;
  NTFSInfo(drive).SystemDataFolderAdded = true;
  TString name;
  const TFileInfo folder = SystemDataFolder(driveNumber, name);
  FEngine.Files().Add(folder, SpecialCluster::Root, false);
}

/// A file with content, or a live folder, whose name is gone is listed by its number below "Lost and
/// found".
void TNTFS::NameNameless(TDriveInfo& drive, TParsed& parsed, std::int64_t mftNumber, std::int64_t sectorNumber) {
  constexpr std::int64_t headSize = 4096;  // bytes that tell a type
  const TFileInfo& info = parsed.Info;
  const bool worthListing = info.blnFolder ? !info.blnDeleted : parsed.HaveData && info.aSize > 0;
  if (!worthListing) return;
  const std::int64_t own = mftNumber >= 0 ? mftNumber : OwnNumber(FRecord);
  const TString number = NumberText(own >= 0 ? own : sectorNumber);
  TString name = FEngine.Language().Format(TText::LostFolder, {number});
  if (!info.blnFolder) {
    TFile file;
    file.FileInfo = info;
    TByteDynArray head;
    GetFileData(drive, head, file, -1, 0, headSize, 0);
    ClearMemory();
    name = FEngine.Language()[TText::FileType] + u" " + number + FEngine.Signatures().GetFileExtBySignature(head);
  }
  parsed.Names.push_back({{SpecialCluster::LostAndFound, 0}, 0, std::move(name)});
}

bool TNTFS::AnalyseRecord(std::span<const std::uint8_t> buffer, std::size_t start, int driveNumber,
                          std::int64_t mftNumber, std::int64_t sectorNumber, int offsetInSector,
                          bool canCheckNewDrive) {
  if (mftNumber >= 0 && ntfs::IsMFT(buffer, start)) {
    TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
    NTFSInfo(drive).RecordUses.Enter(mftNumber, ReadRecordUse(buffer.subspan(start)), true);
  }
  const auto parse = [&] {
    TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
    FParsed.Info.aDriveNumber = driveNumber;
    if (!AnalyseMFTRecord(drive, buffer, start, true, FParsed, mftNumber, sectorNumber, offsetInSector, false) ||
        FParsed.HaveMainRecord) {
      return false;
    }
    if (FParsed.Names.empty()) NameNameless(drive, FParsed, mftNumber, sectorNumber);
    return !FParsed.Names.empty();
  };
  if (!parse()) return false;
  if (FEngine.PartRecRunning && canCheckNewDrive) {
    const TString name = FParsed.Names.front().Text;
    const TNewDrive test = CheckNewDrive(buffer, start, driveNumber, sectorNumber, offsetInSector, name);
    if (test == TNewDrive::Taken) return true;
    // The records of the new volume went through the same buffers.
    if (test == TNewDrive::Analysed && !parse()) return false;
  }
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const std::int64_t ownNumber = mftNumber < 0 ? OwnNumber(FRecord) : -1;
  // Beside the table lies an earlier state of what is in it, or of an earlier use of its number.
  const bool isEarlier = mftNumber < 0 && IsNumberInTable(drive, ownNumber);
  const TReference itself{ownNumber, FParsed.Use.Sequence};
  for (const TName& name : FParsed.Names) {
    TFileInfo info = FParsed.Info;
    info.strName = name.Text;
    if (mftNumber < 0) EstimateMFTNumber(drive, info, name.Parent.Number, sectorNumber, ownNumber);
    if (mftNumber < 0) NTFSInfo(drive).RecordUses.Enter(info.FirstCluster, FParsed.Use, false);
    if (!info.blnDeleted) info.blnDeleted = IsMFTDeleted(drive, info.FirstCluster, false);
    if (mftNumber >= NTFSInfo(drive).MFTRecordCount) info.blnDeleted = true;  // of an earlier table
    if (mftNumber < 0 && IsNumberInTable(drive, info.FirstCluster)) info.blnDeleted = true;
    if (isEarlier && !NTFSInfo(drive).RecordUses.Agrees(itself)) info.FirstCluster = ReferenceKey(itself);
    if (info.FirstCluster < 0) {
      AddToUFCF(drive, info, name, FParsed.Use);
    } else if (info.FirstCluster != RootRecord) {
      AddRow(drive, driveNumber, info, name.Parent, true);
    }
  }
  return true;
}

// ---- the table ------------------------------------------------------------------------------

/// Calls `callable(chunk, start, number)` for each record of the table, in order, until it answers
/// false. Records are read in large pieces.
template <typename TCallable>
void TNTFS::ForEachRecord(TDriveInfo& drive, TCallable&& callable) {
  const std::vector<TMFTRun> runs = NTFSInfo(drive).MFTStructure;
  TByteDynArray single;
  const int recordSize = NTFSInfo(drive).MFTRecordSize;
  const int sectorSize = drive.BytesPerSector;
  TByteDynArray chunk(static_cast<std::size_t>(
      std::max<std::int64_t>(ChunkSectors * sectorSize, CeilDiv(recordSize, sectorSize) * sectorSize)));
  const auto chunkSectors = static_cast<std::int64_t>(chunk.size()) / sectorSize;
  for (const TMFTRun& run : runs) {
    if (run.FirstSector == 0) continue;
    if (run.TailSector > 0) {
      const TMFTRecord place{run.FirstSector, 0, run.HeadSectors, run.TailSector};
      // Its fix-ups are applied once more by the callee, which changes nothing.
      if (ReadRecord(drive, place, single) && !callable(std::span<const std::uint8_t>(single), 0, run.FirstNumber))
        return;
      continue;
    }
    std::int64_t loadedSector = -1;
    std::int64_t loadedBytes = 0;
    for (std::int64_t i = 0; i < run.Count; ++i) {
      const std::int64_t byte = i * recordSize;
      const std::int64_t sector = run.FirstSector + byte / sectorSize;
      std::int64_t at = loadedSector < 0 ? -1 : (sector - loadedSector) * sectorSize + byte % sectorSize;
      if (at < 0 || at + recordSize > loadedBytes) {
        const std::int64_t end = run.FirstSector + CeilDiv(run.Count * recordSize, sectorSize);
        std::int64_t wanted = std::min(chunkSectors, end - sector);
        loadedSector = sector;
        at = byte % sectorSize;
        const std::int64_t needed = CeilDiv(at + recordSize, sectorSize);
        wanted = std::max(wanted, needed);
        loadedBytes = FEngine.Reader().ReadDriveSectors(drive, chunk.data(), drive.FirstSector + sector, wanted);
        if (loadedBytes == 0 && wanted > needed) {
          // A bad place somewhere in the piece: this record alone.
          loadedBytes = FEngine.Reader().ReadDriveSectors(drive, chunk.data(), drive.FirstSector + sector, needed);
        }
        if (loadedBytes < needed * sectorSize) {
          // What of the record reads may name the file; the rest of it is zeros.
          const auto bytes = std::span(chunk).first(static_cast<std::size_t>(needed * sectorSize));
          std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
          const std::int64_t start = drive.FirstSector + sector;
          const bool any = FEngine.Reader().ReadWhatReads(drive, bytes, start, TReadEffort::Scan) > 0;
          loadedBytes = any ? needed * sectorSize : 0;
        }
      }
      if (at + recordSize > loadedBytes) {
        loadedSector = -1;
        if (sector > FEngine.Reader().DeviceSectors(drive)) break;
        continue;
      }
      const auto bytes = std::span<const std::uint8_t>(chunk).first(static_cast<std::size_t>(at + recordSize));
      if (!callable(bytes, static_cast<std::size_t>(at), run.FirstNumber + i)) return;
    }
  }
}

void TNTFS::AnalyseMFTRecords(int driveNumber, bool showProgress) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const double count = static_cast<double>(std::max<std::int64_t>(NTFSInfo(drive).MFTRecordCount, 1));
  if (showProgress) FEngine.AnalyseProgress(0);
  ForEachRecord(drive, [&](std::span<const std::uint8_t> chunk, std::size_t start, std::int64_t number) {
    AnalyseRecord(chunk, start, driveNumber, number, -1, 0, false);
    if (showProgress && number % ProgressStep == 0) FEngine.AnalyseProgress(static_cast<double>(number + 1) / count);
    FEngine.Pump();
    return FEngine.Analysing.load();
  });
  if (showProgress && FEngine.Analysing) FEngine.AnalyseProgress(1.0);
}

/// A quick format makes a short table where the old one began. What is left of the old one behind
/// it has the numbers that it would have in the new one, and says so itself (the number in the
/// record is of NTFS 3.1). Reading ends after 4096 places without such a record.
void TNTFS::AnalyseRecordsBehindTable(int driveNumber) {
  constexpr int mostMisses = 4096;
  constexpr std::int64_t recordsPerRead = 128;
  constexpr std::size_t ownNumber = 0x2C;
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const std::int64_t recordSize = NTFSInfo(drive).MFTRecordSize;
  if (recordSize < drive.BytesPerSector) return;
  const std::int64_t perRecord = recordSize / drive.BytesPerSector;
  TByteDynArray chunk(static_cast<std::size_t>(recordsPerRead * recordSize));
  int misses = 0;
  for (std::int64_t number = NTFSInfo(drive).MFTRecordCount; misses < mostMisses; number += recordsPerRead) {
    TMFTRecord place;
    if (!GetSectorByMFTNumber(drive, number, place, false)) return;
    const std::int64_t count = std::min(recordsPerRead, (drive.SectorsCount - place.Sector) / perRecord);
    const std::int64_t start = drive.FirstSector + place.Sector;
    if (count <= 0 || FEngine.Reader().ReadDriveSectors(drive, chunk.data(), start, count * perRecord) == 0) return;
    for (std::int64_t i = 0; i < count; ++i) {
      const auto at = static_cast<std::size_t>(i * recordSize);
      const auto bytes = std::span<const std::uint8_t>(chunk).subspan(at, static_cast<std::size_t>(recordSize));
      const bool known = ntfs::IsMFT(bytes, 0) && ReadLe32(bytes, ownNumber) == static_cast<std::uint64_t>(number + i);
      misses = known ? 0 : misses + 1;
      if (known) AnalyseRecord(bytes, 0, driveNumber, number + i, -1, 0, false);
      FEngine.Pump();
      if (!FEngine.Analysing) return;
    }
  }
}

void TNTFS::DoBeforeAnalyse(TDriveInfo& drive) {
  ClearMemory();
  FIndexes.clear();
  TNTFSInfo& info = NTFSInfo(drive);
  info.MFTStructure.clear();
  info.MFTRecordCount = 0;
  info.MFTUsage.clear();
  info.MFTUsageUnknown.clear();
  info.RecordUses.Clear();
  info.LostFolderNames.clear();
  info.LogMFTs.clear();
  info.PartRecMFTStructure.clear();
  info.UnknownFirstClusterFiles.clear();
  info.SystemDataFolderAdded = false;
  info.LastMFTNumber = -1;
}

void TNTFS::DoAfterAnalyse(TDriveInfo& drive) {
  SettleParents(drive);
  KeepFoldersOfLiveFiles(drive);
  AddLostFolders(drive);
  if (FEngine.PartRecRunning) {
    PartRecChangeVolumeName(drive);
    if (FEngine.Analysing) DropEstimatedFolderDuplicates(drive);
  }
  NTFSInfo(drive).PartRecMFTStructure.clear();
  NTFSInfo(drive).RecordUses.Clear();
  NTFSInfo(drive).LostFolderNames.clear();
  NTFSInfo(drive).SystemDataFolderAdded = false;
  NTFSInfo(drive).LastMFTNumber = -1;
}

void TNTFS::AnalyseSystem(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  drive.Analysed = TAnalyseInformation::aiPartial;
  DoBeforeAnalyse(drive);
  if (!GetDriveInfo(drive, true, false)) return;
  if (FEngine.Analysing) AnalyseMFTRecords(driveNumber, true);
  if (FEngine.Analysing) AnalyseRecordsBehindTable(driveNumber);
  SettleParents(drive);
  if (FEngine.Analysing) AnalyseLogFile(driveNumber);
  if (FEngine.Analysing) FindLostFolderNames(drive);
  DoAfterAnalyse(drive);
  if (FEngine.Analysing) drive.Analysed = TAnalyseInformation::aiFull;
}

void TNTFS::GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten) {
  DoBeforeAnalyse(drive);
  if (!GetDriveInfo(drive, false, false)) return;
  TParsed parsed;
  bool canBreak = false;
  const auto offer = [&] {
    if (onFilesGotten) onFilesGotten(drive, result, canBreak);
  };
  ForEachRecord(drive, [&](std::span<const std::uint8_t> chunk, std::size_t start, std::int64_t number) {
    FEngine.Pump();
    parsed.Info.aDriveNumber = -1;
    if (!AnalyseMFTRecord(drive, chunk, start, false, parsed, number, -1, 0, rootDirOnly) || parsed.HaveMainRecord)
      return true;
    for (const TName& name : parsed.Names) {
      if (name.Text == u".") continue;
      const std::int64_t parent = MoveToSystemDataFolder(name.Text, name.Parent.Number);
      if (parent == SpecialCluster::NTFSSystemData) {
        if (NTFSInfo(drive).SystemDataFolderAdded) continue;
        NTFSInfo(drive).SystemDataFolderAdded = true;
        TString caption;
        const TFileInfo folder = SystemDataFolder(-1, caption);
        result.Add(folder, SpecialCluster::Root);
        continue;
      }
      parsed.Info.strName = name.Text;
      result.Add(parsed.Info, parent);
    }
    offer();
    return !canBreak;
  });
}

}  // namespace brenlow

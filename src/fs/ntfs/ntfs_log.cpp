// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/ntfs/ntfs_log.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_set>

#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "core/text.h"
#include "fs/ntfs/ntfs.h"
#include "fs/ntfs/ntfs_folder_names.h"
#include "table/files.h"

namespace brenlow {

using namespace ntfs;

namespace {

constexpr std::size_t HeaderSize = 0x58;  // of a record with its client data's head
constexpr std::size_t ClientData = 0x30;
constexpr int MostTries = 65537;  // of positions in one chunk
constexpr int MostChunks = 2049;
constexpr std::size_t PagesPerChunk = 32;
constexpr std::uint32_t LargestPage = 1 << 20;  // bytes
constexpr std::int64_t LogRecord = 2;
constexpr std::uint16_t SetNewAttributeSizes = 0x0B;

bool StartsWith(std::span<const std::uint8_t> bytes, std::size_t at, const char* magic) {
  return at + 4 <= bytes.size() && std::memcmp(&bytes[at], magic, 4) == 0;
}

/// Redo and undo operation as the four bytes stand in the record.
bool IsKnownOperation(std::span<const std::uint8_t> record) {
  constexpr std::uint32_t known[] = {0x02000000, 0x05000600, 0x07000700, 0x09000900, 0x0B000B00};
  const std::uint32_t pair = ReadBe32(record, ClientData);
  return std::find(std::begin(known), std::end(known), pair) != std::end(known);
}

/// Copies `size` bytes from a position on, without the headers of the pages that follow. False
/// when the pages end before.
bool Gather(std::span<const std::uint8_t> pages, std::size_t position, std::size_t size, const TNTFSLogInfo& info,
            TByteDynArray& bytes) {
  bytes.clear();
  const std::size_t pageSize = info.PageSize;
  while (bytes.size() < size) {
    if (position >= pages.size()) return false;
    const std::size_t pageEnd = std::min((position / pageSize + 1) * pageSize, pages.size());
    const std::size_t count = std::min(size - bytes.size(), pageEnd - position);
    const auto from = pages.begin() + static_cast<std::ptrdiff_t>(position);
    bytes.insert(bytes.end(), from, from + static_cast<std::ptrdiff_t>(count));
    position = pageEnd + info.LogPageDataOffset;
  }
  return true;
}

void ApplyChange(TByteDynArray& image, const TNTFSLogRecord& change, int mftRecordSize) {
  const TByteDynArray& redo = change.RedoData;
  if (redo.empty()) return;
  const std::size_t attribute = change.RecordOffset;
  if (change.RedoOperation == SetNewAttributeSizes) {
    const bool fits = redo.size() == 0x18 && image.size() >= attribute + 0x40;
    if (!fits || ReadLe32(image, attribute) != AttrData) return;
    std::memcpy(&image[attribute + 0x28], redo.data(), 8);
    std::memcpy(&image[attribute + 0x30], &redo[0x10], 8);
    std::memcpy(&image[attribute + 0x38], &redo[0x10], 8);
    const std::uint64_t lastVcn = ReadLe64(redo, 0x10) / 0x1000;
    for (std::size_t i = 0; i < 8; ++i) image[attribute + 0x18 + i] = static_cast<std::uint8_t>(lastVcn >> (8 * i));
    return;
  }
  const std::size_t at = attribute + change.AttributeOffset;
  if (at >= static_cast<std::size_t>(mftRecordSize)) return;  // nothing of a record lies there
  if (image.size() < at) image.resize(at);
  const auto place = image.begin() + static_cast<std::ptrdiff_t>(at);
  const std::size_t replaced = std::min(redo.size(), image.size() - at);
  std::copy_n(redo.begin(), replaced, place);
  image.insert(image.end(), redo.begin() + static_cast<std::ptrdiff_t>(replaced), redo.end());
}

using TPlaceKey = std::pair<std::uint32_t, std::uint32_t>;  // target VCN and LCN
TPlaceKey KeyOf(const TNTFSLogRecord& record) { return {record.TargetVCN, record.TargetLCN}; }

/// Changes by place, and where a walk over them has to stop.
class TChangeIndex {
 public:
  explicit TChangeIndex(const std::vector<TNTFSLogRecord>& changes) : FChanges(changes), FBlockEnd(changes.size()) {
    for (std::size_t i = changes.size(); i-- > 0;) {
      const bool joins = i + 1 < changes.size() && changes[i + 1].ClusterBlockOffset == changes[i].ClusterBlockOffset;
      FBlockEnd[i] = joins ? FBlockEnd[i + 1] : i + 1;
      FByPlace[KeyOf(changes[i])].push_back(i);
    }
    for (auto& [key, indexes] : FByPlace) std::reverse(indexes.begin(), indexes.end());
  }
  /// First change at or behind a position of the log.
  std::size_t From(std::int64_t position) const {
    const auto at = std::lower_bound(FChanges.begin(), FChanges.end(), position,
                                     [](const TNTFSLogRecord& c, std::int64_t p) { return c.Position < p; });
    return static_cast<std::size_t>(at - FChanges.begin());
  }
  /// Applies those of `first` to `last` (not included) that concern the image, up to the first one
  /// with another cluster block offset.
  void Apply(std::size_t first, std::size_t last, TNTFSLogImage& image, std::int64_t& lastLsn,
             int mftRecordSize) const {
    if (first >= last || FChanges[first].ClusterBlockOffset != image.Record.ClusterBlockOffset) return;
    last = std::min(last, FBlockEnd[first]);
    const auto place = FByPlace.find(KeyOf(image.Record));
    if (place == FByPlace.end()) return;
    for (auto i = std::lower_bound(place->second.begin(), place->second.end(), first);
         i != place->second.end() && *i < last; ++i) {
      if (FChanges[*i].LSN <= lastLsn) continue;
      lastLsn = FChanges[*i].LSN;
      ApplyChange(image.Image, FChanges[*i], mftRecordSize);
    }
  }

 private:
  const std::vector<TNTFSLogRecord>& FChanges;
  std::vector<std::size_t> FBlockEnd;  // by change: the first behind it with another offset
  std::map<TPlaceKey, std::vector<std::size_t>> FByPlace;
};

/// Tells the children of folders apart by what a second row of the same file would share.
class TKnownChildren {
 public:
  explicit TKnownChildren(TEngine& engine) : FEngine(engine) {}
  /// False when the folder has such a child already.
  bool Enter(int drive, std::int64_t parent, const TFileInfo& info) {
    return Of(drive, parent).All.insert(KeyOfFile(info)).second;
  }
  /// True when a live child of that name is there.
  bool IsAlive(int drive, std::int64_t parent, const TFileInfo& info) {
    return Of(drive, parent).Live.contains(KeyOfName(info));
  }

 private:
  struct TChildren {
    std::unordered_set<TString> All;   // names, kinds and sizes
    std::unordered_set<TString> Live;  // names and kinds
  };
  TChildren& Of(int drive, std::int64_t parent) {
    const auto [entry, isNew] = FChildren.try_emplace(parent);
    TChildren& children = entry->second;
    if (!isNew) return children;
    for (const std::int64_t number : FEngine.Drives().GetParentClusters(drive, parent)) {
      const TFileInfo& info = FEngine.Files().List[static_cast<std::size_t>(number)].FileInfo;
      children.All.insert(KeyOfFile(info));
      if (!info.blnDeleted) children.Live.insert(KeyOfName(info));
    }
    return children;
  }
  static TString KeyOfName(const TFileInfo& info) { return TString(info.strName) + (info.blnFolder ? u'/' : u':'); }
  static TString KeyOfFile(const TFileInfo& info) { return KeyOfName(info) + NumberText(info.aSize); }
  TEngine& FEngine;
  std::map<std::int64_t, TChildren> FChildren;
};

/// Whether a record holds, or leads to, a byte of any stream.
bool HasContent(std::span<const std::uint8_t> record, std::int64_t volumeClusters) {
  for (TAttributeWalk walk(record); walk.Next();) {
    if (walk->Type() == AttrAttributeList) return true;
    if (walk->Type() != AttrData) continue;
    if (!walk->NonResident() && walk->ValueLength() > 0) return true;
    const TRuns runs = walk->Runs(volumeClusters);
    if (std::any_of(runs.begin(), runs.end(), [](const TRun& run) { return run.Lcn >= 0; })) return true;
  }
  return false;
}

}  // namespace

// ---- pages and records ----------------------------------------------------------------------

bool ntfs::ReadRestartPage(std::span<const std::uint8_t> pages, std::size_t start, TNTFSLogInfo& info) {
  if (!StartsWith(pages, start, "RSTR") && !StartsWith(pages, start, "CHKD")) return false;
  if (start + 0x1A > pages.size()) return false;
  const auto page = pages.subspan(start);
  const std::size_t area = ReadLe16(page, 0x18);
  const auto fileSize = static_cast<std::int64_t>(ReadLe64(page, area + 0x18));
  if (fileSize > 0) info.FileSize = fileSize;
  const std::uint32_t pageSize = ReadLe32(page, 0x14);
  if (pageSize != 0 && pageSize % 512 == 0 && pageSize <= LargestPage) info.PageSize = pageSize;
  const std::uint16_t dataOffset = ReadLe16(page, area + 0x26);
  if (dataOffset != 0 && dataOffset < info.PageSize && dataOffset % 8 == 0) info.LogPageDataOffset = dataOffset;
  return true;
}

void ntfs::FixLogPages(std::span<std::uint8_t> pages, std::uint32_t pageSize) {
  for (std::size_t start = 0; start + pageSize <= pages.size(); start += pageSize) {
    const auto page = pages.subspan(start, pageSize);
    const bool known = StartsWith(page, 0, "RSTR") || StartsWith(page, 0, "RCRD") || StartsWith(page, 0, "CHKD");
    const std::size_t sequence = ReadLe16(page, 4);
    const std::size_t count = ReadLe16(page, 6);
    if (!known || sequence == 0 || count < 2 || sequence + 2 * count >= pageSize) continue;
    if (ReadLe16(page, sequence) != 0) ApplyFixups(page);
  }
}

TLogParse ntfs::ParseLogRecord(std::span<const std::uint8_t> pages, std::size_t position, std::int64_t logPosition,
                               const TNTFSLogInfo& info, int mftRecordSize, TNTFSLogRecord& record) {
  // Nearly every position fails here, without a copy.
  if (position + HeaderSize <= pages.size() && position % info.PageSize + HeaderSize <= info.PageSize &&
      ReadLe32(pages, position + 0x20) != 1) {
    return TLogParse::Nothing;
  }
  TByteDynArray bytes;
  if (!Gather(pages, position, HeaderSize, info, bytes)) return TLogParse::NeedsMore;
  const std::uint64_t lsn = ReadLe64(bytes, 0);
  const std::uint64_t previous = ReadLe64(bytes, 8);
  const std::uint64_t undoNext = ReadLe64(bytes, 0x10);
  const std::size_t redoStart = ReadLe16(bytes, ClientData + 4) + ClientData;
  const std::size_t redoLength = ReadLe16(bytes, ClientData + 6);
  const std::uint64_t total = std::uint64_t{ReadLe32(bytes, 0x18)} + ClientData;
  const bool sound = ReadLe32(bytes, 0x20) == 1 && ReadNumber(bytes, true, 6, 0x2A) == 0 && redoStart == HeaderSize &&
                     ReadLe32(bytes, 0x4C) == 0 && ReadLe32(bytes, 0x54) == 0 && lsn != 0 && previous != 0 &&
                     undoNext != 0 && previous == undoNext &&
                     total <= static_cast<std::uint64_t>(mftRecordSize) + HeaderSize &&
                     redoStart + redoLength <= total && ReadLe32(bytes, 0x48) != 0 && ReadLe32(bytes, 0x50) != 0 &&
                     IsKnownOperation(bytes);
  if (!sound) return TLogParse::Nothing;
  if (!Gather(pages, position, static_cast<std::size_t>(total), info, bytes)) return TLogParse::NeedsMore;
  record.Position = logPosition + static_cast<std::int64_t>(position);
  record.Size = static_cast<int>(total);
  record.LSN = static_cast<std::int64_t>(lsn);
  record.RedoOperation = ReadLe16(bytes, 0x30);
  record.UndoOperation = ReadLe16(bytes, 0x32);
  record.RecordOffset = ReadLe16(bytes, 0x40);
  record.AttributeOffset = ReadLe16(bytes, 0x42);
  record.ClusterBlockOffset = ReadLe16(bytes, 0x44);
  record.TargetVCN = ReadLe32(bytes, 0x48);
  record.TargetLCN = ReadLe32(bytes, 0x50);
  const auto redo = bytes.begin() + static_cast<std::ptrdiff_t>(redoStart);
  record.RedoData.assign(redo, redo + static_cast<std::ptrdiff_t>(redoLength));
  return TLogParse::Record;
}

std::size_t ntfs::CollectLogRecords(std::span<const std::uint8_t> pages, std::size_t position, std::int64_t logPosition,
                                    const TNTFSLogInfo& info, int mftRecordSize, TNTFSLogContent& content) {
  TNTFSLogRecord record;
  for (int i = 0; i < MostTries && position < pages.size(); ++i) {
    const TLogParse result = ParseLogRecord(pages, position, logPosition, info, mftRecordSize, record);
    if (result == TLogParse::NeedsMore) break;
    if (result == TLogParse::Nothing) {
      position += 8;
      continue;
    }
    position += static_cast<std::size_t>(std::max(record.Size + 7, 8)) / 8 * 8;  // records begin at 8 bytes
    if (StartsWith(record.RedoData, 0, "FILE")) {
      TNTFSLogImage image;
      image.Image = record.RedoData;
      image.Record = std::move(record);
      content.Images.push_back(std::move(image));
    } else {
      content.Changes.push_back(std::move(record));
    }
    record = TNTFSLogRecord();
  }
  return position;
}

// ---- replay ---------------------------------------------------------------------------------

void ntfs::LinkLogImages(std::vector<TNTFSLogImage>& images) {
  std::map<TPlaceKey, std::vector<TNTFSLogImage*>> byPlace;
  for (TNTFSLogImage& image : images) byPlace[KeyOf(image.Record)].push_back(&image);
  for (auto& [key, group] : byPlace) {
    std::sort(group.begin(), group.end(),
              [](const TNTFSLogImage* a, const TNTFSLogImage* b) { return a->Record.Position < b->Record.Position; });
    for (std::size_t i = 0; i < group.size(); ++i) {
      const bool last = i + 1 == group.size();
      group[i]->EndPosition = !last ? group[i + 1]->Record.Position : group.size() > 1 ? group[0]->Record.Position : -1;
    }
  }
}

void ntfs::ApplyLogRecords(TNTFSLogContent& content, int mftRecordSize) {
  std::stable_sort(content.Changes.begin(), content.Changes.end(),
                   [](const TNTFSLogRecord& a, const TNTFSLogRecord& b) { return a.Position < b.Position; });
  const TChangeIndex index(content.Changes);
  for (TNTFSLogImage& image : content.Images) {
    std::int64_t lastLsn = image.Record.LSN;
    const std::int64_t position = image.Record.Position;
    const std::size_t end = image.EndPosition > position ? index.From(image.EndPosition) : content.Changes.size();
    index.Apply(index.From(position), end, image, lastLsn, mftRecordSize);
    if (image.EndPosition >= 0 && image.EndPosition < position) {
      index.Apply(0, index.From(image.EndPosition), image, lastLsn, mftRecordSize);
    }
  }
}

// ---- the volume's log -----------------------------------------------------------------------

/// Finds files that exist only as records in the log.
void TNTFS::AnalyseLogFile(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  NTFSInfo(drive).LogInfo = TNTFSLogInfo();
  TNTFSLogInfo& info = NTFSInfo(drive).LogInfo;
  TFile log;
  log.FileInfo.FirstCluster = LogRecord;
  log.FileInfo.aSize = log.FileInfo.DefaultSize = info.FileSize;
  TByteDynArray pages;
  GetFileData(drive, pages, log, -1, 0, 2 * std::int64_t{info.PageSize}, 0);
  FixLogPages(pages, info.PageSize);
  if (!ReadRestartPage(pages, 0, info) && !ReadRestartPage(pages, 0x1000, info)) return;
  log.FileInfo.aSize = log.FileInfo.DefaultSize = info.FileSize;

  const std::unordered_set<std::int64_t> wanted = LostFolders(drive);
  TNTFSLogContent content;
  const std::size_t chunkSize = PagesPerChunk * info.PageSize;
  std::int64_t start = 0;
  std::size_t position = 0;
  for (int i = 0; i < MostChunks && FEngine.Analysing; ++i) {
    GetFileData(drive, pages, log, -1, start, static_cast<std::int64_t>(chunkSize), 0);
    const bool last = pages.size() < chunkSize;
    FixLogPages(pages, info.PageSize);
    FindFolderNames(pages, wanted, NTFSInfo(drive).LostFolderNames);
    position = CollectLogRecords(pages, position, start, info, NTFSInfo(drive).MFTRecordSize, content);
    if (last || position < info.PageSize) break;
    start += static_cast<std::int64_t>(position / info.PageSize * info.PageSize);
    position = position % info.PageSize / 8 * 8;
    FEngine.Pump();
  }
  if (FEngine.Analysing) LinkLogImages(content.Images);
  if (FEngine.Analysing) ApplyLogRecords(content, NTFSInfo(drive).MFTRecordSize);
  if (FEngine.Analysing) AddLogFiles(driveNumber, content.Images);
}

void TNTFS::AddLogFiles(int driveNumber, std::vector<TNTFSLogImage>& images) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  TKnownChildren known(FEngine);
  const std::int64_t clusters = VolumeClusters(drive);
  for (TNTFSLogImage& image : images) {
    FParsed.Info.aDriveNumber = driveNumber;
    image.Image.resize(static_cast<std::size_t>(NTFSInfo(drive).MFTRecordSize));
    if (!AnalyseMFTRecord(drive, image.Image, 0, true, FParsed, -1, -1, 0, false)) continue;
    if (FParsed.HaveMainRecord || FParsed.Names.empty()) continue;
    TFileInfo& info = FParsed.Info;
    const TName& name = FParsed.Names.front();
    info.blnDeleted = true;
    info.strName = name.Text;
    ApplyFixups(image.Image);
    NoteFolderName({OwnNumber(image.Image), FParsed.Use.Sequence}, info, drive);
    const std::int64_t folder = MoveToSystemDataFolder(name.Text, ParentKey(drive, name.Parent));
    // A state of a file that is alive, without content that could be read, adds nothing to it.
    const bool readable = !NTFSInfo(drive).LogMFTs.empty() && !info.blnFolder && HasContent(image.Image, clusters);
    if (!readable && known.IsAlive(driveNumber, folder, info)) continue;
    if (!known.Enter(driveNumber, folder, info)) continue;
    // Position 0 means "none" to whoever reads: the first image is listed, but has no content.
    info.JournalPosition = static_cast<std::int64_t>(NTFSInfo(drive).LogMFTs.size());
    NTFSInfo(drive).LogMFTs.push_back(std::move(image.Image));
    AddRow(drive, driveNumber, info, name.Parent, true);
    FEngine.Pump();
    if (!FEngine.Analysing) return;
  }
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/deep/all_fs.h"

#include <algorithm>

#include "analysis/deep/icon.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/extents.h"
#include "core/language.h"
#include "core/numbers.h"
#include "core/sector_reader.h"
#include "core/text.h"
#include "table/files.h"

namespace brenlow {
namespace {

constexpr std::size_t ZeroTailSize = 16;          // bytes
constexpr std::int64_t LargestFile = 0x80000000;  // bytes; larger ones are cut there
constexpr std::size_t ZipEndRecordSize = 22;      // bytes, without a comment
constexpr std::int64_t FirstTypeFolder = -100;    // key of the folder of row 0; others lie below
constexpr std::size_t CompoundEntrySize = 128;    // bytes
constexpr std::uint8_t CompoundStream = 2;        // type of an entry
constexpr std::string_view ZipEndSignature = "504B0506";

/// The main streams of documents in compound files ([MS-DOC] 2.1, [MS-XLS] 2.1.2, [MS-PPT] 2.1;
/// "Book" is that of older worksheets).
constexpr struct {
  TStringView Stream;
  TStringView Ext;
} CompoundStreams[] = {
    {u"WordDocument", u".doc"}, {u"Workbook", u".xls"}, {u"Book", u".xls"}, {u"PowerPoint Document", u".ppt"}};

bool IsZeroTail(std::span<const std::uint8_t> bytes) {
  return (LoadLe64(bytes.data()) | LoadLe64(bytes.data() + 8)) == 0;
}

bool EndsWith(std::span<const std::uint8_t> bytes, const TSignatureCells& cells) {
  return bytes.size() >= cells.size() && MatchesCells(cells, bytes.last(cells.size()));
}

/// Whether a directory entry of a compound file ([MS-CFB] 2.6.1) is the stream of that name.
bool IsStream(std::span<const std::uint8_t> entry, TStringView name) {
  constexpr std::size_t lengthOffset = 64;
  if (ReadLe16(entry, lengthOffset) != 2 * (name.size() + 1)) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (ReadLe16(entry, 2 * i) != name[i]) return false;
  }
  return ReadLe16(entry, 2 * name.size()) == 0;
}

}  // namespace

TAllFS::TAllFS(TEngine& engine)
    : FEngine(engine),
      FHeaders(engine.Signatures().Signatures()),
      FPublishedHeaders(engine.Signatures().PublishedHeaders()),
      FZipEnd(ParseHexSignature(ZipEndSignature)),
      FIconRow(engine.Signatures().FirstRowOf(u".ico")) {
  for (const TFileSignature& row : engine.Signatures().Signatures()) {
    FSearches.push_back(SearchesFor(engine.Signatures(), row));
  }
}

TAllFS::TSearches TAllFS::SearchesFor(const TFileSignatures& signatures, const TFileSignature& row) {
  TSearches searches;
  TSignatureCells prefix;
  for (const TFileSubSignature& sub : row.SubSignatures) {
    if (sub.Pattern.empty()) continue;
    if (searches.Subs.empty()) prefix = sub.Pattern;
    prefix.erase(std::mismatch(prefix.begin(), prefix.end(), sub.Pattern.begin(), sub.Pattern.end()).first,
                 prefix.end());
    searches.Subs.push_back({TPatternSearch(sub.Pattern), signatures.FirstRowOf(u"." + sub.Ext)});
  }
  if (prefix.size() >= TPatternSearch::ShortestPattern) searches.SubsPrefix.emplace(prefix);
  if (!row.Footer.empty()) searches.Footer.emplace(row.Footer);
  searches.HalfFileMarkers = row.HalfFileMarkers;
  searches.EndsAtZeroTail = row.EndsAtZeroTail;
  searches.EndsInZipRecord = row.Ext == u".odp" || row.Ext == u".ods" || row.Ext == u".odt";
  searches.IsCompound = row.Ext == u".doc";
  return searches;
}

const TFileSignature& TAllFS::Row(int number) const {
  return FEngine.Signatures().Signatures()[static_cast<std::size_t>(number)];
}

const TAllFS::TSearches& TAllFS::OpenSearches() const {
  return FSearches[static_cast<std::size_t>(DeepAnalyseInfo.PredNumberSignature)];
}

/// Bytes of the open file that lie before a sector.
std::int64_t TAllFS::BytesBefore(std::int64_t sector) const {
  return (sector - DeepAnalyseInfo.aFileInfo.FirstCluster) * FBytesPerSector;
}

// ---- the scan -------------------------------------------------------------------------------

bool TAllFS::DoBeforeDeepAnalyse(int driveNumber) {
  const std::size_t rows = FEngine.Signatures().Signatures().size();
  TDrives& drives = FEngine.Drives();
  if (rows == 0 || drives.IsWrongNumber(driveNumber)) return false;
  TDriveInfo& drive = drives.List[static_cast<std::size_t>(driveNumber)];
  if (drive.SectorsCount <= 0) return false;
  FBytesPerSector = drives.GetBytesPerSector(drive);
  FSectors = drive.SectorsCount;
  drive.DeepAnalysed = TAnalyseInformation::aiPartial;
  if (!FEngine.PartRecRunning) FEngine.Files().AddDeepAnalyseDir(driveNumber, false);
  DeepAnalyseInfo = TDeepAnalyseInfo();
  DeepAnalyseInfo.FileTypes.assign(rows, 0);
  TFiles::ClearInfo(DeepAnalyseInfo.aFileInfo, driveNumber);
  FCompoundRow = -1;
  FRows = 0;
  return true;
}

void TAllFS::DeepAnalyseSystem(std::span<const std::uint8_t> buf, std::size_t iStart, std::int64_t sectorNumber) {
  const auto sectorSize = static_cast<std::size_t>(FBytesPerSector);
  if (buf.size() < sectorSize || iStart > buf.size() - sectorSize) return;
  const TBytes bytes = buf.subspan(iStart);
  const TBytes sectorBytes = bytes.first(sectorSize);
  CheckHeaders(bytes, sectorNumber);
  if (IsOpen()) ResolveSubSignature(sectorBytes);
  DeepAnalyseInfo.CheckedForHalfFile = IsOpen() && CheckHalfFile(sectorBytes);
  if (IsOpen()) FindFooter(bytes, sectorNumber);
  if (IsOpen()) CheckZeroTail(sectorBytes, sectorNumber);
  if (IsOpen()) CheckZipEnd(bytes, sectorNumber);
  DeepAnalyseInfo.LastByteIsNil = ReadLe16(sectorBytes, sectorSize - 2) == 0;
}

void TAllFS::CheckHeaders(TBytes bytes, std::int64_t sector) {
  const bool known = FHeaders.ForEachMatch(bytes, [&](int row) {
    if (row != FIconRow) return !OpenFile(row, sector);
    AddIcon(row, bytes, sector);
    return true;
  });
  if (known) return;
  FPublishedHeaders.ForEachMatch(bytes, [&](int number) {
    const auto& published = FEngine.Signatures().PublishedHeaders()[static_cast<std::size_t>(number)];
    return !OpenFile(FEngine.Signatures().FirstRowOf(published.Ext), sector);
  });
}

/// What a header does. True when it has opened a file.
bool TAllFS::OpenFile(int row, std::int64_t sector) {
  TDeepAnalyseInfo& info = DeepAnalyseInfo;
  const TFileSignature& signature = Row(row);
  if (IsOpen()) {
    // The frames of a stream are no files of their own.
    const bool sameType = signature.Ext == OpenRow().Ext;
    if (sameType && signature.NeedsZeroTailBefore && !info.LastByteIsNil) return false;
    // Nor is a preview inside a picture.
    if (info.EOFSize == 0 && info.CheckedForHalfFile) return false;
    CloseCurrentFile(sector);
  }
  if (!signature.CanStartFile) return false;
  info.aFileInfo.FirstCluster = sector;
  info.PredNumberSignature = row;
  return true;
}

void TAllFS::AddIcon(int row, TBytes bytes, std::int64_t sector) {
  const std::int64_t size = GetIconSize(bytes);
  if (size == 0) return;
  CloseCurrentFile(sector);
  DeepAnalyseInfo.aFileInfo.FirstCluster = sector;
  DeepAnalyseInfo.PredNumberSignature = row;
  DeepAnalyseInfo.EOFSize = 0;
  DeepAnalyseInfo.aFileInfo.aSize = size;
  AddFoundFile();
}

void TAllFS::ResolveSubSignature(TBytes sectorBytes) {
  const TSearches& searches = OpenSearches();
  if (searches.Subs.empty()) return;
  const bool mayContain = !searches.SubsPrefix || searches.SubsPrefix->Contains(sectorBytes);
  for (std::size_t i = 0; mayContain && i < searches.Subs.size(); ++i) {
    if (!searches.Subs[i].Pattern.Contains(sectorBytes)) continue;
    DeepAnalyseInfo.SameSignaturesFound = true;
    DeepAnalyseInfo.PredNumberSignature = searches.Subs[i].Row;
    return;
  }
  if (searches.IsCompound && FCompoundRow < 0) CheckCompoundDirectory(sectorBytes);
}

/// Notes the program by the document's main stream. Documents of many programs, Word 2003 and 2007
/// among them, do not hold the texts of the sub-signatures.
void TAllFS::CheckCompoundDirectory(TBytes sectorBytes) {
  constexpr std::size_t typeOffset = 66;
  for (std::size_t at = 0; at + CompoundEntrySize <= sectorBytes.size(); at += CompoundEntrySize) {
    if (sectorBytes[at + typeOffset] != CompoundStream) continue;
    for (const auto& [stream, extension] : CompoundStreams) {
      if (!IsStream(sectorBytes.subspan(at, CompoundEntrySize), stream)) continue;
      FCompoundRow = FEngine.Signatures().FirstRowOf(extension);
      return;
    }
  }
}

/// Whether the sector ends so that the file goes on.
bool TAllFS::CheckHalfFile(TBytes sectorBytes) const {
  const auto& markers = OpenSearches().HalfFileMarkers;
  return std::any_of(markers.begin(), markers.end(),
                     [&](const TSignatureCells& marker) { return EndsWith(sectorBytes, marker); });
}

void TAllFS::FindFooter(TBytes bytes, std::int64_t sector) {
  if (!OpenSearches().Footer) return;
  const TPatternSearch& footer = *OpenSearches().Footer;
  const std::size_t at = footer.FindLast(bytes, static_cast<std::size_t>(FBytesPerSector));
  if (at == TPatternSearch::NotFound) return;
  DeepAnalyseInfo.EOFSize = BytesBefore(sector) + static_cast<std::int64_t>(at + footer.Length());
}

void TAllFS::CheckZeroTail(TBytes sectorBytes, std::int64_t sector) {
  if (!OpenSearches().EndsAtZeroTail || !IsZeroTail(sectorBytes.last(ZeroTailSize))) return;
  std::size_t used = sectorBytes.size() - ZeroTailSize;
  while (used > 0 && sectorBytes[used - 1] == 0) --used;
  DeepAnalyseInfo.aFileInfo.aSize = BytesBefore(sector) + static_cast<std::int64_t>(used);
  AddFoundFile();
}

void TAllFS::CheckZipEnd(TBytes bytes, std::int64_t sector) {
  if (!OpenSearches().EndsInZipRecord) return;
  // Like a footer, the signature may reach into the next sector.
  const std::size_t at = FZipEnd.FindLast(bytes, static_cast<std::size_t>(FBytesPerSector));
  if (at == TPatternSearch::NotFound) return;
  DeepAnalyseInfo.aFileInfo.aSize = BytesBefore(sector) + static_cast<std::int64_t>(at + ZipEndRecordSize);
  AddFoundFile();
}

void TAllFS::CloseCurrentFile(std::int64_t sector) {
  if (!IsOpen()) return;
  DeepAnalyseInfo.aFileInfo.aSize = BytesBefore(sector);
  AddFoundFile();
}

void TAllFS::DoAfterDeepAnalyse(int driveNumber, std::int64_t lastSectorNumber) {
  CloseCurrentFile(lastSectorNumber + 1);
  TFiles::ClearInfo(DeepAnalyseInfo.aFileInfo, driveNumber);
}

// ---- rows -----------------------------------------------------------------------------------

/// False when the open file never named the type that it must name.
bool TAllFS::CheckSubSignatures() {
  const std::vector<TFileSubSignature>& subs = OpenRow().SubSignatures;
  if (subs.empty() || DeepAnalyseInfo.SameSignaturesFound) return true;
  for (const TFileSubSignature& sub : subs) {
    if (!sub.Pattern.empty()) continue;
    DeepAnalyseInfo.PredNumberSignature = FEngine.Signatures().FirstRowOf(u"." + sub.Ext);
    return true;
  }
  if (FCompoundRow < 0) return false;
  DeepAnalyseInfo.PredNumberSignature = FCompoundRow;
  return true;
}

void TAllFS::AddFoundFile() {
  if (MakeRow()) ++DeepAnalyseInfo.FileTypes[static_cast<std::size_t>(DeepAnalyseInfo.PredNumberSignature)];
  Forget();
}

/// Enters the open file in the file table; false when it is dropped.
bool TAllFS::MakeRow() {
  TDeepAnalyseInfo& info = DeepAnalyseInfo;
  TFileInfo& file = info.aFileInfo;
  if (!CheckSubSignatures()) return false;
  const TFileSignature& signature = OpenRow();
  if (OnCanFileBeAdded && !OnCanFileBeAdded(signature.Ext)) return false;
  if (info.EOFSize != 0) file.aSize = info.EOFSize;
  if (file.aSize < signature.MinSize) return false;
  file.aSize = file.DefaultSize = std::min({file.aSize, LargestFile, BytesBefore(FSectors)});
  const int row = FEngine.Signatures().FirstRowOf(signature.Ext);
  info.PredNumberSignature = row;
  const int found = info.FileTypes[static_cast<std::size_t>(row)];
  file.blnFolder = false;
  file.aDeepAnalyse = true;
  FName = FEngine.Language()[TText::FileType] + u" ";
  for (const int limit : {10000, 1000, 100, 10}) {
    if (limit > found + 1) FName += u'0';
  }
  FName += NumberText(found + 1) + signature.Ext;
  file.strName = FName;
  if (file.aSize <= 0 || !FEngine.Analysing || FRows > MostRows) return false;
  if (++FRows > MostRows) {
    FEngine.ShowMessage(TText::TooManyByContent);
    return false;
  }
  if (FEngine.Files().Add(file, FirstTypeFolder - row, true) < 0) return false;
  if (found == 0) AddTypeFolder(row);
  return true;
}

void TAllFS::AddTypeFolder(int row) {
  const TString& extension = Row(row).Ext;
  TFileInfo folder;
  TFiles::ClearInfo(folder, DeepAnalyseInfo.aFileInfo.aDriveNumber);
  folder.aDeepAnalyse = true;
  folder.FirstCluster = FirstTypeFolder - row;
  TString name = FEngine.Files().GetType(extension);
  if (!name.starts_with(FEngine.Language()[TText::FileType] + u" \"")) name += u" (" + extension + u")";
  folder.strName = name;
  FEngine.Files().Add(folder, SpecialCluster::DeepAnalyse, true);
}

/// No file is open any more.
void TAllFS::Forget() {
  DeepAnalyseInfo.aFileInfo.FirstCluster = 0;
  DeepAnalyseInfo.SameSignaturesFound = false;
  DeepAnalyseInfo.EOFSize = 0;
  FCompoundRow = -1;
}

// ---- content --------------------------------------------------------------------------------

bool TAllFS::MapStream(const TDriveInfo& drive, const TFile& file, TFileStream& result) const {
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(drive);
  result.Size = file.FileInfo.aSize;
  result.UnitBytes = sectorSize;
  result.Extents.AddStored(GetSizeOnDisk(file), file.FileInfo.FirstCluster * sectorSize);
  return true;
}

std::int64_t TAllFS::GetSizeOnDisk(const TFile& file) const {
  const TFileInfo& info = file.FileInfo;
  if (FEngine.Drives().IsWrongNumber(info.aDriveNumber)) return 0;
  const std::int64_t sectorSize = FEngine.Drives().GetBytesPerSector(info.aDriveNumber);
  return sectorSize <= 0 ? 0 : CeilDiv(info.aSize, sectorSize) * sectorSize;
}

}  // namespace brenlow

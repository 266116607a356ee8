// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `ls`.
#include <fmt/format.h>

#include <algorithm>

#include "analysis/file_data.h"
#include "cli/bad_map.h"
#include "cli/commands.h"
#include "cli/file_fields.h"
#include "cli/findings.h"
#include "cli/rows.h"
#include "cli/selection.h"
#include "cli/session.h"
#include "cli/verb_options.h"
#include "core/datetime.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"

namespace brenlow::cli {
namespace {

std::string ShortTime(TDateTime time) {
  std::string text = IsoTime(time).substr(0, 16);
  if (text.size() == 16) text[10] = ' ';
  return text;
}

class TListing final : public ITreeVisitor {
 public:
  TListing(TEngine& engine, const TOptions& options, TOutput& output)
      : FEngine(engine),
        FOptions(options),
        FOutput(output),
        FDeleted(options.Texts.Utf8(TText::MarkDeleted)),
        FOverwritten(options.Texts.Utf8(TText::MarkOverwritten)),
        FEstimated(options.Texts.Utf8(TText::MarkEstimated)),
        FDoubtful(options.Texts.Utf8(TText::MarkDoubtful)),
        FEncrypted(options.Texts.Utf8(TText::MarkEncrypted)),
        FCompressed(options.Texts.Utf8(TText::MarkCompressed)) {}

  bool File(const TTreeEntry& entry) override {
    ++Files;
    Bytes += entry.File->FileInfo.aSize;
    if (entry.Deleted()) ++Deleted;
    Print(entry);
    return true;
  }
  bool EnterFolder(const TTreeEntry& entry) override {
    ++Folders;
    Print(entry);
    return true;
  }
  void LeaveFolder(const TTreeEntry&) override {}

  std::int64_t Files = 0;
  std::int64_t Folders = 0;
  std::int64_t Deleted = 0;
  std::int64_t Bytes = 0;

 private:
  /// How an entry is marked; empty for what is simply there.
  const std::string& Mark(const TTreeEntry& entry) const {
    static const std::string none;
    const TAtributes& attributes = entry.File->FileInfo.Atributes;
    const TContentDoubt doubt = DoubtOf(FEngine, *entry.File);
    if (IsOverwritten(doubt)) return FOverwritten;
    if (doubt == TContentDoubt::PlaceEstimated) return FEstimated;
    if (doubt > TContentDoubt::Overwritten) return FDoubtful;
    if (entry.Deleted()) return FDeleted;
    if (attributes.blnEncrypted) return FEncrypted;
    return attributes.blnCompressed ? FCompressed : none;
  }

  void Print(const TTreeEntry& entry) {
    const TFileInfo& info = entry.File->FileInfo;
    if (FOptions.Json) {
      FOutput.Write(FileFields(FEngine, entry).Take());
    } else {
      const std::string size = info.blnFolder ? "" : SizeText(info.aSize);
      const TStringView name = FOptions.Tree ? info.strName : entry.Path;
      PrintLine(entry, Printable(ToUtf8(name)) + (info.blnFolder ? "/" : ""), size);
    }
    if (FOptions.ListStreams) PrintStreams(entry);
  }

  void PrintLine(const TTreeEntry& entry, const std::string& name, const std::string& size) {
    const std::string& mark = Mark(entry);
    if (FOptions.Tree) {
      FOutput.Write(fmt::format("{:{}}{}{}{}\n", "", 2 + 2 * std::min(entry.Depth, 100), name,
                                size.empty() ? "" : "  " + size, mark.empty() ? "" : "  [" + mark + "]"));
    } else {
      const std::string time = ShortTime(entry.File->FileInfo.TimeStamp.dtModified);
      // By hand: this is done for every file.
      FLine.clear();
      PutColumn(time, 16, false);
      PutColumn(size, 10, true);
      PutColumn(mark, 11, false);
      FLine += name;
      FLine += '\n';
      FOutput.Write(FLine);
    }
  }

  /// A column of that many characters and the gap after it.
  void PutColumn(const std::string& text, std::size_t width, bool right) {
    const auto characters = static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    const std::size_t blanks = width > characters ? width - characters : 0;
    if (right) FLine.append(blanks, ' ');
    FLine += text;
    FLine.append((right ? 0 : blanks) + 2, ' ');
  }

  void PrintStreams(const TTreeEntry& entry) {
    TADSDynArray streams;
    FillADS(FEngine, *entry.File, streams);
    for (const TADS& stream : streams) {
      if (stream.IsSystem) continue;
      const TString path = TString(entry.Path) + u":" + stream.Name;
      if (FOptions.Json) {
        TJsonLine line;
        FOutput.Write(line.Text("path", path).Text("stream", stream.Name).Number("size", stream.aSize).Take());
      } else {
        const TString name = FOptions.Tree ? TString(entry.File->FileInfo.strName) + u":" + stream.Name : path;
        PrintLine(entry, Printable(ToUtf8(name)), SizeText(stream.aSize));
      }
    }
  }

  TEngine& FEngine;
  const TOptions& FOptions;
  TOutput& FOutput;
  std::string FLine;
  std::string FDeleted;
  std::string FOverwritten;
  std::string FEstimated;
  std::string FDoubtful;
  std::string FEncrypted;
  std::string FCompressed;
};

std::string VolumeTitle(TEngine& engine, const TLanguage& texts, int number) {
  const TDriveInfo& drive = Drive(engine, number);
  const std::string size = SizeText(SizeOf(drive));
  if (drive.FileSystem == TFileSystem::fsUnknown) {
    return texts.Utf8(TText::ListTitle,
                      {RowText(engine, number), texts.Utf8(TText::RowDisk), Printable(ToUtf8(drive.Caption)), size});
  }
  const std::string label =
      drive.VolumeName.empty() ? texts.Utf8(TText::NoLabel) : "\"" + Printable(ToUtf8(drive.VolumeName)) + "\"";
  return texts.Utf8(TText::ListTitle, {RowText(engine, number), SystemName(drive), label, size});
}

std::string SumText(const TLanguage& texts, const TListing& listing) {
  const TText folders = listing.Folders == 1 ? TText::InFoldersOne : TText::InFoldersMany;
  return texts.Utf8(TText::ListSum,
                    {FilesText(texts, listing.Files), texts.Utf8(folders, {std::to_string(listing.Folders)}),
                     SizeText(listing.Bytes), FilesText(texts, listing.Deleted)});
}

}  // namespace

void AddListOptions(CLI::App& verb, TOptions& options) {
  AddSourceOption(verb, options);
  AddFilterOptions(verb, options);
  AddRangeOptions(verb, options);
  AddSearchOptions(verb, options);
  AddBestOption(verb, options);
  verb.add_flag("--tree", options.Tree, options.Texts.Utf8(TText::HelpTree));
  verb.add_flag("--streams", options.ListStreams, options.Texts.Utf8(TText::HelpListStreams));
}

int ListFiles(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options, options.Source(), options.Map) < 0) return WrongUsage;
  TBadMap badMap(engine, options);
  if (!badMap.Open()) return WrongUsage;
  TProgressLine progress(options);
  const TAnalysed analysed = Analyse(engine, options, progress);
  if (analysed.Drives.empty()) return analysed.WrongDrive ? WrongUsage : DoneWithFailures;
  const TSelection selection(options);
  TOutput output;
  std::int64_t listed = 0;
  for (const int number : analysed.Drives) {
    TListing listing(engine, options, output);
    if (!options.Json) output.Write(VolumeTitle(engine, options.Texts, number) + "\n");
    selection.Walk(engine, number, listing);
    listed += listing.Files + listing.Folders;
    if (!options.Json) {
      output.Write(SumText(options.Texts, listing) + "\n\n");
    }
  }
  if (engine.Reader().FailedReads() > 0) {
    output.Flush();
    ComplainOfUnread(engine, options);
  }
  if (TStopKey::Pressed()) {
    output.Flush();
    Complain(options.Texts.Utf8(TText::ListingStopped));
    return TStopKey::Status();
  }
  if (listed == 0 || CountFiles(engine, analysed.Drives) == 0) {
    output.Flush();
    ComplainOfNothing(engine, options, analysed.Drives);
    return DoneWithFailures;
  }
  const std::int64_t missingIds = selection.MissingIds();
  if (missingIds > 0) Complain(options.Texts.Utf8(TText::MissingIds, {std::to_string(missingIds)}));
  return analysed.AllReadable && missingIds == 0 ? AllDone : DoneWithFailures;
}

}  // namespace brenlow::cli

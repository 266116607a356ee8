// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/commands.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "analysis/analysis.h"
#include "analysis/file_kinds.h"
#include "analysis/files.h"
#include "analysis/tree_walk.h"
#include "cli/console.h"
#include "cli/json_line.h"
#include "core/device/system_disks.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"
#include "fs/fat/fat.h"
#include "recovery/recovery.h"

namespace brenlow::cli {
namespace {

void Complain(const std::string& text) { std::fprintf(stderr, "brenlow-cli: %s\n", text.c_str()); }

// ---- sources --------------------------------------------------------------------------------

/// The key for a path: absolute, and long enough not to be taken for a drive number or letter.
TString SourceKey(const std::string& path) {
  std::error_code error;
  std::filesystem::path full = std::filesystem::canonical(path, error);
  if (error) full = std::filesystem::absolute(path, error);
  std::string text = full.string();
  while (text.size() < 4) text.insert(text.begin(), '/');
  return TextFromPath(text);
}

std::string MountComplaint(const std::string& source, const TMountFailure& failure) {
  if (failure.TooSmall) return source + ": smaller than one sector, so it cannot be a disk or an image of one.";
  switch (failure.SystemError) {
    case EACCES:
    case EPERM:
      return source + ": permission denied. Reading a device needs administrator rights: try again with sudo.";
    case EISDIR:
      return source +
             ": is a folder. Give the image file, or the device that the folder's volume lies on (see `brenlow-cli "
             "drives`).";
    case ENOTBLK:
      return source + ": is neither a file nor a block device.";
    case ENOMEDIUM:
      return source + ": no medium is in the drive.";
    default:
      return source + ": " + std::strerror(failure.SystemError) + ".";
  }
}

/// Adds a source to the registry; -1 with a complaint when it cannot be read.
int MountSource(TEngine& engine, const std::string& source) {
  TMountFailure failure;
  const int number = engine.Drives().Mount(SourceKey(source), false, &failure);
  if (number < 0) Complain(MountComplaint(source, failure));
  return number;
}

void ApplyOptions(TEngine& engine, const TOptions& options) {
  TFAT& fat = engine.FAT();
  if (options.LostFolders == "never") fat.LostFolderSearch = TLostFolderSearch::Never;
  if (options.LostFolders == "always") fat.LostFolderSearch = TLostFolderSearch::Always;
  if (!fat.SetOemCodePage(options.CodePage)) {
    Complain(fmt::format("code page {} is not known on this system; 437 is used.", options.CodePage));
    fat.SetOemCodePage(437);
  }
}

TDriveInfo& Drive(TEngine& engine, int number) { return engine.Drives().List[static_cast<std::size_t>(number)]; }

std::string SystemName(const TDriveInfo& drive) { return ToUtf8(TDrives::GetSystemNameBySystem(drive.FileSystem)); }

std::int64_t SizeOf(const TDriveInfo& drive) { return drive.SectorsCount * std::max(drive.BytesPerSector, 1); }

const char* RowType(const TDriveInfo& drive) {
  if (drive.DriveTypes.Has(TDriveType::dtPhysical)) return "disk";
  if (drive.ReceivedType == TReceivedType::rtByUnallocatedSpace) return "gap";
  return "volume";
}

// ---- filters --------------------------------------------------------------------------------

/// The entries that the options ask for. Folders pass only when nothing narrows the files down.
class TSelection {
 public:
  explicit TSelection(const TOptions& options) : FGlob(options.PathGlob) {
    FFilter.Existing = options.Existing || !options.Deleted;
    FFilter.Deleted = options.Deleted || !options.Existing;
    FFilter.AllFiles = options.Kinds.empty();
    for (const std::string& kind : options.Kinds) {
      if (kind == "archive") FFilter.Archive = true;
      if (kind == "audio") FFilter.Audio = true;
      if (kind == "database") FFilter.Database = true;
      if (kind == "document") FFilter.Document = true;
      if (kind == "image") FFilter.Image = true;
      if (kind == "video") FFilter.Video = true;
    }
  }

  bool Wants(TEngine& engine, const TTreeEntry& entry) const {
    if (entry.File->FileInfo.blnFolder && (!FFilter.AllFiles || !FGlob.empty())) return false;
    const bool deleted = entry.File->FileInfo.blnDeleted || entry.ParentDeleted;
    if (entry.File->FileInfo.blnFolder && !(deleted ? FFilter.Deleted : FFilter.Existing)) return false;
    if (!engine.Files().IsFiltered(entry.FileNumber, entry.ParentDeleted, FFilter)) return false;
    return FGlob.empty() || MatchesGlob(ToUtf8(entry.Path));
  }

 private:
  /// A pattern without a slash is compared with the name, one with a slash with the whole path.
  bool MatchesGlob(const std::string& path) const {
    if (FGlob.find('/') != std::string::npos) {
      const char* pattern = FGlob.c_str() + (FGlob.front() == '/' ? 1 : 0);
      return fnmatch(pattern, path.c_str(), FNM_CASEFOLD) == 0;
    }
    return fnmatch(FGlob.c_str(), path.substr(path.rfind('/') + 1).c_str(), FNM_CASEFOLD) == 0;
  }

  std::string FGlob;
  TFileFilter FFilter;
};

// ---- analysis -------------------------------------------------------------------------------

struct TAnalysed {
  TIntegerDynArray Drives;  ///< that hold the files; empty when there was nothing to analyse
  bool WrongDrive = false;  ///< there is no drive of the number asked for
  bool AllReadable = true;  ///< every volume turned out to be what it seemed
};

/// Tells of volumes whose file system could not be read after all.
bool IsReadable(TEngine& engine, int number) {
  const TDriveInfo& drive = Drive(engine, number);
  if (drive.Analysed == TAnalyseInformation::aiFull || TStopKey::Pressed()) return true;
  Complain(fmt::format(
      "drive {} ({}, {}): its boot sector is damaged and has no usable copy, so its files cannot be listed.",
      number + 1, SystemName(drive), SizeText(SizeOf(drive))));
  return false;
}

/// Analyses what the options name; complains where that fails.
TAnalysed Analyse(TEngine& engine, const TOptions& options, TProgressLine& progress) {
  TDrives& drives = engine.Drives();
  TIntegerDynArray wanted;
  if (options.Drive != 0) {
    if (drives.IsWrongNumber(options.Drive - 1)) {
      Complain(fmt::format("there is no drive {}: `brenlow-cli drives {}` shows what there is.", options.Drive,
                           options.Source()));
      TAnalysed nothing;
      nothing.WrongDrive = true;
      return nothing;
    }
    wanted.push_back(options.Drive - 1);
  } else {
    for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
      if (drives.CanBeAnalysed(i)) wanted.push_back(i);
    }
    if (wanted.empty()) {
      Complain(fmt::format("{}: no known file system was found.", options.Source()));
      return {};
    }
  }
  engine.OnMessage = [&](const TEngineMessage& message) {
    progress.Clear();
    Complain(ToUtf8(message.Text));
  };
  double position = 0;
  std::uint64_t readBefore = 0;
  engine.OnAnalyseProgress = [&](double p) { position = p; };
  engine.OnPump = [&] {
    progress.Show(position, static_cast<std::int64_t>(engine.Reader().BytesRead() - readBefore),
                  fmt::format("{} files", engine.Files().FoundCount));
  };
  TAnalysed analysed;
  for (const int number : wanted) {
    progress.Begin(fmt::format("Analysing {}", Printable(ToUtf8(Drive(engine, number).Caption))));
    readBefore = engine.Reader().BytesRead();
    AnalyseDrive(engine, number);
    if (drives.IsPhysical(number)) {
      const TIntegerDynArray& subs = Drive(engine, number).SubDrives;
      analysed.Drives.insert(analysed.Drives.end(), subs.begin(), subs.end());
      if (subs.empty()) Complain("this disk has no volumes that could be analysed.");
    } else {
      analysed.Drives.push_back(number);
    }
    if (TStopKey::Pressed()) break;
  }
  progress.Clear();
  for (const int number : analysed.Drives) analysed.AllReadable &= IsReadable(engine, number);
  engine.OnPump = nullptr;
  engine.OnAnalyseProgress = nullptr;
  return analysed;
}

// ---- printing -------------------------------------------------------------------------------

std::string ShortTime(TDateTime time) {
  std::string text = IsoTime(time).substr(0, 16);
  if (text.size() == 16) text[10] = ' ';
  return text;
}

TJsonLine FileFields(const TTreeEntry& entry) {
  const TFileInfo& info = entry.File->FileInfo;
  TJsonLine line;
  line.Text("path", entry.Path)
      .Text("name", info.strName)
      .Number("size", info.aSize)
      .Flag("folder", info.blnFolder)
      .Flag("deleted", info.blnDeleted || entry.ParentDeleted)
      .Flag("deep", info.aDeepAnalyse)
      .Number("drive", info.aDriveNumber + 1)
      .TextOrNull("created", IsoTime(info.TimeStamp.dtCreated))
      .TextOrNull("modified", IsoTime(info.TimeStamp.dtModified))
      .TextOrNull("accessed", IsoTime(info.TimeStamp.dtAccessed))
      .Number("first_cluster", info.FirstCluster);
  return line;
}

class TListing final : public ITreeVisitor {
 public:
  TListing(TEngine& engine, const TSelection& selection, const TOptions& options, TOutput& output)
      : FEngine(engine), FSelection(selection), FOptions(options), FOutput(output) {}

  bool File(const TTreeEntry& entry) override {
    if (!FSelection.Wants(FEngine, entry)) return true;
    ++Files;
    Bytes += entry.File->FileInfo.aSize;
    if (entry.File->FileInfo.blnDeleted || entry.ParentDeleted) ++Deleted;
    Print(entry);
    return true;
  }
  bool EnterFolder(const TTreeEntry& entry) override {
    if (!FSelection.Wants(FEngine, entry)) return true;
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
  void Print(const TTreeEntry& entry) {
    const TFileInfo& info = entry.File->FileInfo;
    if (FOptions.Json) {
      FOutput.Write(FileFields(entry).Take());
      return;
    }
    const bool deleted = info.blnDeleted || entry.ParentDeleted;
    const std::string name = Printable(ToUtf8(FOptions.Tree ? info.strName : entry.Path)) + (info.blnFolder ? "/" : "");
    const std::string size = info.blnFolder ? "" : SizeText(info.aSize);
    if (FOptions.Tree) {
      FOutput.Write(fmt::format("{:{}}{}{}{}\n", "", 2 + 2 * std::min(entry.Depth, 100), name,
                                size.empty() ? "" : "  " + size, deleted ? "  [deleted]" : ""));
    } else {
      FOutput.Write(fmt::format("{:16}  {:>10}  {}  {}\n", ShortTime(info.TimeStamp.dtModified), size,
                                deleted ? "deleted" : "       ", name));
    }
  }

  TEngine& FEngine;
  const TSelection& FSelection;
  const TOptions& FOptions;
  TOutput& FOutput;
};

std::string VolumeTitle(const TDriveInfo& drive, int number) {
  const std::string label = drive.VolumeName.empty() ? "no label" : "\"" + Printable(ToUtf8(drive.VolumeName)) + "\"";
  return fmt::format("Drive {}: {} {}, {}", number + 1, SystemName(drive), label, SizeText(SizeOf(drive)));
}

int PrintDriveRows(TEngine& engine, const TOptions& options) {
  TOutput output;
  if (!options.Json) {
    output.Write(fmt::format("{:>3}  {:6}  {:8}  {:>10}  {:>14}  {}\n", "No.", "Type", "System", "Size", "First sector",
                             "Name"));
  }
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    const TDriveInfo& drive = Drive(engine, i);
    if (options.Json) {
      TJsonLine line;
      output.Write(line.Number("number", i + 1)
                       .Text("type", std::string(RowType(drive)))
                       .TextOrNull("file_system", SystemName(drive))
                       .Number("size", SizeOf(drive))
                       .Number("first_sector", drive.FirstSector)
                       .Number("sectors", drive.SectorsCount)
                       .Number("sector_size", drive.BytesPerSector)
                       .Text("source", PathFromText(drive.Drive))
                       .TextOrNull("label", ToUtf8(drive.VolumeName))
                       .TextOrNull("serial", ToUtf8(drive.Serial))
                       .Text("name", drive.Caption)
                       .Take());
    } else {
      const std::string where =
          drive.DriveTypes.Has(TDriveType::dtPhysical) && !drive.DriveTypes.Has(TDriveType::dtMounted)
              ? "  " + PathFromText(drive.Drive)
              : "";
      output.Write(fmt::format("{:>3}  {:6}  {:8}  {:>10}  {:>14}  {}{}\n", i + 1, RowType(drive), SystemName(drive),
                               SizeText(SizeOf(drive)), drive.FirstSector, Printable(ToUtf8(drive.Caption)), where));
    }
  }
  return AllDone;
}

const char* StyleName(PARTITION_STYLE style) {
  switch (style) {
    case PARTITION_STYLE::PARTITION_STYLE_MBR:
      return "MBR";
    case PARTITION_STYLE::PARTITION_STYLE_GPT:
      return "GPT";
    case PARTITION_STYLE::PARTITION_STYLE_APM:
      return "Apple partition map";
    default:
      return "none";
  }
}

}  // namespace

int ListDrives(const TOptions& options) {
  TEngine engine;
  if (options.Sources.empty()) {
    engine.Drives().Fill();
    if (engine.Drives().List.empty() && !options.Json) {
      Complain("no disks were found. Image files can be named on the command line.");
    }
  }
  int status = AllDone;
  for (const std::string& source : options.Sources) {
    if (MountSource(engine, source) < 0) status = WrongUsage;
  }
  if (status != AllDone && engine.Drives().List.empty()) return status;
  PrintDriveRows(engine, options);
  return status;
}

int ShowInfo(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options.Source()) < 0) return WrongUsage;
  if (options.Drive != 0 && engine.Drives().IsWrongNumber(options.Drive - 1)) {
    Complain(fmt::format("there is no drive {}.", options.Drive));
    return WrongUsage;
  }
  TOutput output;
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    if (options.Drive != 0 && i != options.Drive - 1) continue;
    const TDriveInfo& drive = Drive(engine, i);
    const bool disk = drive.DriveTypes.Has(TDriveType::dtPhysical);
    const char* style = disk ? StyleName(engine.Drives().GetPhysicalPartitionStyle(i)) : "";
    const std::int64_t cluster = std::int64_t{drive.FATInfo.SectorsPerCluster} * drive.BytesPerSector;
    const bool known = engine.Drives().CanBeAnalysed(i);
    if (options.Json) {
      TJsonLine line;
      line.Number("number", i + 1).Text("type", std::string(RowType(drive))).Text("name", drive.Caption);
      line.Text("source", PathFromText(drive.Drive))
          .Number("size", SizeOf(drive))
          .Number("sector_size", drive.BytesPerSector);
      line.Number("first_sector", drive.FirstSector).Number("sectors", drive.SectorsCount);
      if (disk) line.Text("partition_table", std::string(style));
      line.TextOrNull("file_system", SystemName(drive));
      if (known) {
        line.TextOrNull("label", ToUtf8(drive.VolumeName)).Number("cluster_size", cluster);
        line.Number("free", std::max<std::int64_t>(drive.aFreeSize, 0));
        line.Number("used", std::max<std::int64_t>(SizeOf(drive) - std::max<std::int64_t>(drive.aFreeSize, 0), 0));
      }
      output.Write(line.Take());
      continue;
    }
    output.Write(fmt::format("Drive {}: {} ({})\n", i + 1, Printable(ToUtf8(drive.Caption)), RowType(drive)));
    output.Write(fmt::format("  Source           {}\n", PathFromText(drive.Drive)));
    output.Write(fmt::format("  Size             {} ({} sectors of {} bytes)\n", SizeText(SizeOf(drive)),
                             drive.SectorsCount, drive.BytesPerSector));
    if (!disk) output.Write(fmt::format("  First sector     {}\n", drive.FirstSector));
    if (disk) output.Write(fmt::format("  Partition table  {}\n", style));
    if (known) {
      output.Write(fmt::format("  File system      {}\n", SystemName(drive)));
      output.Write(
          fmt::format("  Label            {}\n", drive.VolumeName.empty() ? "-" : Printable(ToUtf8(drive.VolumeName))));
      output.Write(fmt::format("  Cluster size     {}\n", SizeText(cluster)));
      output.Write(fmt::format("  Free             {}\n", SizeText(std::max<std::int64_t>(drive.aFreeSize, 0))));
    } else if (!disk) {
      output.Write("  File system      not recognised\n");
    }
  }
  return AllDone;
}

int ListFiles(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options.Source()) < 0) return WrongUsage;
  const TStopKey stop(engine);
  TProgressLine progress;
  const TAnalysed analysed = Analyse(engine, options, progress);
  if (analysed.Drives.empty()) return analysed.WrongDrive ? WrongUsage : DoneWithFailures;
  const TSelection selection(options);
  TOutput output;
  for (const int number : analysed.Drives) {
    TListing listing(engine, selection, options, output);
    if (!options.Json) output.Write(VolumeTitle(Drive(engine, number), number) + "\n");
    WalkTree(engine, number, listing);
    if (!options.Json) {
      output.Write(fmt::format("{} files in {} folders, {}; {} files deleted\n\n", listing.Files, listing.Folders,
                               SizeText(listing.Bytes), listing.Deleted));
    }
  }
  if (TStopKey::Pressed()) {
    output.Flush();
    Complain("stopped: the listing holds what was found up to then.");
    return StoppedByUser;
  }
  return analysed.AllReadable ? AllDone : DoneWithFailures;
}

namespace {

std::string FaultText(const TFileOutcome& fault) {
  switch (fault.Outcome) {
    case TOutcome::Short:
      return fmt::format("only {} of {} could be read", SizeText(fault.Written), SizeText(fault.Listed));
    case TOutcome::Unreadable:
      return "parts of it lie where the source cannot be read";
    case TOutcome::Failed:
      return fmt::format("could not be written: {}", std::strerror(fault.SystemError));
    default:
      return "";
  }
}

const char* OutcomeName(TOutcome outcome) {
  switch (outcome) {
    case TOutcome::Whole:
      return "whole";
    case TOutcome::Short:
      return "short";
    case TOutcome::Unreadable:
      return "unreadable";
    case TOutcome::Failed:
      return "failed";
  }
  return "";
}

void PrintSummary(const TRecoverySummary& summary, const TOptions& options, bool scanStopped) {
  std::FILE* out = options.Json ? stderr : stdout;
  fmt::print(out, "Recovered {} of {} files ({}) to {}; {} of the files were deleted.\n", summary.Whole, summary.Files,
             SizeText(summary.Bytes), options.Out, summary.DeletedFiles);
  if (summary.Overwritten > 0) {
    fmt::print(out, "{} deleted files lie where other files are now: their content is probably not their own.\n",
               summary.Overwritten);
  }
  if (!summary.Faults.empty()) {
    fmt::print(out, "{} files are not whole:\n", summary.Faults.size());
    for (const TFileOutcome& fault : summary.Faults) {
      fmt::print(out, "  {}: {}\n", Printable(fault.Path), FaultText(fault));
    }
  }
  if (summary.TargetFull)
    fmt::print(out, "The target is full. Free some space or choose another folder, then run this again.\n");
  if (scanStopped || summary.Stopped)
    fmt::print(out, "Stopped before the end: what was found and written up to then is kept.\n");
}

/// Refuses targets that would destroy what is to be recovered. 0 when the target will do.
int CheckTarget(const TOptions& options) {
  std::error_code error;
  std::filesystem::path existing = std::filesystem::absolute(options.Out, error);
  while (!existing.empty() && !std::filesystem::exists(existing, error) && existing != existing.root_path()) {
    existing = existing.parent_path();
  }
  if (LiesOnSource(existing.string(), options.Source())) {
    Complain(
        fmt::format("{} lies on the source itself: writing there could destroy what is to be recovered. Choose a "
                    "folder on another disk.",
                    options.Out));
    return WrongUsage;
  }
  if (std::filesystem::exists(options.Out, error) && !std::filesystem::is_directory(options.Out, error)) {
    Complain(fmt::format("{}: is not a folder.", options.Out));
    return WrongUsage;
  }
  return 0;
}

}  // namespace

int RecoverFiles(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options.Source()) < 0) return WrongUsage;
  if (const int status = CheckTarget(options); status != 0) return status;
  const TStopKey stop(engine);
  TProgressLine progress;
  const TAnalysed analysed = Analyse(engine, options, progress);
  if (analysed.Drives.empty()) return analysed.WrongDrive ? WrongUsage : DoneWithFailures;
  const bool scanStopped = TStopKey::Pressed();

  const TSelection selection(options);
  TRecovery recovery(engine, [&](const TTreeEntry& entry) { return selection.Wants(engine, entry); });
  if (const int error = recovery.SetTarget(options.Out); error != 0) {
    Complain(fmt::format("{}: {}.", options.Out, std::strerror(error)));
    return WrongUsage;
  }
  std::int64_t total = 0;
  for (const int number : analysed.Drives) total += recovery.Measure(number);
  progress.Begin("Recovering");
  recovery.OnProgress = [&](std::int64_t bytes) {
    const double position = total > 0 ? static_cast<double>(bytes) / static_cast<double>(total) : 1;
    progress.Show(position, bytes, fmt::format("{} files", recovery.Summary().Files));
  };
  TOutput output;
  if (options.Json) {
    recovery.OnFile = [&](const TTreeEntry& entry, const TFileOutcome& outcome) {
      output.Write(FileFields(entry)
                       .Text("target", outcome.Path)
                       .Text("outcome", std::string(OutcomeName(outcome.Outcome)))
                       .Take());
    };
  }
  engine.Recovering = true;
  for (const int number : analysed.Drives) {
    TString subfolder;
    if (analysed.Drives.size() > 1) {
      const TDriveInfo& drive = Drive(engine, number);
      subfolder = NumberText(number + 1) + u" " + (drive.VolumeName.empty() ? TString(u"Volume") : drive.VolumeName);
    }
    recovery.Recover(number, subfolder);
  }
  engine.Recovering = false;
  progress.Clear();
  output.Flush();
  const TRecoverySummary& summary = recovery.Summary();
  PrintSummary(summary, options, scanStopped);
  if (scanStopped || summary.Stopped) return StoppedByUser;
  return summary.Faults.empty() && analysed.AllReadable ? AllDone : DoneWithFailures;
}

}  // namespace brenlow::cli

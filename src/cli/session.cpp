// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/session.h"

#include <algorithm>
#include <filesystem>

#include "analysis/scan.h"
#include "cli/claims.h"
#include "cli/findings.h"
#include "cli/rows.h"
#include "cli/selection.h"
#include "core/families.h"
#include "core/images/image_file.h"
#include "core/images/rescue_map.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"
#include "fs/dispatch.h"
#include "shell/sources.h"
#include "table/files.h"

namespace brenlow::cli {
namespace {

/// Puts the source with its map in place of the source alone.
bool InsertWithMap(TEngine& engine, const TOptions& options, const std::string& source, const std::string& map) {
  TRescueMap ranges(0);
  TOpenedDevice opened = OpenSource(source);
  if (!opened.Device) return true;  // mounting tells why
  if (TRescueMap::Load(map, ranges) != 0 || ranges.Size() != opened.Device->Size()) {
    Complain(options.Texts.Utf8(TText::ImageMapWrong, {map}));
    return false;
  }
  engine.Devices().Insert(SourceKey(source), WithRescueMap(std::move(opened.Device), std::move(ranges)));
  return true;
}

/// Tells of volumes whose file system could not be read after all.
bool IsReadable(TEngine& engine, const TOptions& options, int number) {
  const TDriveInfo& drive = Drive(engine, number);
  if (drive.Analysed == TAnalyseInformation::aiFull || TStopKey::Pressed()) return true;
  Complain(
      options.Texts.Utf8(TText::VolumeDamaged, {RowText(engine, number), SystemName(drive), SizeText(SizeOf(drive))}));
  return false;
}

}  // namespace

bool IsSamePath(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty()) return false;
  std::error_code error;
  if (std::filesystem::equivalent(a, b, error)) return true;
  return std::filesystem::weakly_canonical(a, error) == std::filesystem::weakly_canonical(b, error);
}

int ChosenDrive(TEngine& engine, const TOptions& options) {
  const int number = std::max(options.Drive - 1, 0);
  if (engine.Drives().IsWrongNumber(number)) AddSmallRows(engine, 0);
  if (engine.Drives().IsWrongNumber(number)) {
    Complain(NoSuchDrive(options));
    return -1;
  }
  if (options.First < 0 && options.Count < 0) return number;
  const TDriveInfo& drive = Drive(engine, number);
  const std::int64_t first = std::max<std::int64_t>(options.First, 0);
  const std::int64_t count = options.Count < 0 ? drive.SectorsCount - first : options.Count;
  if (first >= drive.SectorsCount || count <= 0 || count > drive.SectorsCount - first) {
    Complain(options.Texts.Utf8(TText::ImageRange, {std::to_string(drive.SectorsCount)}));
    return -1;
  }
  return engine.Drives().CreateVirtual(number, drive.FirstSector + first, count);
}

int MountSource(TEngine& engine, const TOptions& options, const std::string& source, const std::string& map) {
  TMountFailure failure;
  if (!map.empty() && !InsertWithMap(engine, options, source, map)) return -1;
  const int number = engine.Drives().Mount(SourceKey(source), false, &failure);
  if (number < 0) Complain(MountComplaint(options.Texts, source, failure));
  return number;
}

std::string UnreadDetail(TEngine& engine, const TOptions& options) {
  const std::int64_t count = engine.Reader().UnreadableSectors();
  if (count == 0) return "";
  const TText text = count == 1 ? TText::UnreadableSectorsOne : TText::UnreadableSectorsMany;
  return ", " + options.Texts.Utf8(text, {std::to_string(count)});
}

void ComplainOfUnread(TEngine& engine, const TOptions& options) {
  const TSectorReader& reader = engine.Reader();
  const auto [sectors, leftOut] = reader.Unread();
  if (sectors == 0 && leftOut == 0) return;
  Complain(options.Texts.Utf8(TText::UnreadSectors, {std::to_string(sectors), std::to_string(leftOut)}));
  if (leftOut == 0) return;
  const std::string seconds = std::to_string(reader.BadTimeLimit / 1'000'000);
  Complain(reader.WasOutOfTime() ? options.Texts.Utf8(TText::UnreadOutOfTime, {seconds})
                                 : options.Texts.Utf8(TText::UnreadLeftOut));
}

std::string FilesText(const TLanguage& texts, std::int64_t count) {
  return texts.Utf8(count == 1 ? TText::FilesOne : TText::FilesMany, {std::to_string(count)});
}

void ApplyOptions(TEngine& engine, const TOptions& options) {
  // Names that the program gives are the same everywhere for whoever reads JSON.
  if (!options.Json) engine.ChangeLanguage(options.Texts);
  TSectorReader& reader = engine.Reader();
  if (options.BadTime >= 0) {
    const bool limited = options.BadTime > 0 && options.BadTime < INT64_MAX / 1'000'000;
    reader.BadTimeLimit = reader.ImageBadTimeLimit = limited ? options.BadTime * 1'000'000 : INT64_MAX;
  }
  reader.TriesEverySector = options.Retry;
  ForEachDriver(engine, [&](auto& driver) {
    if constexpr (requires { driver.LostFolderSearch; }) {
      if (options.LostFolders == "never") driver.LostFolderSearch = TLostFolderSearch::Never;
      if (options.LostFolders == "always") driver.LostFolderSearch = TLostFolderSearch::Always;
    }
  });
  engine.FAT().SetOemCodePage(options.CodePage);
}

namespace {

/// The families that `--systems` names; empty when it names none, for all.
TPartRecSystems ChosenFamilies(const TOptions& options) {
  TPartRecSystems chosen;
  const std::vector<std::string>& names = options.Systems;
  for (const TFamily& family : Families()) {
    if (std::find(names.begin(), names.end(), family.ScriptName) != names.end()) chosen.Add(family.Bit);
  }
  return chosen;
}

/// A request for one drive with what the options say of families and types of files.
TScanRequest RequestFor(const TOptions& options, int number) {
  TScanRequest request;
  request.Drive = number;
  request.Families = ChosenFamilies(options);
  request.WantsType = [selection = TSelection(options)](TStringView name) { return selection.WantsType(name); };
  return request;
}

}  // namespace

TFileSystems ChosenSystems(const TOptions& options) { return SystemsOf(ChosenFamilies(options)); }

void ScanForPartitions(TEngine& engine, const TOptions& options, int number) {
  TScanRequest request = RequestFor(options, number);
  request.Lost = true;
  request.Deep = options.Deep;
  RunScan(engine, request);
}

void ComplainOfSmallVolumes(TEngine& engine, const TOptions& options, const std::string& source, int disk) {
  const int count = CountSmallVolumes(engine, disk);
  if (count == 0) return;
  Complain(options.Texts.Utf8(count == 1 ? TText::SmallVolumesOne : TText::SmallVolumesMany,
                              {std::to_string(count), source}));
}

void ComplainOfStoppedScan(TEngine& engine, const TOptions& options, const TAnalysed& analysed) {
  Complain(options.Texts.Utf8(TText::ScanStopped));
  for (const int number : analysed.Drives) {
    const TDriveInfo& drive = Drive(engine, number);
    if (drive.FileSystem == TFileSystem::fsUnknown || engine.Drives().IsEmpty(number)) continue;
    Complain(options.Texts.Utf8(TText::ScanStoppedReach, {SystemName(drive), SizeText(SizeOf(drive)), options.Source(),
                                                          ReachText(engine, number)}));
  }
  Complain(options.Texts.Utf8(TText::ScanStoppedHint));
}

std::string NoSuchDrive(const TOptions& options) {
  return options.Texts.Utf8(TText::NoSuchDrive, {std::to_string(options.Drive), options.Source()});
}

std::string SystemName(const TDriveInfo& drive) { return ToUtf8(TDrives::GetSystemNameBySystem(drive.FileSystem)); }

std::int64_t SizeOf(const TDriveInfo& drive) { return drive.SectorsCount * std::max(drive.BytesPerSector, 1); }

namespace {

/// The drives whose file systems are to be analysed; empty, with a complaint, when there are none.
/// `deepDrive` is the one for the deep analysis, -1 when the options name none that exists.
TIntegerDynArray ChooseDrives(TEngine& engine, const TOptions& options, int& deepDrive) {
  TDrives& drives = engine.Drives();
  const bool oneOnly = options.Drive != 0 || options.First >= 0 || options.Count >= 0;
  deepDrive = ChosenDrive(engine, options);
  if (deepDrive < 0 || options.FastOff || options.Scan) return {};
  if (oneOnly) return {deepDrive};
  ComplainOfSmallVolumes(engine, options, options.Source(), 0);
  TIntegerDynArray chosen;
  bool named = false;
  for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
    const TDriveInfo& drive = Drive(engine, i);
    if (drives.CanBeAnalysed(i)) {
      chosen.push_back(i);
    } else if (drive.FileSystem != TFileSystem::fsUnknown) {
      Complain(options.Texts.Utf8(TText::SystemWithoutDriver, {Printable(ToUtf8(drive.Caption)), SystemName(drive)}));
      named = true;
    }
  }
  const bool nothing = chosen.empty() && !named && !options.Deep && !options.Best;
  if (nothing) Complain(options.Texts.Utf8(TText::NothingRecognised, {options.Source()}));
  return chosen;
}

/// One scan after another, with the progress line on show.
class TScans {
 public:
  TScans(TEngine& engine, const TOptions& options, TProgressLine& progress, TAnalysed& analysed)
      : FEngine(engine), FOptions(options), FProgress(progress), FAnalysed(analysed), FStop(engine) {
    std::error_code error;
    const bool isImage = std::filesystem::is_regular_file(options.Source(), error);
    engine.OnMessage = [this, isImage](const TEngineMessage& message) {
      // Rights play no part once an image file is open: it is just empty.
      if (message.Id == TText::NothingFoundNoRights && isImage) return;
      FProgress.Clear();
      if (message.Id == TText::JournalElsewhere) return Complain(Printable(ToUtf8(message.Text)));
      Complain(FOptions.Texts.Utf8(message.Id));
      FAnalysed.AllReadable = false;
    };
    engine.OnAnalyseProgress = [this](double position) { FPosition = position; };
    engine.OnPump = [this] {
      if (TStopKey::Pressed()) FEngine.StopScans();  // also where the signal came just before a scan
      FProgress.Show(FPosition, static_cast<std::int64_t>(FEngine.Reader().BytesRead() - FReadBefore),
                     FilesText(FOptions.Texts, FEngine.Files().FoundCount) + UnreadDetail(FEngine, FOptions));
    };
  }
  ~TScans() {
    FProgress.Clear();
    FEngine.OnMessage = nullptr;
    FEngine.OnPump = nullptr;
    FEngine.OnAnalyseProgress = nullptr;
  }
  TScans(const TScans&) = delete;
  TScans& operator=(const TScans&) = delete;

  /// The file system of a drive, or those of a disk's volumes.
  void Fast(int number) {
    Begin(TText::AnalysingDrive, number);
    TScanRequest request = RequestFor(FOptions, number);
    request.Fast = true;
    RunScan(FEngine, request);
    if (!FEngine.Drives().IsPhysical(number)) {
      FAnalysed.Drives.push_back(number);
      return;
    }
    const TIntegerDynArray subs = FEngine.Drives().AllSubDrives(number);
    FAnalysed.Drives.insert(FAnalysed.Drives.end(), subs.begin(), subs.end());
    if (subs.empty() && !FOptions.Deep && !FOptions.Best) Complain(FOptions.Texts.Utf8(TText::DiskWithoutVolumes));
  }

  /// Every sector of a drive, for lost partitions, and with `--deep` by content in the same pass.
  void Scan(int number) {
    Begin(TText::SearchingPartitions, number);
    ScanForPartitions(FEngine, FOptions, number);
    FAnalysed.Drives = FEngine.Drives().AllSubDrives(number);
    if (FAnalysed.Drives.empty() || FOptions.Deep) FAnalysed.Drives.push_back(number);
  }

  /// What `--best` adds: the thorough search where nothing is known, then by content what no file
  /// claims.
  void Best(int whole) {
    for (const int number : UnclaimedDrives(whole)) {
      if (TStopKey::Pressed()) return;
      TIntegerDynArray before = std::move(FAnalysed.Drives);
      Scan(number);
      std::erase(before, number);
      FAnalysed.Drives.insert(FAnalysed.Drives.begin(), before.begin(), before.end());
    }
    if (TStopKey::Pressed()) return;
    Deep(whole);
    DropClaimedDeepFiles(FEngine);
    std::erase_if(FAnalysed.Drives, [&](int number) { return CountFiles(FEngine, {number}) == 0; });
    if (FAnalysed.Drives.empty()) FAnalysed.Drives = {whole};
  }

  /// Every sector of a drive, by content.
  void Deep(int number) {
    Begin(TText::DeepAnalysingDrive, number);
    TScanRequest request = RequestFor(FOptions, number);
    request.Deep = true;
    RunScan(FEngine, request);
    TIntegerDynArray& drives = FAnalysed.Drives;
    if (std::find(drives.begin(), drives.end(), number) == drives.end()) drives.push_back(number);
  }

 private:
  /// Where the analysis may have missed files: volumes without any, gaps, volumes of no
  /// known system; all of the source where it found nothing at all.
  TIntegerDynArray UnclaimedDrives(int whole) {
    if (CountFiles(FEngine, FAnalysed.Drives) == 0) return {whole};
    TIntegerDynArray drives;
    for (const int number : FAnalysed.Drives) {
      if (CountFiles(FEngine, {number}) == 0) drives.push_back(number);
    }
    if (FOptions.Drive != 0 || FOptions.First >= 0 || FOptions.Count >= 0) return drives;
    for (int i = 0; i < static_cast<int>(FEngine.Drives().List.size()); ++i) {
      const TDriveInfo& drive = Drive(FEngine, i);
      const bool isUnknown = drive.FileSystem == TFileSystem::fsUnknown && !drive.IsSubDrive;
      if (isUnknown && !FEngine.Drives().IsPhysical(i)) drives.push_back(i);
    }
    return drives;
  }

  void Begin(TText title, int number) {
    FPosition = 0;
    FReadBefore = FEngine.Reader().BytesRead();
    FProgress.Begin(FOptions.Texts.Utf8(title, {Printable(ToUtf8(Drive(FEngine, number).Caption))}));
  }

  TEngine& FEngine;
  const TOptions& FOptions;
  TProgressLine& FProgress;
  TAnalysed& FAnalysed;
  const TStopKey FStop;
  double FPosition = 0;
  std::uint64_t FReadBefore = 0;
};

}  // namespace

TAnalysed Analyse(TEngine& engine, const TOptions& options, TProgressLine& progress) {
  TAnalysed analysed;
  int deepDrive = -1;
  const TIntegerDynArray chosen = ChooseDrives(engine, options, deepDrive);
  analysed.WrongDrive = deepDrive < 0;
  if (analysed.WrongDrive) return analysed;
  {
    TScans scans(engine, options, progress, analysed);
    for (const int number : chosen) {
      scans.Fast(number);
      if (TStopKey::Pressed()) break;
    }
    progress.Clear();
    if (options.Best) {
      if (!TStopKey::Pressed()) scans.Best(deepDrive);
      return analysed;
    }
    for (const int number : analysed.Drives) analysed.AllReadable &= IsReadable(engine, options, number);
    if (options.Scan) {
      scans.Scan(deepDrive);
    } else if (options.Deep && !TStopKey::Pressed()) {
      scans.Deep(deepDrive);
    }
  }
  return analysed;
}

}  // namespace brenlow::cli

// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `find`.
#include <fmt/format.h>

#include <algorithm>

#include "cli/bad_map.h"
#include "cli/commands.h"
#include "cli/json_line.h"
#include "cli/rows.h"
#include "cli/session.h"
#include "cli/verb_options.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"

namespace brenlow::cli {
namespace {

/// The volumes that the quick search shows, in the order of their place.
TIntegerDynArray QuickSearch(TEngine& engine, const TOptions& options, int number) {
  TDrives& drives = engine.Drives();
  TIntegerDynArray found;
  drives.OnFound = [&](int drive) {
    if (std::find(found.begin(), found.end(), drive) == found.end()) found.push_back(drive);
  };
  const std::int64_t count = options.Count < 0 ? Drive(engine, number).SectorsCount : options.Count;
  drives.Find(number, std::max<std::int64_t>(options.First, 0), count, ChosenSystems(options));
  drives.OnFound = nullptr;
  return found;
}

TIntegerDynArray Scan(TEngine& engine, const TOptions& options, int number) {
  ScanForPartitions(engine, options, number);
  TIntegerDynArray found = engine.Drives().AllSubDrives(number);
  if (found.empty() && Drive(engine, number).FileSystem != TFileSystem::fsUnknown) found = {number};
  return found;
}

/// Volumes that `drives` names in the range that was searched, but the search did not find: their boot
/// sector is lost, and they are known from a copy.
void AddKnownRows(TEngine& engine, const TOptions& options, int number, TIntegerDynArray& found) {
  const TDriveInfo& searched = Drive(engine, number);
  const std::int64_t first = searched.FirstSector + (options.Scan ? 0 : std::max<std::int64_t>(options.First, 0));
  const std::int64_t end =
      options.Scan || options.Count < 0 ? searched.FirstSector + searched.SectorsCount : first + options.Count;
  const TFileSystems systems = ChosenSystems(options);
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    const TDriveInfo& row = Drive(engine, i);
    if (!IsRow(row) || row.Drive != searched.Drive || row.FirstSector < first || row.FirstSector >= end) continue;
    if (!systems.Empty() && !systems.Has(row.FileSystem)) continue;
    TDriveInfo copy = row;
    // What only a partition type promises does not count as found.
    if (row.FileSystem == TFileSystem::fsUnknown || !engine.Drives().GetInfo(copy, false, true, false)) continue;
    const bool isFound = std::any_of(found.begin(), found.end(), [&](int other) {
      return Drive(engine, other).FirstSector == row.FirstSector && Drive(engine, other).FileSystem == row.FileSystem;
    });
    if (!isFound) found.push_back(i);
  }
}

void Print(TEngine& engine, const TOptions& options, const TIntegerDynArray& found) {
  const TLanguage& texts = options.Texts;
  TOutput output;
  if (!options.Json) {
    output.Write(fmt::format("{:>14}  {:>14}  {:8}  {:>10}  {}\n", texts.Utf8(TText::HeadFirstSector),
                             texts.Utf8(TText::HeadSectors), texts.Utf8(TText::HeadSystem), texts.Utf8(TText::HeadSize),
                             texts.Utf8(TText::HeadName)));
  }
  for (const int number : found) {
    const TDriveInfo& drive = Drive(engine, number);
    if (options.Json) {
      TJsonLine line;
      output.Write(line.Number("first_sector", drive.FirstSector)
                       .Number("sectors", drive.SectorsCount)
                       .Text("file_system", SystemName(drive))
                       .Text("name", drive.VolumeName)
                       .Number("size", SizeOf(drive))
                       .Take());
    } else {
      output.Write(fmt::format("{:>14}  {:>14}  {:8}  {:>10}  {}\n", drive.FirstSector, drive.SectorsCount,
                               SystemName(drive), SizeText(SizeOf(drive)), Printable(ToUtf8(drive.VolumeName))));
    }
  }
  if (!options.Json) output.Write(texts.Utf8(TText::FindHint) + "\n");
}

}  // namespace

void AddFindOptions(CLI::App& verb, TOptions& options) {
  AddSourceOption(verb, options);
  AddRangeOptions(verb, options);
  AddSearchOptions(verb, options);
}

int FindPartitions(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options, options.Source(), options.Map) < 0) return WrongUsage;
  TBadMap badMap(engine, options);
  if (!badMap.Open()) return WrongUsage;
  TOptions whole = options;
  // The quick search takes a range of a drive, the thorough one a drive.
  if (!options.Scan) whole.First = whole.Count = -1;
  const int number = ChosenDrive(engine, whole);
  if (number < 0) return WrongUsage;
  const TStopKey stop(engine);
  TProgressLine progress(options);
  progress.Begin(options.Texts.Utf8(TText::SearchingPartitions));
  double position = 0;
  engine.OnAnalyseProgress = engine.Drives().OnFindProgressChanged = [&](double p) { position = p; };
  engine.OnPump = [&] {
    if (TStopKey::Pressed()) engine.StopScans();
    progress.Show(position, static_cast<std::int64_t>(engine.Reader().BytesRead()), UnreadDetail(engine, options));
  };
  TIntegerDynArray found = options.Scan ? Scan(engine, options, number) : QuickSearch(engine, options, number);
  engine.OnPump = nullptr;
  progress.Clear();
  AddKnownRows(engine, options, number, found);
  std::stable_sort(found.begin(), found.end(),
                   [&](int a, int b) { return Drive(engine, a).FirstSector < Drive(engine, b).FirstSector; });
  if (!found.empty()) Print(engine, options, found);
  ComplainOfUnread(engine, options);
  if (TStopKey::Pressed()) {
    Complain(options.Texts.Utf8(TText::FindStopped));
    return TStopKey::Status();
  }
  if (found.empty()) Complain(options.Texts.Utf8(options.Scan ? TText::ScanFoundNothing : TText::FindNothing));
  return found.empty() ? DoneWithFailures : AllDone;
}

}  // namespace brenlow::cli

// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `image`.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "cli/commands.h"
#include "cli/json_line.h"
#include "cli/session.h"
#include "cli/verb_options.h"
#include "core/images/image_writer.h"
#include "core/sizes.h"
#include "shell/progress_text.h"

namespace brenlow::cli {
namespace {

std::string UnreadableText(const TLanguage& texts, std::int64_t count) {
  return texts.Utf8(count == 1 ? TText::UnreadableSectorsOne : TText::UnreadableSectorsMany, {std::to_string(count)});
}

/// What the image and its map would both write, with the names that they have while they are written; empty if nothing.
std::string SharedPath(const TOptions& options) {
  if (options.Map.empty()) return "";
  for (const std::string& image : PathsOfImage(options.Out, "")) {
    for (const std::string& map : {options.Map, TRescueMap::SuccessorName(options.Map)}) {
      if (IsSamePath(image, map)) return image;
    }
  }
  return "";
}

/// Refuses targets that would destroy something. 0 when the target will do.
int CheckTarget(TEngine& engine, const TOptions& options) {
  std::error_code error;
  const bool resumes = !options.Map.empty() && std::filesystem::exists(options.Map, error);
  const TSourceGuard guard = engine.Drives().SourceGuard();
  const std::vector<std::string> paths = PathsOfImage(options.Out, options.Map);
  // Without a map, the part that an earlier run has left may be all that a dying disk still gave.
  const auto last = paths.begin() + (options.Map.empty() ? 2 : 1);
  const auto existing =
      std::find_if(paths.begin(), last, [&](const auto& path) { return std::filesystem::exists(path, error); });
  const auto forbidden =
      std::find_if(paths.begin(), paths.end(), [&](const auto& path) { return guard.Forbids(path); });
  if (forbidden != paths.end()) {
    Complain(options.Texts.Utf8(TText::TargetOnSource, {*forbidden}));
  } else if (const std::string shared = SharedPath(options); !shared.empty()) {
    Complain(options.Texts.Utf8(TText::SamePath, {"--out", "--map", shared}));
  } else if (existing != last && !options.Overwrite && !resumes) {
    Complain(options.Texts.Utf8(TText::ImageExists, {*existing}));
  } else {
    return 0;
  }
  return WrongUsage;
}

int Summarise(const TOptions& options, const TImageResult& result, double seconds) {
  const TLanguage& texts = options.Texts;
  if (result.SystemError == EINVAL) {
    Complain(texts.Utf8(TText::ImageMapWrong, {options.Map}));
    return WrongUsage;
  }
  if (result.SystemError == TSourceGuard::Refused) {
    Complain(texts.Utf8(TText::TargetOnSource, {result.Path}));
    return WrongUsage;
  }
  if (result.SystemError != 0) {
    Complain(texts.Utf8(TText::ErrorOf, {result.Path, SystemErrorText(texts, result.SystemError)}));
    return DoneWithFailures;
  }
  const std::string unreadable = UnreadableText(texts, result.UnreadableSectors);
  if (result.Stopped) {
    Complain(texts.Utf8(TText::ImageStopped, {result.Path}));
    return TStopKey::Status();
  }
  if (options.Json) {
    TJsonLine line;
    line.Text("path", result.Path).Number("size", result.Size);
    line.Number("unreadable_sectors", result.UnreadableSectors);
    if (result.LeftOutSectors > 0) line.Number("left_out_sectors", result.LeftOutSectors);
    TOutput().Write(line.Take());
    return result.UnreadableSectors == 0 ? AllDone : DoneWithFailures;
  }
  std::printf(
      "%s\n",
      texts.Utf8(TText::ImageDone, {Printable(result.Path), SizeText(result.Size), DurationText(seconds)}).c_str());
  if (result.UnreadableSectors == 0) return AllDone;
  std::printf("%s\n", texts.Utf8(TText::ImageUnreadable, {unreadable}).c_str());
  if (result.LeftOutSectors > 0) {
    std::printf("%s\n", texts.Utf8(TText::ImageLeftOut, {std::to_string(result.LeftOutSectors)}).c_str());
  }
  return DoneWithFailures;
}

}  // namespace

void AddImageOptions(CLI::App& verb, TOptions& options) {
  const TLanguage& texts = options.Texts;
  AddSourceOption(verb, options);
  AddRangeOptions(verb, options);
  verb.add_option("--out", options.Out, texts.Utf8(TText::HelpImageOut))->required()->type_name("FILE");
  CLI::Option* compressed = verb.add_flag("--compressed", options.Compressed, texts.Utf8(TText::HelpCompressed));
  verb.add_option("--map", options.Map, texts.Utf8(TText::HelpMap))->type_name("FILE")->excludes(compressed);
  AddBadTimeOption(verb, options, TText::HelpImageBadTime);
  verb.add_flag("--overwrite", options.Overwrite, texts.Utf8(TText::HelpOverwrite));
}

int CreateImage(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  const int source = MountSource(engine, options, options.Source());
  if (source < 0) return WrongUsage;
  if (const int status = CheckTarget(engine, options); status != 0) return status;
  const int number = ChosenDrive(engine, options);
  if (number < 0) return WrongUsage;
  const TStopKey stop(engine);
  TProgressLine progress(options);
  progress.Begin(options.Texts.Utf8(TText::SavingImage));
  const std::int64_t size = SizeOf(Drive(engine, number));
  engine.Drives().OnProgressChanged = [&](double position) {
    if (TStopKey::Pressed()) engine.StopScans();
    const std::int64_t unreadable = engine.Drives().UnreadableSectors();
    progress.Show(position, static_cast<std::int64_t>(position * static_cast<double>(size)),
                  unreadable == 0 ? "" : UnreadableText(options.Texts, unreadable));
  };
  const auto begin = std::chrono::steady_clock::now();
  const TImageResult result = engine.Drives().Save(number, 0, Drive(engine, number).SectorsCount, options.Out,
                                                   options.Compressed, options.Map, TDrives::TImageNaming::AsGiven);
  progress.Clear();
  return Summarise(options, result, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
}

}  // namespace brenlow::cli

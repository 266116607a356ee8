// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/session.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "analysis/analysis.h"
#include "analysis/files.h"
#include "core/sector_reader.h"
#include "core/sizes.h"
#include "core/text.h"
#include "fs/fat/fat.h"

namespace brenlow::cli {
namespace {

/// The key for a path: absolute, and long enough not to be taken for a drive number or letter.
TString SourceKey(const std::string& path) {
  std::error_code error;
  std::filesystem::path full = std::filesystem::canonical(path, error);
  if (error) full = std::filesystem::absolute(path, error);
  std::string text = full.string();
  while (text.size() < 4) text.insert(text.begin(), '/');
  return TextFromPath(text);
}

std::string MountComplaint(const TLanguage& texts, const std::string& source, const TMountFailure& failure) {
  if (failure.TooSmall) return texts.Utf8(TText::SourceTooSmall, {source});
  switch (failure.SystemError) {
    case EACCES:
    case EPERM:
      return texts.Utf8(::geteuid() == 0 ? TText::SourceDeniedToRoot : TText::SourceDenied, {source});
    case EISDIR:
      return texts.Utf8(TText::SourceIsFolder, {source});
    case ENOTBLK:
      return texts.Utf8(TText::SourceIsNeither, {source});
    case ENOMEDIUM:
      return texts.Utf8(TText::SourceNoMedium, {source});
    default:
      return texts.Utf8(TText::ErrorOf, {source, SystemErrorText(texts, failure.SystemError)});
  }
}

/// Tells of volumes whose file system could not be read after all.
bool IsReadable(TEngine& engine, int number) {
  const TDriveInfo& drive = Drive(engine, number);
  if (drive.Analysed == TAnalyseInformation::aiFull || TStopKey::Pressed()) return true;
  Complain(engine.Language().Utf8(TText::VolumeDamaged,
                                  {std::to_string(number + 1), SystemName(drive), SizeText(SizeOf(drive))}));
  return false;
}

}  // namespace

void Complain(const std::string& text) { std::fprintf(stderr, "brenlow-cli: %s\n", text.c_str()); }

int MountSource(TEngine& engine, const std::string& source) {
  TMountFailure failure;
  const int number = engine.Drives().Mount(SourceKey(source), false, &failure);
  if (number < 0) Complain(MountComplaint(engine.Language(), source, failure));
  return number;
}

std::string FilesText(const TLanguage& texts, std::int64_t count) {
  return texts.Utf8(count == 1 ? TText::FilesOne : TText::FilesMany, {std::to_string(count)});
}

void ApplyOptions(TEngine& engine, const TOptions& options) {
  engine.ChangeLanguage(options.Texts);
  TFAT& fat = engine.FAT();
  if (options.LostFolders == "never") fat.LostFolderSearch = TLostFolderSearch::Never;
  if (options.LostFolders == "always") fat.LostFolderSearch = TLostFolderSearch::Always;
  if (!fat.SetOemCodePage(options.CodePage)) {
    Complain(options.Texts.Utf8(TText::CodePageUnknown, {std::to_string(options.CodePage)}));
    fat.SetOemCodePage(437);
  }
}

std::string NoSuchDrive(const TOptions& options) {
  return options.Texts.Utf8(TText::NoSuchDrive, {std::to_string(options.Drive), options.Source()});
}

std::string SystemName(const TDriveInfo& drive) { return ToUtf8(TDrives::GetSystemNameBySystem(drive.FileSystem)); }

std::int64_t SizeOf(const TDriveInfo& drive) { return drive.SectorsCount * std::max(drive.BytesPerSector, 1); }

namespace {

/// The drives to analyse; empty, with a complaint, when there are none.
TIntegerDynArray ChooseDrives(TEngine& engine, const TOptions& options, bool& wrongDrive) {
  TDrives& drives = engine.Drives();
  wrongDrive = options.Drive != 0 && drives.IsWrongNumber(options.Drive - 1);
  if (wrongDrive) {
    Complain(NoSuchDrive(options));
    return {};
  }
  if (options.Drive != 0) return {options.Drive - 1};
  TIntegerDynArray chosen;
  for (int i = 0; i < static_cast<int>(drives.List.size()); ++i) {
    if (drives.CanBeAnalysed(i)) chosen.push_back(i);
  }
  if (chosen.empty()) Complain(options.Texts.Utf8(TText::NothingRecognised, {options.Source()}));
  return chosen;
}

}  // namespace

TAnalysed Analyse(TEngine& engine, const TOptions& options, TProgressLine& progress) {
  TAnalysed analysed;
  const TIntegerDynArray chosen = ChooseDrives(engine, options, analysed.WrongDrive);
  std::error_code error;
  const bool isImage = std::filesystem::is_regular_file(options.Source(), error);
  engine.OnMessage = [&, isImage](const TEngineMessage& message) {
    // Rights play no part once an image file is open: it is just empty.
    if (message.Id == TText::NothingFoundNoRights && isImage) return;
    progress.Clear();
    Complain(ToUtf8(message.Text));
    analysed.AllReadable = false;
  };
  double position = 0;
  std::uint64_t readBefore = 0;
  engine.OnAnalyseProgress = [&](double p) { position = p; };
  engine.OnPump = [&] {
    progress.Show(position, static_cast<std::int64_t>(engine.Reader().BytesRead() - readBefore),
                  FilesText(engine.Language(), engine.Files().FoundCount));
  };
  for (const int number : chosen) {
    progress.Begin(engine.Language().Utf8(TText::AnalysingDrive, {Printable(ToUtf8(Drive(engine, number).Caption))}));
    readBefore = engine.Reader().BytesRead();
    AnalyseDrive(engine, number);
    if (engine.Drives().IsPhysical(number)) {
      const TIntegerDynArray& subs = Drive(engine, number).SubDrives;
      analysed.Drives.insert(analysed.Drives.end(), subs.begin(), subs.end());
      if (subs.empty()) Complain(options.Texts.Utf8(TText::DiskWithoutVolumes));
    } else {
      analysed.Drives.push_back(number);
    }
    if (TStopKey::Pressed()) break;
  }
  progress.Clear();
  for (const int number : analysed.Drives) analysed.AllReadable &= IsReadable(engine, number);
  engine.OnMessage = nullptr;
  engine.OnPump = nullptr;
  engine.OnAnalyseProgress = nullptr;
  return analysed;
}

}  // namespace brenlow::cli

// SPDX-License-Identifier: GPL-3.0-or-later
// The recovery wizard without its window: pages, options and the warnings between them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "recovery/master_link.h"
#include "recovery/recovery_types.h"
#include "recovery/save_progress.h"

namespace brenlow {

class IRecoveryQuestions;
class TEngine;
class TLanguage;

/// The options page.
class TfrmSaveOptions {
 public:
  TfrmSaveOptions(const TLanguage& language, TRecoverySettings& settings) : FLanguage(language), FSettings(settings) {
    ApplySettings(true);
  }

  TSaveChoices Choices;  ///< what the page shows
  std::string SpaceRequiredText;
  std::string SpaceAvailableText;  ///< empty when the path does not exist

  void PrepareInfo(std::int64_t spaceRequired);
  /// From the settings to the page, or back.
  void ApplySettings(bool toForm);
  /// Another folder: the space available follows.
  void ChangePath(std::string path);
  /// A key in the box of the replacement. False when it is a refused character.
  bool TypeSymbol(char16_t key);
  /// All that the user set at once; a refused character for replacements is not taken.
  void Take(const TSaveChoices& choices);

 private:
  const TLanguage& FLanguage;
  TRecoverySettings& FSettings;
};

class TfRecoveryMaster {
 public:
  enum TPage { OutputKind = 0, SaveOptions = 3, SaveProgress = 4, ZIPOptions = 5, FTPOptions = 7, Finish = 12 };

  /// `link`: says among other things what is selected.
  TfRecoveryMaster(TEngine& engine, const TRecoveryMasterLink& link, TRecoverySettings& settings,
                   IRecoveryQuestions& questions, TRecoverySender sender);

  TfrmSaveOptions Options;
  TFileFilter Filter;
  bool IsMasterResults = false;  ///< the selection is a list of results, not of one folder
  bool IsSearchResults = false;  ///< the file list shows the results of a search
  TRecoverType RecoverType = TRecoverType::rtSave;
  bool Remember = false;  ///< the first page passes by itself the next time
  /// The page of the window changes.
  std::function<void(int page)> OnPage;
  /// Called with the progress before it runs, for its events.
  std::function<void(TfrmSaveProgress&)> OnBeforeRecovery;

  /// Opens the wizard; a remembered choice passes the first page at once.
  void Show();
  /// The Next button.
  void Next();
  int FActivePage() const { return FPage; }
  /// Of the last recovery; null before there was one.
  const TfrmSaveProgress* Progress() const { return FProgress.get(); }
  /// Why the target could not be opened; 0 when it could.
  int TargetError() const { return FTargetError; }

 private:
  void ShowPage(int page);
  void LeaveOutputKind();
  void LeaveSaveOptions();
  bool IsSameDrive() const;
  bool IsOnSource() const;

  TEngine& FEngine;
  const TRecoveryMasterLink& FLink;
  TRecoverySettings& FSettings;
  IRecoveryQuestions& FQuestions;
  TRecoverySender FRecoverySender;
  int FPage = OutputKind;
  int FTargetError = 0;
  std::unique_ptr<TfrmSaveProgress> FProgress;
};

/// Bytes free on the volume of a path, or of the nearest folder above it that is there; -1 when
/// there is none.
std::int64_t FreeSpaceOf(const std::string& path);

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// The controller between a window and the engine, which runs on a thread of its own: closures go there, values come
// back.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/drive_records.h"
#include "core/engine.h"
#include "core/images/image_writer.h"
#include "core/language.h"
#include "recovery/questions.h"
#include "recovery/recovery_master.h"
#include "shell/commands.h"
#include "shell/engine_host.h"
#include "shell/snapshots.h"
#include "shell/tree_relay.h"

namespace brenlow {

/// What the recovery wizard shows.
struct TRecoveryPage {
  int Page = TfRecoveryMaster::OutputKind;
  bool JustOpened = false;
  TRecoverySettings Choices;
  std::string SpaceRequiredText, SpaceAvailableText;
  std::string TargetError;   ///< why the target cannot be used; empty when it can
  TRecoverySummary Summary;  ///< of the last page
};

struct TRecoveryProgress {
  double Ratio = 0;
  std::int64_t Bytes = 0;
  std::int64_t Total = 0;
  std::int64_t Files = 0;  ///< done
  TString Name;            ///< the current file
};

enum class TMessageKind : std::uint8_t { Information, Warning, Error };

/// The window's side. All of it is called on the window's thread.
class IShellView {
 public:
  virtual ~IShellView() = default;
  virtual void TreeChanged(const std::vector<TTreeChange>& changes) = 0;
  virtual void DrivesChanged(const std::vector<TDriveSnapshot>& drives) = 0;
  virtual void PlaceChanged(const TPlaceSnapshot& place) = 0;
  virtual void SelectionChanged(std::uint64_t generation, const TIntegerDynArray& selected) = 0;
  virtual void RecoveryListChanged(const TListing& listing) = 0;
  virtual void ActionsChanged(const TActions& actions, const TShellState& state, const TFileFilter& filter) = 0;
  virtual void ProgressChanged(const TProgressSnapshot& progress) = 0;
  virtual void Message(TMessageKind kind, const std::string& text) = 0;
  virtual void RecoveryPageChanged(const TRecoveryPage& page) = 0;
  virtual void RecoveryProgressChanged(const TRecoveryProgress& progress) = 0;
  /// The wizard is over; the settings as it left them.
  virtual void RecoveryClosed(const TRecoverySettings& settings) = 0;
  // Questions; the answer may come at any later time.
  virtual void AskRename(const TRenameQuestion& question, std::function<void(TRenameAnswer)> answer) = 0;
  virtual void AskFileExists(const TFileExistsQuestion& question, std::function<void(TFileExistsAnswer)> answer) = 0;
  virtual void AskFirstCluster(const TString& fileName, const std::vector<std::int64_t>& candidates,
                               std::function<void(TCandidateAnswer)> answer) = 0;
  virtual void AskYesNo(const std::string& question, std::function<void(bool)> answer) = 0;
};

/// Everything below "window" may be called from the window's thread at any time and returns at once.
class TShellController final {
 public:
  using TJob = std::function<void()>;

  /// `post` takes a job to the window's thread; it may be called from any thread.
  TShellController(const TSettings& settings, const TLanguage& language, IShellView& view,
                   std::function<void(TJob)> post);
  /// Waits for the engine; see `Close`.
  ~TShellController();

  // ---- window ----
  void Start();  ///< lists the drives
  void Execute(TAction action);
  /// Carries something out when the engine is idle.
  void Do(std::function<void(TCommands&)> command);
  /// Looks something up at the next opportunity, also while a scan runs. Must change no drives.
  void Ask(std::function<void(TCommands&)> question);
  /// Makes something of the engine's data and hands it to the window.
  template <typename TResult>
  void Fetch(std::function<TResult(TEngine&, TCommands&)> make, std::function<void(TResult)> take) {
    Question([this, make = std::move(make), take = std::move(take)] {
      FPost([take, result = make(FEngine, *FCommands)]() mutable { take(std::move(result)); });
    });
  }
  /// The rows of file numbers of a generation; nothing when that is over.
  void FetchRows(std::uint64_t generation, TIntegerDynArray numbers, std::function<void(std::vector<TFileRow>)> take);
  void SelectFiles(std::uint64_t generation, TIntegerDynArray numbers);
  void SelectNode(std::uint32_t node);
  /// The user opened a node of the tree: what is below its children is made ready, and a drive that was
  /// not analysed is.
  void ExpandNode(std::uint32_t node);
  /// Shows a node, and analyses its drive if that was not done.
  void OpenNode(std::uint32_t node);
  /// Stops the scan, the search or the image, without a question.
  void StopAnalyse();
  /// Shows a drive, and analyses it if that was not done.
  void OpenDrive(int drive);
  /// Runs on the window's thread.
  void Post(TJob job) { FPost(std::move(job)); }
  // From commands, on the engine's thread.
  void Notify(TMessageKind kind, const std::string& text);
  /// Passes each volume that the quick search finds to the window; an empty function ends that.
  void WatchFound(std::function<void(const TDriveSnapshot&)> take);
  /// Hands the drives found inside a drive to the window.
  void ForDrives(std::function<void(const std::vector<TDriveSnapshot>&)> take, int inside);
  // The recovery wizard.
  void RecoveryNext(TRecoverySettings choices);
  void RecoveryChangePath(std::string path);
  void StopRecovery();   ///< ends the walk; the last page then says what was written
  void RecoveryClose();  ///< ends the wizard
  /// True while something waits or runs.
  bool IsBusy() const { return FUnderWay > 0; }
  /// Stops everything and ends the engine's thread as soon as it answers.
  void Close();
  /// True when the engine's thread has ended within the time.
  bool WaitForEnd(std::chrono::milliseconds time) { return FHost.Wait(time); }
  /// The engine: for tests, to put devices in before `Start`; for all, after its thread has ended.
  TEngine& Engine() { return FEngine; }

 private:
  void Question(TJob job);
  void Command(TJob job);
  void Run(const TJob& job);
  bool RunsAtOnce(TAction action) const;
  void Tell(std::function<void(IShellView&)> news);
  std::vector<TFileRow> MakeRows(std::span<const int> numbers);
  void Flush();
  void Pumped();
  void PublishActions();
  void PublishPlace();
  void PublishDrives();
  void PublishTree();
  void FollowProgress();
  void Refresh();
  void RunRecoveryMaster(TfRecoveryMaster& master);
  void PublishRecoveryPage(bool justOpened);
  void PublishRecovery(const TfrmSaveProgress& progress);
  void StopAll();

  class TQuestions;
  template <typename TAnswer>
  TAnswer AskWindow(TAnswer fallback, std::function<void(IShellView&, std::function<void(TAnswer)>)> ask);

  IShellView& FView;
  std::function<void(TJob)> FPost;
  TEngine FEngine;
  TTreeRelay FRelay;
  std::unique_ptr<TQuestions> FQuestions;
  std::unique_ptr<TCommands> FCommands;
  std::atomic<int> FUnderWay{0};
  TfRecoveryMaster* FMaster = nullptr;
  bool FMasterDone = false;
  std::int64_t FRecoveredFiles = 0;
  // What is to be published at the next opportunity.
  bool FActionsChanged = false, FPlaceChanged = false, FDrivesChanged = false, FListChanged = false;
  bool FSelectionChanged = false;
  TProgressSnapshot FProgress;
  std::uint64_t FReadBefore = 0;
  std::int64_t FProgressTold = 0;  // steady clock, milliseconds
  std::int64_t FPlaceMade = 0;
  std::int64_t FPlaceCost = 0;  // milliseconds that making the list took
  TEngineHost FHost;            // the last member: its thread uses all others
};

}  // namespace brenlow

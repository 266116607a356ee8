// SPDX-License-Identifier: GPL-3.0-or-later
// The engine behind its thread, and the window's side as plain values.
#include "shell/controller.h"

#include <doctest/doctest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "shell/engine_host.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("commands wait for each other, questions do not wait for commands") {
  TEngineHost host;
  std::vector<std::string> done;
  std::promise<void> began;
  std::promise<void> asked;
  std::atomic<bool> stop = false;
  host.Command([&] {
    began.set_value();
    while (!stop) host.ServeQuestions();
    done.push_back("first");
  });
  host.Command([&] { done.push_back("second"); });
  began.get_future().wait();
  host.Question([&] {
    done.push_back("question");
    asked.set_value();
  });
  REQUIRE(asked.get_future().wait_for(std::chrono::minutes(2)) == std::future_status::ready);
  stop = true;
  std::promise<void> last;
  host.Command([&] { last.set_value(); });
  last.get_future().wait();
  CHECK(done == std::vector<std::string>{"question", "first", "second"});
}

TEST_CASE("a host that ends starts nothing more, and frees who waits for an answer") {
  std::atomic<bool> answered = true;
  std::atomic<bool> later = false;
  TEngineHost host;
  std::promise<void> waiting;
  host.Command([&] {
    waiting.set_value();
    answered = host.ServeUntil([] { return false; }, false);
  });
  waiting.get_future().wait();
  host.Command([&] { later = true; });
  CHECK_FALSE(host.Wait(std::chrono::milliseconds(20)));
  host.End();
  CHECK(host.Wait(std::chrono::minutes(2)));
  CHECK_FALSE(answered);
  CHECK_FALSE(later);
}

namespace {

/// A window made of values: its thread is the test's.
class TFlatWindow final : public IShellView {
 public:
  std::map<std::uint32_t, std::vector<std::pair<std::uint32_t, TString>>> Tree;  // parent: number and caption
  std::vector<TDriveSnapshot> Drives;
  TPlaceSnapshot Place;
  TActions Actions;
  TShellState State;
  TProgressSnapshot Progress;
  std::vector<std::string> Messages;
  TRecoveryPage Page;
  int Questions = 0;
  bool Closed = false;

  void TreeChanged(const std::vector<TTreeChange>& changes) override {
    for (const TTreeChange& change : changes) {
      if (change.Kind == TTreeChange::Added) {
        auto& children = Tree[change.Parent];
        REQUIRE(change.Index <= static_cast<int>(children.size()));
        children.insert(children.begin() + change.Index, {change.Node, change.Caption});
      } else if (change.Kind == TTreeChange::Removed) {
        for (auto& [parent, children] : Tree) {
          std::erase_if(children, [&](const auto& child) { return child.first == change.Node; });
        }
      } else if (change.Kind == TTreeChange::Sorted) {
        auto& children = Tree[change.Node];
        REQUIRE(children.size() == change.Order.size());
        std::vector<std::pair<std::uint32_t, TString>> sorted;
        for (const std::uint32_t number : change.Order) {
          for (const auto& child : children) {
            if (child.first == number) sorted.push_back(child);
          }
        }
        children = std::move(sorted);
      }
    }
  }
  void DrivesChanged(const std::vector<TDriveSnapshot>& drives) override { Drives = drives; }
  void PlaceChanged(const TPlaceSnapshot& place) override { Place = place; }
  void SelectionChanged(std::uint64_t, const TIntegerDynArray&) override {}
  void RecoveryListChanged(const TListing&) override {}
  void ActionsChanged(const TActions& actions, const TShellState& state, const TFileFilter&) override {
    Actions = actions;
    State = state;
  }
  void ProgressChanged(const TProgressSnapshot& progress) override { Progress = progress; }
  void Message(TMessageKind, const std::string& text) override { Messages.push_back(text); }
  void RecoveryPageChanged(const TRecoveryPage& page) override { Page = page; }
  void RecoveryProgressChanged(const TRecoveryProgress&) override {}
  void RecoveryClosed(const TRecoverySettings&) override { Closed = true; }
  void AskRename(const TRenameQuestion&, std::function<void(TRenameAnswer)> answer) override {
    ++Questions;
    TRenameAnswer given;
    given.Result = TRenameAnswer::OK;
    given.NewName = u"renamed " + NumberText(Questions);
    answer(given);
  }
  void AskFileExists(const TFileExistsQuestion&, std::function<void(TFileExistsAnswer)> answer) override {
    answer({TRenameResult::rrSkipAll, {}});
  }
  void AskFirstCluster(const TString&, const std::vector<std::int64_t>&,
                       std::function<void(TCandidateAnswer)> answer) override {
    answer({});
  }
  void AskYesNo(const std::string&, std::function<void(bool)> answer) override { answer(true); }
};

struct TProgram {
  std::mutex Mutex;
  std::deque<TShellController::TJob> Jobs;
  TFlatWindow Window;
  TTemporaryFolder Folder;
  TSettings Settings;
  std::unique_ptr<TShellController> Controller;

  explicit TProgram(TImage image) {
    Settings.Recovery.Path = Folder.Path() + "/out";
    Controller =
        std::make_unique<TShellController>(Settings, TLanguage::English(), Window, [this](TShellController::TJob job) {
          const std::lock_guard lock(Mutex);
          Jobs.push_back(std::move(job));
        });
    Controller->Engine().Devices().Insert(u"/test.img", std::make_unique<TMemoryDevice>(std::move(image)));
    Controller->Start();
  }
  void RunJobs() {
    std::deque<TShellController::TJob> jobs;
    {
      const std::lock_guard lock(Mutex);
      jobs.swap(Jobs);
    }
    for (auto& job : jobs) job();
  }
  /// Runs the window's jobs until the condition holds, and still does when no more are under way: an
  /// engine that has nothing to do may have told things that did not arrive yet.
  bool WaitFor(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    while (std::chrono::steady_clock::now() < end) {
      RunJobs();
      if (condition()) RunJobs();
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
  }
  std::vector<TString> Under(std::uint32_t node) {
    std::vector<TString> captions;
    for (const auto& [number, caption] : Window.Tree[node]) captions.push_back(caption);
    return captions;
  }
};

}  // namespace

TEST_CASE("a window of values follows the engine") {
  TProgram t(LoadTestImage("demo-stick.img.zst"));
  t.Controller->Do([](TCommands& commands) { commands.Jobs().Mount("/test.img"); });
  REQUIRE(t.WaitFor([&] { return t.Window.State.Tree.Drive >= 0; }));
  const TDriveSnapshot drive = t.Window.Drives[static_cast<std::size_t>(t.Window.State.Tree.Drive)];
  CHECK(drive.Kind == TEntryKind::Image);
  CHECK(drive.FileSystem == u"FAT32");
  CHECK(t.Window.Place.Listing.Numbers->empty());
  t.Controller->OpenNode(drive.Node);
  REQUIRE(t.WaitFor([&] { return !t.Controller->IsBusy() && !t.Window.Place.Listing.Numbers->empty(); }));
  REQUIRE(t.WaitFor([&] { return t.Window.Progress.Kind == TProgressSnapshot::None; }));
  // The mirror of the tree is the tree: sorted, each folder once.
  const std::vector<TString> folders = t.Under(drive.Node);
  CHECK(std::count(folders.begin(), folders.end(), u"Documents") == 1);
  CHECK(std::count(folders.begin(), folders.end(), u"Deep analysis") == 1);
  CHECK(std::is_sorted(folders.begin(), folders.end(),
                       [](const TString& a, const TString& b) { return LowerCase(a) < LowerCase(b); }));
  // The first rows have come with the list; numbers of another generation give none.
  REQUIRE(t.Window.Place.Head.size() == t.Window.Place.Listing.Numbers->size());
  int answers = 0;
  std::size_t rows = 99;
  const auto fetch = [&](std::uint64_t generation) {
    t.Controller->FetchRows(generation, *t.Window.Place.Listing.Numbers, [&](std::vector<TFileRow> got) {
      ++answers;
      rows = got.size();
    });
    const int wanted = answers + 1;
    CHECK(t.WaitFor([&] { return answers == wanted; }));
  };
  fetch(t.Window.Place.Listing.Generation);
  CHECK(rows == t.Window.Place.Head.size());
  fetch(t.Window.Place.Listing.Generation + 1);
  CHECK(rows == 0);
}

TEST_CASE("the recovery wizard as a conversation between two threads") {
  TProgram t(LoadTestImage("demo-stick.img.zst"));
  t.Controller->Do([](TCommands& commands) {
    commands.Jobs().Mount("/test.img");
    commands.OpenNode(commands.Places().SelectedNode());
  });
  REQUIRE(t.WaitFor([&] { return !t.Controller->IsBusy() && t.Window.Actions.Has(TAction::actFoldersRecovery); }));
  t.Controller->Execute(TAction::actFoldersRecovery);
  REQUIRE(t.WaitFor([&] { return t.Window.Page.JustOpened && t.Window.State.Recovering; }));
  t.Controller->RecoveryNext({});
  REQUIRE(t.WaitFor([&] { return t.Window.Page.Page == TfRecoveryMaster::SaveOptions; }));
  CHECK_FALSE(t.Window.Page.SpaceRequiredText.empty());
  TRecoverySettings form;
  form.Path = "/proc/nothing";
  t.Controller->RecoveryNext(form);
  REQUIRE(t.WaitFor([&] { return !t.Window.Page.TargetError.empty(); }));
  CHECK(t.Window.Page.Page == TfRecoveryMaster::SaveOptions);
  form.Path = t.Folder.Path() + "/out";
  t.Controller->RecoveryNext(form);
  REQUIRE(t.WaitFor([&] { return t.Window.Page.Page == TfRecoveryMaster::Finish; }));
  CHECK(t.Window.Questions > 0);  // names with a lost first letter
  CHECK(t.Window.Page.Summary.Whole > 10);
  CHECK(t.Window.Page.Summary.FaultCount() == 0);
  t.Controller->RecoveryClose();
  REQUIRE(t.WaitFor([&] { return t.Window.Closed && !t.Window.State.Recovering; }));
}

TEST_CASE("the end comes while the engine asks a question that nobody answers") {
  auto t = std::make_unique<TProgram>(LoadTestImage("demo-stick.img.zst"));
  t->Controller->Do([](TCommands& commands) {
    commands.Jobs().Mount("/test.img");
    commands.OpenNode(commands.Places().SelectedNode());
    commands.Execute(TAction::actFoldersRecovery);
  });
  REQUIRE(t->WaitFor([&] { return t->Window.Page.JustOpened; }));
  t->Controller->RecoveryNext({});
  REQUIRE(t->WaitFor([&] { return t->Window.Page.Page == TfRecoveryMaster::SaveOptions; }));
  TRecoverySettings form;
  form.Path = t->Folder.Path() + "/out";
  t->Controller->RecoveryNext(form);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the question is put, but not delivered
  t->Controller->Close();
  CHECK(t->Controller->WaitForEnd(std::chrono::minutes(2)));
}

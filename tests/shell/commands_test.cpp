// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/commands.h"

#include <doctest/doctest.h>

#include <filesystem>
#include <fstream>

#include "analysis/files.h"
#include "core/language.h"
#include "recovery/questions.h"
#include "recovery/recovery_master.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

struct TNoQuestions final : IRecoveryQuestions {
  TRenameAnswer Rename(const TRenameQuestion&) override { return {}; }
  TFileExistsAnswer FileExists(const TFileExistsQuestion&) override { return {}; }
  TCandidateAnswer ChooseFirstCluster(const TFile&) override { return {}; }
  bool SaveToSameDrive() override { return true; }
  bool LargerThanFAT() override { return true; }
  bool CancelRecovery() override { return true; }
};

struct TUser final : IShellQuestions {
  bool Stop = true;
  std::string Image;
  bool StopAnalyse() override { return Stop; }
  std::optional<std::string> ImageFile() override {
    return Image.empty() ? std::nullopt : std::optional<std::string>(Image);
  }
};

struct TView final : IFolderTreeView {
  void NodeAdded(const TTreeNode&) override {}
  void NodeDeleted(const TTreeNode&) override {}
  void NodeChanged(const TTreeNode&) override {}
  void ChildrenSorted(const TTreeNode&) override {}
  void Collapse(const TTreeNode&) override {}
  void SetWaitCursor(bool) override {}
};

/// The program with the demo stick as a file to mount.
struct TProgram {
  TTemporaryFolder Folder;
  TEngine Engine;
  TView View;
  TSettings Settings;
  TUser User;
  TNoQuestions Questions;
  TCommands Commands{Engine, Settings, User, Questions};

  TProgram() {
    Engine.Folders().AssignTreeView(&View);
    const TImage stick = LoadTestImage("demo-stick.img.zst");
    std::ofstream file(Folder.Path() + "/stick.img", std::ios::binary);
    file.write(reinterpret_cast<const char*>(stick.data()), static_cast<std::streamsize>(stick.size()));
    User.Image = Folder.Path() + "/stick.img";
  }
  bool Can(TAction action) const { return Commands.EnabledActions().Has(action); }
  /// Mounts the stick, selects its drive in the list and opens it.
  void OpenStick() {
    REQUIRE(Commands.Execute(TAction::actMountImage));
    Commands.SelectNode(Engine.Folders().GetRootNode(0));
    Commands.SelectFiles(Commands.ShownFiles());
    REQUIRE(Commands.Execute(TAction::actOpen));
  }
  int Shown(TStringView name) const {
    for (const int number : Commands.ShownFiles()) {
      TFiles& files = const_cast<TEngine&>(Engine).Files();
      if (files.List[static_cast<std::size_t>(number)].FileInfo.strName == name) return number;
    }
    return -1;
  }
};

}  // namespace

TEST_CASE("which actions are on is a matter of state alone") {
  using enum TAction;
  TShellState state;
  CHECK(CheckActionsEnabled(state) == TActions{actMountImage, actFoldersMountImage, actRefresh, actFilterExisting,
                                               actFilterDeleted, actFilterAllFiles, actFilterArchive, actFilterAudio,
                                               actFilterDatabase, actFilterDocument, actFilterImage, actFilterVideo,
                                               actExit});
  state.List = state.Tree = {true, true, true, true, true, true};
  state.ShownFiles = 5;
  state.RecoveryListFiles = 1;
  CHECK_FALSE(CheckActionsEnabled(state).Has(actRecoveryFromList));  // the panel is hidden
  state.RecoveryListShown = true;
  TActions idle = CheckActionsEnabled(state);
  for (std::size_t i = 0; i < ActionCount; ++i) {
    CHECK(idle.Has(static_cast<TAction>(i)) == (static_cast<TAction>(i) != actStopAnalyse));
  }
  const TActions views{
      actExpand,        actSelectAll,   actInvertSelection, actFilterExisting, actFilterDeleted, actFilterAllFiles,
      actFilterArchive, actFilterAudio, actFilterDatabase,  actFilterDocument, actFilterImage,   actFilterVideo,
      actExit};
  state.Recovering = true;
  CHECK(CheckActionsEnabled(state) == views);
  state.Recovering = false;
  state.Analysing = true;
  TActions scanning = views;
  scanning.Add(actStopAnalyse);
  CHECK(CheckActionsEnabled(state) == scanning);
  for (std::size_t i = 0; i < ActionCount; ++i) {
    CHECK_FALSE(TLanguage::English()[CaptionOf(static_cast<TAction>(i))].empty());
  }
}

TEST_CASE("from a mounted image to recovered files, by commands alone") {
  using enum TAction;
  TProgram t;
  CHECK_FALSE(t.Can(actOpen));
  CHECK_FALSE(t.Commands.Execute(actOpen));
  bool wasScanning = false;
  t.Commands.OnActionsChanged = [&](const TActions& actions) {
    if (!actions.Has(actStopAnalyse)) return;
    wasScanning = true;
    CHECK_FALSE(actions.Has(actMountImage));
  };
  t.OpenStick();
  CHECK(wasScanning);
  const std::size_t all = t.Commands.ShownFiles().size();
  REQUIRE(all > 3);
  t.Commands.Execute(actFilterExisting);
  CHECK(t.Shown(u"README.TXT") == -1);
  CHECK(t.Shown(u"Documents") >= 0);  // it may hold deleted files
  t.Commands.Execute(actFilterExisting);
  t.Commands.Execute(actFilterImage);
  CHECK_FALSE(t.Commands.Filter().AllFiles);
  CHECK(t.Shown(u"README.TXT") == -1);
  t.Commands.Execute(actFilterVideo);
  t.Commands.Execute(actFilterAllFiles);
  CHECK((t.Commands.Filter().AllFiles && !t.Commands.Filter().Image && !t.Commands.Filter().Video));
  CHECK(t.Commands.ShownFiles().size() == all);

  // Recover one folder and one file of the list; then what was put aside.
  const int documents = t.Shown(u"Documents");
  t.Commands.SelectFiles({documents});
  t.Commands.Execute(actInvertSelection);
  CHECK(t.Commands.SelectedFiles().size() == all - 1);
  t.Commands.SelectFiles({documents, t.Shown(u"README.TXT")});
  t.Settings.Recovery.Path = t.Folder.Path() + "/out";
  t.Settings.Recovery.CanReplaceSymbols = true;
  t.Commands.OnRecoveryMaster = [&](TfRecoveryMaster& master) {
    CHECK_FALSE(t.Can(actMountImage));
    master.Show();
    master.Next();
    master.Next();
    CHECK(master.FActivePage() == TfRecoveryMaster::Finish);
  };
  CHECK(t.Commands.Execute(actRecovery));
  const auto size = [&](const std::string& path) {
    std::error_code error;
    const auto bytes = std::filesystem::file_size(t.Folder.Path() + "/" + path, error);
    return error ? 0 : bytes;
  };
  CHECK(size("out/README.TXT") > 0);
  CHECK(size("out/Documents/letter 2.txt") == 1800);
  CHECK(size("out/Pictures/Summer 2020/beach 3.png") == 0);

  t.Commands.SelectFiles({t.Shown(u"Pictures")});
  t.Commands.Execute(actAddToRecoveryList);
  CHECK_FALSE(t.Can(actRecoveryFromList));
  t.Commands.ShowRecoveryList(true);
  t.Settings.Recovery.Path = t.Folder.Path() + "/list";
  CHECK(t.Commands.Execute(actRecoveryFromList));
  CHECK(size("list/Pictures/Summer 2020/beach 3.png") > 0);

  // Once more from the start, then the image goes with everything that came from it.
  REQUIRE(t.Commands.Execute(actFoldersReopen));
  CHECK(t.Commands.RecoveryList().Files().empty());
  t.Commands.SelectNode(t.Engine.Folders().GetDriveRootNode(0));
  CHECK(t.Commands.ShownFiles().size() == all);
  REQUIRE(t.Commands.Execute(actFoldersCloseDisk));
  CHECK(t.Engine.Drives().List.empty());
  CHECK(t.Engine.Files().List.empty());
  CHECK(t.Engine.Folders().Root().Children.empty());
  CHECK(t.Commands.SelectedNode() == nullptr);
}

TEST_CASE("a scan stops when the user says so, and its finds stay") {
  TProgram t;
  REQUIRE(t.Commands.Mount(t.User.Image) == 0);
  int added = 0;
  t.User.Stop = false;
  t.Engine.Files().OnAdded = [&](int) {
    ++added;
    t.User.Stop = added == 3;
    t.Commands.Execute(TAction::actStopAnalyse);
  };
  CHECK(t.Commands.Analyse(t.Engine.Folders().GetDriveRootNode(0), false));
  CHECK(added < 10);
  CHECK((DriveOf(t.Engine, 0).Analysed == TAnalyseInformation::aiPartial));
  CHECK_FALSE(t.Commands.ShownFiles().empty());
}

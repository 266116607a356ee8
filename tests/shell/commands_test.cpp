// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/commands.h"

#include <doctest/doctest.h>

#include <algorithm>
#include <filesystem>

#include "core/language.h"
#include "recovery/recovery_master.h"
#include "shell/program.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("which actions are on is a matter of state alone") {
  using enum TAction;
  // Whatever opens, changes or closes drives, or reads their files.
  constexpr TAction touching[] = {actMaster,           actReopen,
                                  actFoldersReopen,    actRecovery,
                                  actFoldersRecovery,  actRecoveryFromList,
                                  actFindPartitions,   actFoldersFindPartitions,
                                  actCreateImage,      actFoldersCreateImage,
                                  actMountImage,       actFoldersMountImage,
                                  actUnmountImage,     actCloseDisk,
                                  actFoldersCloseDisk, actCreateVirtualPartition,
                                  actRefresh,          actAddCustomFolder};
  TShellState state;
  const TActions nothing = CheckActionsEnabled(state);
  for (const TAction action : {actMaster, actMountImage, actRefresh, actFilterDeleted, actSettings, actExit}) {
    CHECK(nothing.Has(action));
  }
  for (const TAction action : {actOpen, actReopen, actRecovery, actCloseDisk, actCreateImage, actProperties,
                               actSelectAll, actStopAnalyse, actFoundFileLocation}) {
    CHECK_FALSE(nothing.Has(action));
  }
  state.List = state.Tree = {true, true, true, false, true, true, true, true, 0, 0, 1, 100};
  state.ShownFiles = 5;
  state.RecoveryListFiles = 1;
  CHECK_FALSE(CheckActionsEnabled(state).Has(actRecoveryFromList));  // the panel is hidden
  state.RecoveryListShown = true;
  const TActions idle = CheckActionsEnabled(state);
  for (const TAction action : touching) CHECK(idle.Has(action));
  CHECK_FALSE(idle.Has(actStopAnalyse));
  CHECK_FALSE(idle.Has(actSortByFreeSize));
  for (bool TShellState::*flag : {&TShellState::Analysing, &TShellState::Searching, &TShellState::Recovering}) {
    TShellState running = state;
    running.*flag = true;
    const TActions actions = CheckActionsEnabled(running);
    for (const TAction action : touching) CHECK_FALSE(actions.Has(action));
    const bool scanning = flag != &TShellState::Recovering;
    CHECK(actions.Has(actStopAnalyse) == scanning);
    // Looking into what is there already goes on; what needs an analysis waits.
    CHECK(actions.Has(actOpen) == scanning);
    running.List.OpensAtOnce = false;
    CHECK_FALSE(CheckActionsEnabled(running).Has(actOpen));
  }
  // With nothing selected it is the place that is opened.
  state.List = {};
  CHECK_FALSE(CheckActionsEnabled(state).Has(actOpen));
  state.Tree.Blank = true;
  CHECK(CheckActionsEnabled(state).Has(actOpen));
  for (const TAction action : AllActions) {
    const TActionInfo& info = InfoOf(action);
    CHECK(info.Action == action);
    CHECK_FALSE(TLanguage::English()[info.Caption].empty());
  }
}

TEST_CASE("from a mounted image to recovered files, by commands alone") {
  using enum TAction;
  TProgram t;
  CHECK_FALSE(t.Can(actOpen));
  CHECK_FALSE(t.Commands.Execute(actOpen));
  bool wasScanning = false;
  t.Commands.OnActionsChanged = [&] {
    if (!t.Can(actStopAnalyse)) return;
    wasScanning = true;
    CHECK_FALSE(t.Can(actMountImage));
  };
  t.OpenStick();
  CHECK(wasScanning);
  const std::size_t all = t.Commands.View().Files().size();
  REQUIRE(all > 3);
  t.Commands.Execute(actFilterExisting);
  CHECK(t.Shown(u"README.TXT") == -1);
  CHECK(t.Shown(u"Documents") >= 0);  // it may hold deleted files
  t.Commands.Execute(actFilterExisting);
  t.Commands.Execute(actFilterImage);
  CHECK_FALSE(t.Commands.View().Filter().AllFiles);
  CHECK(t.Shown(u"README.TXT") == -1);
  t.Commands.Execute(actFilterVideo);
  t.Commands.Execute(actFilterAllFiles);
  CHECK(
      (t.Commands.View().Filter().AllFiles && !t.Commands.View().Filter().Image && !t.Commands.View().Filter().Video));
  CHECK(t.Commands.View().Files().size() == all);

  // Recover one folder and one file of the list; then what was put aside.
  const int documents = t.Shown(u"Documents");
  t.Commands.View().Select({documents});
  t.Commands.Execute(actInvertSelection);
  CHECK(t.Commands.View().Selected().size() == all - 1);
  t.Commands.View().Select({documents, t.Shown(u"README.TXT")});
  t.Commands.Recoveries().Settings.Path = t.Folder.Path() + "/out";
  t.Commands.Recoveries().Settings.CanReplaceSymbols = true;
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

  t.Commands.View().Select({t.Shown(u"Pictures")});
  t.Commands.Execute(actAddToRecoveryList);
  CHECK_FALSE(t.Can(actRecoveryFromList));
  t.Commands.Recoveries().ShowList(true);
  t.Commands.Recoveries().Settings.Path = t.Folder.Path() + "/list";
  CHECK(t.Commands.Execute(actRecoveryFromList));
  CHECK(size("list/Pictures/Summer 2020/beach 3.png") > 0);

  // Once more from the start, then the image goes with everything that came from it.
  REQUIRE(t.Commands.Execute(actFoldersReopen));
  CHECK(t.Commands.Recoveries().List().Files().empty());
  t.Commands.Places().SelectNode(t.Engine.Folders().GetDriveRootNode(0));
  CHECK(t.Commands.View().Files().size() == all);
  REQUIRE(t.Commands.Execute(actFoldersCloseDisk));
  CHECK(t.Engine.Drives().List.empty());
  CHECK(t.Engine.Files().List.empty());
  CHECK(t.Engine.Folders().Root().Children.empty());
  CHECK(t.Commands.Places().SelectedNode() == nullptr);
}

TEST_CASE("a scan stops when the user says so, and its finds stay") {
  TProgram t;
  REQUIRE(t.Commands.Jobs().Mount(t.User.Image) == 0);
  int added = 0;
  t.User.Stop = false;
  t.Engine.Files().OnAdded = [&](int) {
    ++added;
    t.User.Stop = added == 3;
    t.Commands.Execute(TAction::actStopAnalyse);
  };
  CHECK(t.Commands.Jobs().Analyse(t.Engine.Folders().GetDriveRootNode(0), false));
  CHECK(added < 10);
  CHECK((DriveOf(t.Engine, 0).Analysed == TAnalyseInformation::aiPartial));
  CHECK_FALSE(t.Commands.View().Files().empty());
}

TEST_CASE("places: history, path, search and what becomes of them when rows go") {
  using enum TAction;
  TProgram t;
  t.OpenStick();
  const auto crumbs = [&] {
    TString path;
    for (const TString& crumb : t.Commands.Place().Crumbs) path += u"/" + crumb;
    return path;
  };
  CHECK(crumbs() == u"/This Computer/stick.img");
  t.Commands.Places().ShowFolder(t.Shown(u"Pictures"));
  t.Commands.Places().ShowFolder(t.Shown(u"Summer 2020"));
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures/Summer 2020");
  REQUIRE(t.Commands.Places().SelectedNode() != nullptr);
  CHECK(t.Commands.Places().SelectedNode()->Caption == u"Summer 2020");  // the tree was filled up to there
  const int beach = t.Shown(u"beach 3.png");
  t.Commands.Places().GoUp();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures");
  // Back and forward are steps along one line; another place cuts off what lay ahead.
  t.Commands.Places().GoBack();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures/Summer 2020");
  t.Commands.Places().GoBack();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures");
  CHECK(t.Commands.Place().CanGoForward);
  t.Commands.Places().GoForward();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures/Summer 2020");
  t.Commands.Places().GoForward();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures");
  CHECK_FALSE(t.Commands.Place().CanGoForward);
  t.Commands.Places().GoForward();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures");
  t.Commands.Places().GoBack();
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures/Summer 2020");
  t.Commands.Places().GoToCrumb(0);
  CHECK((t.Commands.Place().Category == TViewCategory::vcDrives));

  TFindOptions options;
  options.Text = u"BEACH ?.png";
  t.Commands.Places().Find(options);
  CHECK(t.Commands.View().Files().size() == 4);
  CHECK(t.Commands.Places().LocationOf(beach) == u"stick.img/Pictures/Summer 2020");
  t.Commands.View().Select({beach});
  REQUIRE(t.Commands.Execute(actFoundFileLocation));
  CHECK(crumbs() == u"/This Computer/stick.img/Pictures/Summer 2020");
  CHECK(t.Commands.View().Selected() == TIntegerDynArray{beach});
  t.Commands.Recoveries().PutOnList({beach, -7}, true);
  CHECK(t.Commands.Recoveries().List().Files() == TIntegerDynArray{beach});

  // A new analysis: the folder's row is gone, the drive's is not; no number of before is used again.
  const std::uint64_t before = t.Commands.View().Generation();
  REQUIRE(t.Commands.Execute(actFoldersReopen));
  CHECK(t.Commands.View().Generation() > before);
  CHECK(crumbs() == u"/This Computer/stick.img");
  CHECK(t.Commands.Recoveries().List().Files().empty());
  t.Commands.Places().GoBack();
  CHECK_FALSE(t.Commands.View().Files().empty());
  t.Commands.Places().SelectNode(t.Engine.Folders().GetDriveRootNode(0));
  REQUIRE(t.Commands.Execute(actFoldersCloseDisk));
  CHECK((t.Commands.Place().Category == TViewCategory::vcDrives));
  for (int i = 0; i < 5; ++i) t.Commands.Places().GoBack();
  CHECK(t.Commands.View().Files().empty());
}

TEST_CASE("the order of the list") {
  TProgram t;
  t.OpenStick();
  const auto names = [&] {
    std::vector<TString> list;
    for (const int number : t.Commands.View().Files()) {
      list.emplace_back(t.Engine.Files().List[static_cast<std::size_t>(number)].FileInfo.strName);
    }
    return list;
  };
  const std::vector<TString> up = names();
  t.Commands.View().SortByColumn(0);
  std::vector<TString> down = names();
  CHECK(up != down);
  // Folders stay on top, and turn round among themselves.
  const auto isFolder = [&](int n) {
    return bool{t.Engine.Files().List[static_cast<std::size_t>(n)].FileInfo.blnFolder};
  };
  CHECK(std::is_partitioned(t.Commands.View().Files().begin(), t.Commands.View().Files().end(), isFolder));
  CHECK(std::is_permutation(up.begin(), up.end(), down.begin(), down.end()));
  CHECK((t.Commands.Place().Sort == TSortOrder{TSortKey::Name, true}));
  t.Commands.View().SortByColumn(2);
  CHECK((t.Commands.Place().Sort == TSortOrder{TSortKey::Size, false}));
  t.Commands.View().SortByColumn(17);
  CHECK((t.Commands.Place().Sort.Key == TSortKey::Size));
}

TEST_CASE("a device that cannot be read is told of, not analysed") {
  TProgram t;
  std::string told;
  t.Commands.OnComplaint = [&](const std::string& text) { told = text; };
  TDriveInfo gone;
  gone.Caption = u"gone";
  gone.Drive = u"/no/such/device";
  gone.SectorsCount = 1000;
  gone.FileSystem = TFileSystem::fsNTFS;
  const int drive = t.Engine.Drives().Add(gone, true);
  CHECK_FALSE(t.Commands.Jobs().Analyse(t.Engine.Folders().GetDriveRootNode(drive), false));
  CHECK(told.find("/no/such/device") != std::string::npos);
  CHECK((t.Engine.Drives().List[static_cast<std::size_t>(drive)].Analysed == TAnalyseInformation::aiNone));
  told.clear();
  t.Commands.Jobs().RunMaster({drive, true, true, false, {}});
  CHECK_FALSE(told.empty());
  CHECK(t.Commands.Jobs().Mount("/no/such/device") == drive);  // in the list already, whatever became of it
}

TEST_CASE("looking for new devices keeps what is there") {
  TProgram t;
  t.Commands.Jobs().FillDrives();
  const std::size_t system = t.Engine.Drives().List.size();
  REQUIRE(t.Commands.Jobs().Mount(t.User.Image) >= 0);
  t.Commands.Places().SelectNode(t.Engine.Folders().GetDriveRootNode(static_cast<int>(system)));
  REQUIRE(t.Commands.Execute(TAction::actOpen));
  const std::size_t shown = t.Commands.View().Files().size();
  CHECK(shown > 3);
  REQUIRE(t.Commands.Execute(TAction::actRefresh));
  CHECK(t.Engine.Drives().List.size() == system + 1);
  CHECK(t.Commands.View().Files().size() == shown);
}

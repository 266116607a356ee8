// SPDX-License-Identifier: GPL-3.0-or-later
// The program without a window, for tests of what its commands do.
#pragma once

#include <doctest/doctest.h>

#include <fstream>
#include <optional>
#include <string>

#include "analysis/folders.h"
#include "recovery/questions.h"
#include "shell/commands.h"
#include "support/images.h"
#include "table/files.h"

namespace brenlow::test {

struct TNoQuestions final : IRecoveryQuestions {
  TRenameAnswer Rename(const TRenameQuestion&) override { return {}; }
  TFileExistsAnswer FileExists(const TFileExistsQuestion&) override { return {}; }
  TCandidateAnswer ChooseFirstCluster(const TFile&) override { return {}; }
  bool SaveToSameDrive() override { return true; }
  bool MuchLargerThanSource(std::int64_t, std::int64_t) override { return true; }
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

/// The program with an image as a file to mount, the demo stick when none is given.
struct TProgram {
  TTemporaryFolder Folder;
  TEngine Engine;
  TView View;
  TSettings Settings;
  TUser User;
  TNoQuestions Questions;
  TCommands Commands{Engine, Settings, User, Questions};

  explicit TProgram(const TImage& stick = LoadTestImage("demo-stick.img.zst")) {
    Engine.Folders().AssignTreeView(&View);
    std::ofstream file(Folder.Path() + "/stick.img", std::ios::binary);
    file.write(reinterpret_cast<const char*>(stick.data()), static_cast<std::streamsize>(stick.size()));
    User.Image = Folder.Path() + "/stick.img";
  }
  bool Can(TAction action) const { return Commands.EnabledActions().Has(action); }
  /// Mounts the stick, selects its drive in the list and opens it.
  void OpenStick() {
    REQUIRE(Commands.Execute(TAction::actMountImage));
    Commands.Places().SelectNode(Engine.Folders().GetRootNode(0));
    Commands.View().Select(Commands.View().Files());
    REQUIRE(Commands.Execute(TAction::actOpen));
  }
  int Shown(TStringView name) const {
    for (const int number : Commands.View().Files()) {
      TFiles& files = const_cast<TEngine&>(Engine).Files();
      if (files.List[static_cast<std::size_t>(number)].FileInfo.strName == name) return number;
    }
    return -1;
  }
};

}  // namespace brenlow::test

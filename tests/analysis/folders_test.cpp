// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/folders.h"

#include <doctest/doctest.h>

#include "analysis/analysis.h"
#include "core/language.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// Counts what it is told, and keeps the tree's shape by it.
struct TView final : IFolderTreeView {
  int Nodes = 0;
  int WaitCursors = 0;
  int Collapsed = 0;
  void NodeAdded(const TTreeNode&) override { ++Nodes; }
  void NodeDeleted(const TTreeNode& node) override { Nodes -= Count(node); }
  void NodeChanged(const TTreeNode&) override {}
  void ChildrenSorted(const TTreeNode&) override {}
  void Collapse(const TTreeNode&) override { ++Collapsed; }
  void SetWaitCursor(bool on) override { WaitCursors += on ? 1 : 0; }
  static int Count(const TTreeNode& node) {
    int count = 1;
    for (const auto& child : node.Children) count += Count(*child);
    return count;
  }
};

struct TTree {
  TEngine Engine;
  TView View;
  TFolders& Folders = Engine.Folders();
  int Drive = -1;
  PTreeNode Node = nullptr;

  TTree() {
    Folders.AssignTreeView(&View);
    TDriveInfo drive;
    drive.Caption = u"disk";
    drive.DriveTypes = {TDriveType::dtVolume};
    Drive = Engine.Drives().Add(drive, false);
    Node = Folders.AddDrive(Drive);
  }
  int Add(TStringView name, std::int64_t key, std::int64_t parent, bool folder = true, bool deleted = false) {
    TFileInfo info;
    TFiles::ClearInfo(info, Drive);
    info.strName = name;
    info.FirstCluster = key;
    info.blnFolder = folder;
    info.blnDeleted = deleted;
    return Engine.Files().Add(info, parent, true);
  }
  static std::string Names(const TTreeNode* node) {
    std::string names;
    for (const auto& child : node->Children) names += ToUtf8(child->Caption) + (child->HasNil ? "+ " : " ");
    return names;
  }
  /// The view was told of every node that there is.
  bool ViewAgrees() const { return View.Nodes == TView::Count(Folders.Root()) - 1; }
};

TFatBuilder VolumeWithFolders() {
  TFatBuilder fat(TFatShape{});
  fat.PutEntry(fat.RootAt(), {"HOME       ", 0x10, 5});
  fat.Chain({5});
  fat.PutDots(5, 0);
  fat.PutEntry(fat.ClusterAt(5) + 64, {"PHOTOS     ", 0x10, 6});
  fat.PutEntry(fat.ClusterAt(5) + 96, {"NOTE    TXT", 0x20, 9, 3});
  fat.Chain({6});
  fat.PutDots(6, 5);
  fat.Chain({9});
  return fat;
}

}  // namespace

TEST_CASE("the tree is filled one level ahead, once, in alphabetical order") {
  TTree t;
  t.Add(u"b", 10, -8);
  t.Add(u"A", 11, -8);
  t.Add(u"c", 12, -8);
  t.Add(u"file", 13, -8, false);
  t.Add(u"inner", 20, 10);
  t.Add(u"innermost", 30, 20);
  t.Folders.FillDriveNodes(t.Node);
  // Only what has folders below keeps an expander; the deep analysis folder always does.
  CHECK(TTree::Names(t.Node) == "A b c Deep analysis+ ");
  PTreeNode b = t.Node->Children[1].get();
  CHECK(TTree::Names(b) == "inner+ ");
  CHECK(b->Children[0]->Children.empty());
  t.Folders.FillNodes(b, true);
  CHECK(TTree::Names(b) == "inner ");
  CHECK(TTree::Names(b->Children[0].get()) == "innermost+ ");
  // Again: nothing is doubled, and a deep analysis folder without content keeps its placeholder.
  t.Folders.FillDriveNodes(t.Node);
  t.Folders.FillNodes(t.Node, true);
  CHECK(TTree::Names(t.Node) == "A b c Deep analysis+ ");
  CHECK(t.ViewAgrees());

  TFileInfo deep;
  TFiles::ClearInfo(deep, t.Drive);
  deep.FirstCluster = -107;
  deep.aDeepAnalyse = true;
  deep.strName = u"JPEG";
  t.Engine.Files().Add(deep, SpecialCluster::DeepAnalyse, true);
  CHECK(TTree::Names(t.Folders.GetDeepNode(t.Drive)) == "JPEG ");
  t.Engine.Files().ClearDeep(t.Drive);
  CHECK(TTree::Names(t.Node) == "A b c Deep analysis+ ");
  CHECK(TTree::Names(t.Folders.GetDeepNode(t.Drive)).empty());
  CHECK(t.ViewAgrees());
}

TEST_CASE("the wait cursor shows from 49 children on; wrong numbers are ignored") {
  TTree t;
  for (int i = 0; i < 48; ++i) t.Add(u"folder", 100 + i, -8);
  t.Folders.FillDriveNodes(t.Node);
  t.Folders.DriveDeleted(99);
  t.Engine.Files().AddDeepAnalyseDir(99, true);
  CHECK(t.Node->Children.size() == 49);  // with the deep analysis
  CHECK(t.View.WaitCursors == 0);
  t.Folders.FillNodes(t.Node, false);
  CHECK(t.View.WaitCursors == 0);
  t.Folders.FillNodes(t.Node, true);
  CHECK(t.View.WaitCursors == 1);
  t.Node->Children.pop_back();
  t.Folders.FillNodes(t.Node, true);
  CHECK(t.View.WaitCursors == 1);
  CHECK_FALSE(t.Folders.AnalyseNode(nullptr, false));
  CHECK_FALSE(t.Folders.AnalyseNode(t.Folders.AddMyComputer(), false));
  CHECK_FALSE(t.Folders.Add(t.Node, 99999));
}

TEST_CASE("groups stand in their order and go with their last drive; numbers follow the table") {
  TTree t;
  PTreeNode custom = t.Folders.AddCustomFoldersRoot();
  CHECK(t.Folders.AddMyComputer() == t.Node->Parent);
  TDriveInfo found;
  found.Caption = u"found";
  found.DriveTypes = {TDriveType::dtVolume, TDriveType::dtFound};
  const int second = t.Engine.Drives().Add(found, false);
  PTreeNode node = t.Folders.AddDrive(second);
  PTreeNode unselected = t.Folders.InsertUnselectedNode(custom);
  CHECK(TTree::Names(&t.Folders.Root()) == "My computer Found partitions (nothing selected) Folders ");
  CHECK_FALSE(t.Folders.NodeCanBeAnalysed(unselected));
  CHECK(t.Folders.GetRootNode(second) == node->Parent);
  t.Folders.PartRecChangeDriveCaption(second, u"renamed");
  t.Add(u"gone", 10, -8);
  t.Folders.FillDriveNodes(t.Node);

  // The first drive goes: its rows too, and the second one's node leads to its row as before.
  t.Engine.Drives().Delete(t.Drive);
  CHECK(t.Folders.GetDriveRootNode(0) == node);
  CHECK(t.Engine.Files().List[static_cast<std::size_t>(node->Data)].FileInfo.strName == u"renamed");
  CHECK(TTree::Names(&t.Folders.Root()) == "Found partitions (nothing selected) Folders ");

  TLanguage german;
  REQUIRE(TLanguage::Load(BRENLOW_LANGUAGES, "German", german));
  t.Engine.ChangeLanguage(german);
  CHECK(TTree::Names(&t.Folders.Root()) == "Gefundene Partitionen (nichts ausgewählt) Ordner ");
  t.Engine.Drives().Delete(0);
  CHECK(TTree::Names(&t.Folders.Root()) == "(nichts ausgewählt) Ordner ");
  CHECK(t.ViewAgrees());
}

TEST_CASE("a node leads to an analysis, also through the progress display and again") {
  TEngine engine;
  TView view;
  TFolders& folders = engine.Folders();
  folders.AssignTreeView(&view);
  engine.Drives().OnAdded = [&](int number) { folders.AddDrive(number); };
  const TMounted source = Mount(engine, VolumeWithFolders().Image);
  PTreeNode node = folders.AddDrive(source.Number);
  REQUIRE(node != nullptr);
  CHECK(node->HasNil);
  bool showing = true;
  folders.OnGetIsAnalyseProgressShowing = [&] { return showing; };
  folders.OnShowAnalyseProgress = [&](int drive) { AnalyseDrive(engine, drive); };
  CHECK_FALSE(folders.AnalyseNode(node, true));
  showing = false;
  CHECK(folders.AnalyseNode(node, true));
  CHECK(TTree::Names(node) == "Deep analysis+ HOME ");
  CHECK(folders.AnalyseNode(node, false));
  CHECK(TTree::Names(node) == "Deep analysis+ HOME ");
  CHECK(view.Collapsed > 0);

  TIntegerDynArray files, inside;
  folders.GetFilesInside(static_cast<int>(node->Data), TFileFilter(), files, inside);
  CHECK(files.size() == 1);
  CHECK(inside.size() == 3);  // HOME, PHOTOS and the deep analysis
  TFileFilter images{true, true, false, false, false, false, false, true, false};
  folders.GetFilesInside(static_cast<int>(node->Data), images, files, inside);
  CHECK(files.empty());
}

TEST_CASE("a folder of the host stands for its place on the analysed drive") {
  TEngine engine;
  TView view;
  TFolders& folders = engine.Folders();
  folders.AssignTreeView(&view);
  const TMounted source = Mount(engine, VolumeWithFolders().Image);
  folders.AddDrive(source.Number);
  PTreeNode group = folders.AddCustomFoldersRoot();
  CHECK(folders.AddCustomFolder(group, "/mnt/stick/HOME", u"home", -1) == -1);
  DriveOf(engine, source.Number).DriveLetter = u"/mnt/stick";
  REQUIRE(folders.AddCustomFolder(group, "/mnt/stick/home", u"home", -1) == 0);
  REQUIRE(folders.AddCustomFolder(group, "/mnt/stick/HOME/gone", u"gone", -1) == 1);
  CHECK(folders.CustomFoldersInDrive(source.Number) == 2);
  PTreeNode home = folders.CustomFolders[0].TN;
  CHECK_FALSE(engine.Files().IsFiltered(folders.CustomFolders[0].FileIndex, false, TFileFilter()));
  CHECK(folders.AnalyseNode(home, false));
  CHECK(TTree::Names(home) == "PHOTOS ");
  CHECK(folders.CustomFolders[1].TN->Children.empty());
  engine.Files().Clear(source.Number, false);
  CHECK(home->Children.empty());
  CHECK(home->HasNil);
  CHECK(folders.AnalyseNode(home, false));
  CHECK(TTree::Names(home) == "PHOTOS ");
}

// SPDX-License-Identifier: GPL-3.0-or-later
// What lies below a deleted folder counts as deleted wherever the window shows it, and what was put
// aside from several folders keeps its paths.
#include <doctest/doctest.h>

#include <filesystem>

#include "recovery/recovery_master.h"
#include "shell/entries.h"
#include "shell/program.h"
#include "support/fat_builder.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// A and B, live folders of one file of the same name each, and a deleted folder with a file and a
/// folder whose own entries were never marked.
TImage FoldersImage() {
  TFatBuilder fat(TFatShape{});
  constexpr std::uint8_t folder = 0x10;
  fat.PutEntry(fat.RootAt(), {"A          ", folder, 2, 0});
  fat.PutEntry(fat.RootAt() + 32, {"B          ", folder, 3, 0});
  fat.PutEntry(fat.RootAt() + 64, {"\xE5ONE       ", folder, 4, 0});
  for (const std::uint32_t cluster : {2U, 3U}) fat.Chain({cluster});
  for (const std::uint32_t cluster : {2U, 3U, 4U}) {
    fat.PutDots(cluster, 0);
    fat.PutEntry(fat.ClusterAt(cluster) + 64, {"SAME    TXT", 0x20, cluster + 8, 512});
    fat.Fill(cluster + 8, std::string(512, static_cast<char>('a' + cluster)));
  }
  for (const std::uint32_t cluster : {10U, 11U}) fat.Chain({cluster});
  fat.PutEntry(fat.ClusterAt(4) + 96, {"DEEPER     ", folder, 5, 0});
  fat.PutDots(5, 4);
  fat.PutEntry(fat.ClusterAt(5) + 64, {"LOWEST  TXT", 0x20, 13, 512});
  fat.Fill(13, std::string(512, 'z'));
  return fat.Image;
}

struct TBranches : TProgram {
  TBranches() : TProgram(FoldersImage()) {
    OpenStick();
    Home = Engine.Folders().GetDriveRootNode(0);
  }
  PTreeNode Home;
  int Number(TStringView name, TStringView folder) {
    Commands.Places().SelectNode(Home);
    Commands.Places().ShowFolder(Shown(folder));
    const int number = Shown(name);
    REQUIRE(number >= 0);
    return number;
  }
  TEntryStatus Status(int number) { return MakeRow(Engine, number, Commands.Places().InDeletedFolder(number)).Status; }
};

}  // namespace

TEST_CASE("below a deleted folder everything is deleted: status, filter, search and recovery") {
  using enum TAction;
  TBranches t;
  const int live = t.Number(u"SAME.TXT", u"A");
  CHECK((t.Status(live) == TEntryStatus::Existing));
  const int gone = t.Number(u"SAME.TXT", u"?ONE");
  CHECK((t.Status(gone) == TEntryStatus::Deleted));
  t.Commands.View().Select({gone});
  CHECK(t.Commands.Recoveries().GetSelectedFiles(TRecoverySender::rsFiles).front().blnDeleted);
  t.Commands.Execute(actFilterExisting);  // leaves what is deleted in view
  CHECK(t.Shown(u"SAME.TXT") == gone);
  t.Commands.Places().ShowFolder(t.Shown(u"DEEPER"));
  CHECK(t.Shown(u"LOWEST.TXT") >= 0);

  t.Commands.Execute(actFilterExisting);
  TFindOptions options;
  options.Text = u"*.txt";
  t.Commands.Places().Find(options);
  REQUIRE(t.Commands.View().Files().size() == 4);
  t.Commands.Execute(actFilterDeleted);  // leaves what is live
  CHECK(t.Commands.View().Files().size() == 2);
  for (const int number : t.Commands.View().Files()) CHECK((t.Status(number) == TEntryStatus::Existing));
}

TEST_CASE("files and folders put aside keep their paths") {
  using enum TAction;
  TBranches t;
  t.Commands.Recoveries().PutOnList(
      {t.Number(u"SAME.TXT", u"A"), t.Number(u"SAME.TXT", u"B"), t.Number(u"DEEPER", u"?ONE")}, true);
  t.Commands.Recoveries().ShowList(true);
  t.Commands.Recoveries().Settings.Path = t.Folder.Path() + "/out";
  t.Commands.Recoveries().Settings.CanReplaceSymbols = true;
  t.Commands.Recoveries().Settings.UnknownSymbols = u"_";
  std::int64_t whole = 0;
  t.Commands.OnRecoveryMaster = [&](TfRecoveryMaster& master) {
    master.Show();
    master.Next();
    master.Next();
    REQUIRE(master.FActivePage() == TfRecoveryMaster::Finish);
    whole = master.Progress()->Summary().Whole;
  };
  REQUIRE(t.Commands.Execute(actRecoveryFromList));
  CHECK(whole == 3);
  for (const char* path : {"A/SAME.TXT", "B/SAME.TXT", "_ONE/DEEPER/LOWEST.TXT"}) {
    CHECK_MESSAGE(std::filesystem::exists(t.Folder.Path() + "/out/" + path), path);
  }
}

// SPDX-License-Identifier: GPL-3.0-or-later
// Whose the settings are when the program runs under sudo.
#include <doctest/doctest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "shell/settings.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

constexpr unsigned User = 4321;

unsigned OwnerOf(const std::string& path) {
  struct stat status {};
  REQUIRE(::stat(path.c_str(), &status) == 0);
  return status.st_uid;
}

}  // namespace

TEST_CASE("settings under sudo belong to the user in the user's own folders, to root elsewhere") {
  if (::geteuid() != 0) {
    MESSAGE("only root can give files away");
    return;
  }
  const TTemporaryFolder folder;
  const std::string home = folder.Path() + "/home";
  const std::string rootHome = folder.Path() + "/root";
  for (const std::string& each : {home, rootHome}) std::filesystem::create_directory(each);
  REQUIRE(::chown(home.c_str(), User, User) == 0);
  ::setenv("SUDO_UID", "4321", 1);
  ::setenv("SUDO_GID", "4321", 1);
  for (const std::string& each : {home, rootHome}) {
    TSettingsFile file(each + "/.config/brenlow/Settings.ini");
    // The second time the file and its folders are there.
    for (int i = 0; i < 2; ++i) {
      CHECK(file.Save(TSettings(), TSourceGuard()));
      for (const char* part : {"/.config", "/.config/brenlow", "/.config/brenlow/Settings.ini"}) {
        CHECK(OwnerOf(each + part) == (each == home ? User : 0));
      }
    }
  }
  ::unsetenv("SUDO_UID");
  ::unsetenv("SUDO_GID");
}

TEST_CASE("settings that cannot be read are told from missing ones, and never replaced") {
  const TTemporaryFolder folder;
  TSettingsFile file(folder.Path() + "/Settings.ini");
  file.Load();
  CHECK(file.LoadError() == 0);
  std::filesystem::create_directory(file.Path());
  CHECK(file.Load().Main.Width == 1024);
  CHECK(file.LoadError() != 0);
  CHECK_FALSE(file.Save(TSettings(), TSourceGuard()));
}

TEST_CASE("settings never replace a file that is read as a source") {
  const TTemporaryFolder folder;
  TSettingsFile file(folder.Path() + "/Settings.ini");
  REQUIRE(file.Save(TSettings(), TSourceGuard()));
  TSourceGuard guard;
  guard.Add(*IdentityOf(file.Path()), false);
  TSettings other;
  other.Main.Width = 1;
  CHECK_FALSE(file.Save(other, guard));
  CHECK(file.Load().Main.Width == 1024);
}

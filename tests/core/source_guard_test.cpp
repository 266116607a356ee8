// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/device/source_guard.h"

#include <doctest/doctest.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "core/images/image_writer.h"
#include "core/images/rescue_map.h"
#include "recovery/target_tree.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;
namespace fs = std::filesystem;

namespace {

dev_t NumberOf(const std::string& text) {
  return makedev(static_cast<unsigned>(std::stoi(text)),
                 static_cast<unsigned>(std::stoi(text.substr(text.find(':') + 1))));
}

/// /proc and /sys of a machine that does not exist, written line by line.
struct TSystem {
  TTemporaryFolder Root;
  std::string Mounts;

  void Put(const std::string& path, const std::string& text) const {
    fs::create_directories(fs::path(Root.Path() + path).parent_path());
    std::ofstream(Root.Path() + path) << text;
  }
  /// A block device at a place in sysfs ("sda/sda1").
  TFileIdentity Device(const std::string& place, const std::string& number) const {
    const std::string folder = "/sys/devices/" + place;
    const std::string name = place.substr(place.rfind('/') + 1);
    Put(folder + "/dev", number + "\n");
    for (const std::string& link : {"/sys/dev/block/" + number, "/sys/class/block/" + name}) {
      fs::create_directories(fs::path(Root.Path() + link).parent_path());
      fs::create_directory_symlink(Root.Path() + folder, Root.Path() + link);
    }
    return {0, NumberOf(number)};
  }
  TFileIdentity Partition(const std::string& place, const std::string& number, int start, int size) const {
    const std::string folder = "/sys/devices/" + place;
    Put(folder + "/partition", "1\n");
    Put(folder + "/start", std::to_string(start) + "\n");
    Put(folder + "/size", std::to_string(size) + "\n");
    return Device(place, number);
  }
  TFileIdentity Loop(const std::string& name, const std::string& number, const std::string& file, int offset,
                     int limit) const {
    Put("/sys/devices/" + name + "/loop/backing_file", file + "\n");
    Put("/sys/devices/" + name + "/loop/offset", std::to_string(offset) + "\n");
    Put("/sys/devices/" + name + "/loop/sizelimit", std::to_string(limit) + "\n");
    return Device(name, number);
  }
  void Member(const std::string& device, const std::string& member) const {
    fs::create_directories(Root.Path() + "/sys/devices/" + device + "/slaves");
    const std::string name = member.substr(member.rfind('/') + 1);
    fs::create_directory_symlink(Root.Path() + "/sys/devices/" + member,
                                 Root.Path() + "/sys/devices/" + device + "/slaves/" + name);
  }
  /// A mount; the result is a file on it.
  TFileIdentity Mount(int id, const std::string& device, const std::string& rest) {
    Mounts += std::to_string(id) + " 1 " + device + " / /mnt/" + std::to_string(id) + " rw shared:1 - " + rest + "\n";
    Put("/proc/self/mountinfo", Mounts);
    return {NumberOf(device), static_cast<std::uint64_t>(1000 + id), id};
  }
  /// Whether a new file beside `place` would lie on the source.
  bool Lies(const TFileIdentity& place, const TFileIdentity& source) const {
    TSourceGuard guard(Root.Path());
    guard.Add(source);
    return guard.LiesOnSource(place);
  }
  bool IsSource(const TFileIdentity& what, const TFileIdentity& source) const {
    TSourceGuard guard(Root.Path());
    guard.Add(source);
    return guard.IsSource(what);
  }
};

}  // namespace

TEST_CASE("partitions and their disk overlap, two partitions do not") {
  TSystem system;
  const TFileIdentity disk = system.Device("sda", "8:0");
  const TFileIdentity first = system.Partition("sda/sda1", "8:1", 2048, 1000);
  const TFileIdentity second = system.Partition("sda/sda2", "8:2", 3048, 1000);
  const TFileIdentity onFirst = system.Mount(20, "8:1", "ext4 /dev/sda1 rw");
  CHECK(system.Lies(onFirst, first));
  CHECK(system.Lies(onFirst, disk));
  CHECK_FALSE(system.Lies(onFirst, second));
  CHECK_FALSE(system.Lies(onFirst, {0, makedev(8, 16)}));
  // An image on the first partition: other files may lie beside it, but the devices below are not to be written.
  TFileIdentity image = onFirst;
  image.Node = 77;
  CHECK_FALSE(system.Lies(onFirst, image));
  CHECK(system.IsSource(image, image));
  CHECK(system.IsSource(first, image));
  CHECK(system.IsSource(disk, image));
  CHECK_FALSE(system.IsSource(second, image));
  CHECK_FALSE(system.IsSource(onFirst, image));
}

TEST_CASE("loop devices are the files below them, whichever way round") {
  TSystem system;
  const TFileIdentity disk = system.Device("sda", "8:0");
  system.Put("/images/p.img", "image");
  system.Put("/images/other.img", "image");
  const TFileIdentity image = *IdentityOf(system.Root.Path() + "/images/p.img");
  const TFileIdentity whole = system.Loop("loop0", "7:0", "/images/p.img", 0, 0);
  const TFileIdentity again = system.Loop("loop1", "7:1", "/images/p.img", 0, 0);
  const TFileIdentity head = system.Loop("loop2", "7:2", "/images/p.img", 0, 4096);
  const TFileIdentity tail = system.Loop("loop3", "7:3", "/images/p.img", 4096, 0);
  const TFileIdentity other = system.Loop("loop4", "7:4", "/images/other.img", 0, 0);
  const TFileIdentity part = system.Partition("loop1/loop1p1", "259:1", 8, 8);
  const TFileIdentity onPart = system.Mount(30, "259:1", "vfat /dev/loop1p1 rw");
  for (const TFileIdentity& device : {whole, again, head, tail, part}) {
    CHECK(system.IsSource(device, image));
    CHECK(system.IsSource(image, device));
    CHECK(system.IsSource(device, whole));
  }
  CHECK_FALSE(system.IsSource(head, tail));
  CHECK_FALSE(system.IsSource(part, head));
  CHECK_FALSE(system.IsSource(other, image));
  CHECK_FALSE(system.IsSource(disk, whole));
  for (const TFileIdentity& source : {image, whole, again, part, tail}) CHECK(system.Lies(onPart, source));
  CHECK_FALSE(system.Lies(onPart, head));
  CHECK_FALSE(system.Lies(onPart, other));
}

TEST_CASE("an image on the source, mounted: the target lies on the source all the way down") {
  TSystem system;
  const TFileIdentity disk = system.Device("sdb", "8:16");
  const TFileIdentity volume = system.Device("dm-0", "253:0");
  system.Device("dm-1", "253:1");
  const TFileIdentity array = system.Device("md0", "9:0");
  system.Member("md0", "sdb");
  system.Member("dm-0", "md0");
  system.Member("dm-1", "md0");
  const TFileIdentity onVolume = system.Mount(40, "253:0", "xfs /dev/mapper/a rw");
  const TFileIdentity onSibling = system.Mount(41, "253:1", "xfs /dev/mapper/b rw");
  for (const TFileIdentity& source : {disk, array, volume}) CHECK(system.Lies(onVolume, source));
  CHECK_FALSE(system.Lies(onSibling, volume));
  CHECK(system.Lies(onSibling, array));
  CHECK(system.IsSource(array, volume));
  CHECK(system.IsSource(disk, volume));
  // Devices that are members of each other end the walk.
  system.Member("sdb", "dm-0");
  CHECK(system.Lies(onVolume, disk));
}

TEST_CASE("file systems with device numbers of their own: btrfs on all its devices, overlays on all sides") {
  TSystem system;
  const TFileIdentity one = system.Device("sdc", "8:32");
  const TFileIdentity two = system.Device("sdd", "8:48");
  const TFileIdentity three = system.Device("sde", "8:64");
  for (const char* name : {"sdc", "sdd"}) {
    fs::create_directories(system.Root.Path() + "/sys/fs/btrfs/0f3a/devices");
    fs::create_directory_symlink(system.Root.Path() + "/sys/devices/" + name,
                                 system.Root.Path() + "/sys/fs/btrfs/0f3a/devices/" + name);
  }
  TFileIdentity onBtrfs = system.Mount(50, "0:45", "btrfs /dev/sdc rw,subvol=/");
  onBtrfs.FileSystem = makedev(0, 46);  // of a subvolume; only the mount tells where it belongs
  CHECK(system.Lies(onBtrfs, one));
  CHECK(system.Lies(onBtrfs, two));
  CHECK_FALSE(system.Lies(onBtrfs, three));

  // The side is a folder of the machine that runs this test: what it lies on is the source.
  fs::create_directories(system.Root.Path() + "/lower one");
  fs::create_directories(system.Root.Path() + "/upper:side");
  const TFileIdentity side = *IdentityOf(system.Root.Path() + "/upper:side");
  const TFileIdentity onOverlay =
      system.Mount(60, "0:50", "overlay overlay rw,lowerdir=/lower\\040one,upperdir=/upper\\134:side,workdir=/work");
  CHECK(system.Lies(onOverlay, side));
  CHECK(system.Lies(onOverlay, *IdentityOf(system.Root.Path() + "/lower one")));
  // A source that was opened through the overlay is a file of the lower side.
  CHECK(system.IsSource(TFileIdentity{side.FileSystem, onOverlay.Node}, onOverlay));
  CHECK_FALSE(system.Lies(onOverlay, three));
  // Other file systems whose source is a device, an image or a folder.
  CHECK(system.Lies(system.Mount(70, "0:60", "fuse.thing /dev/sde rw"), three));
  CHECK(system.Lies(system.Mount(71, "0:61", "bcachefs /dev/sdc:/dev/sde rw"), three));
  CHECK(system.Lies(system.Mount(72, "0:62", "ecryptfs /upper:side rw"), side));
  CHECK_FALSE(system.Lies(system.Mount(73, "0:63", "tmpfs tmpfs rw"), three));
  CHECK_FALSE(system.Lies(TFileIdentity{makedev(0, 99), 1}, three));
}

TEST_CASE("paths: links, links to nothing, folders that are not there yet") {
  const TTemporaryFolder folder;
  const std::string& top = folder.Path();
  std::ofstream(top + "/p.img") << "image";
  fs::create_directories(top + "/a/b");
  fs::create_symlink("../../p.img", top + "/a/b/link");
  fs::create_symlink("a/b/link", top + "/chain");
  fs::create_symlink(top + "/not/there", top + "/dangling");
  fs::create_symlink("circle", top + "/circle");
  fs::create_hard_link(top + "/p.img", top + "/second name");
  TSourceGuard guard;
  CHECK_FALSE(guard.Forbids(top + "/p.img"));
  guard.Add(*IdentityOf(top + "/p.img"));
  for (const char* name : {"p.img", "a/b/link", "chain", "second name", "a/../p.img"}) {
    CHECK(guard.IsSource(top + "/" + name));
    CHECK(guard.Forbids(top + "/" + name));
  }
  for (const char* name : {"a", "a/new", "new/below/new", "dangling", "circle", ""}) {
    CHECK_FALSE(guard.Forbids(top + "/" + name));
  }
  const THandle open(::open((top + "/a/b").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  CHECK(guard.IsSource(open.Get(), "link"));
  CHECK_FALSE(guard.IsSource(open.Get(), "other"));

  // A guard of the folder's own device: everything in it lies on the source, through links as well.
  TSourceGuard disk;
  disk.Add(TFileIdentity{0, IdentityOf(top)->FileSystem});
  if (major(static_cast<dev_t>(IdentityOf(top)->FileSystem)) == 0) return;
  for (const char* name : {"a", "new/below/new", "dangling", "p.img", ""}) CHECK(disk.LiesOnSource(top + "/" + name));
  fs::create_symlink(top + "/a", top + "/folder link");
  CHECK(disk.LiesOnSource(top + "/folder link/new"));
}

TEST_CASE("the engine's own writers refuse what a source reads from, whatever its name") {
  const TTemporaryFolder folder;
  const std::string& top = folder.Path();
  const TImage stick = LoadTestImage("demo-stick.img.zst");
  const auto content = [](const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return TImage((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  };
  const auto put = [&](const std::string& name) {
    std::ofstream file(top + "/" + name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(stick.data()), static_cast<std::streamsize>(stick.size()));
  };
  struct TWay {
    const char* Source;
    const char* Image;
    const char* Map;
  };
  // Each name that an image writes: itself, its part, its map, the map's successor.
  for (const TWay& way : {TWay{"x.dsk", "x.img", ""}, TWay{"x.dsk.partial", "x", ""}, TWay{"y.map", "y", "y.map"},
                          TWay{"y.map.new", "y", "y.map"}}) {
    CAPTURE(way.Source);
    put(way.Source);
    for (const bool compressed : {false, true}) {
      if (compressed && *way.Map != '\0') continue;
      TEngine engine;
      const int number = engine.Drives().Mount(TextFromPath(top + "/" + way.Source), false);
      REQUIRE(number >= 0);
      const std::string map = *way.Map == '\0' ? "" : top + "/" + way.Map;
      const TImageResult result = engine.Drives().Save(number, 0, 64, top + "/" + way.Image, compressed, map);
      CHECK(result.SystemError == TSourceGuard::Refused);
      CHECK(result.Path == top + "/" + way.Source);
      CHECK((content(top + "/" + way.Source) == stick));
    }
    fs::remove(top + "/" + way.Source);
  }

  // The folder by another name.
  put("x.dsk");
  const TTemporaryFolder other;
  fs::create_directory_symlink(top, other.Path() + "/link");
  TEngine engine;
  const int number = engine.Drives().Mount(TextFromPath(top + "/x.dsk"), false);
  CHECK(engine.Drives().Save(number, 0, 64, other.Path() + "/link/x.dsk", false).SystemError == TSourceGuard::Refused);
  CHECK((content(top + "/x.dsk") == stick));

  // Files of a recovery: the name of a source is not replaced, and neither is a link to it.
  put("README.TXT");
  fs::create_symlink("README.TXT", top + "/link");
  TSourceGuard guard;
  guard.Add(*IdentityOf(top + "/README.TXT"));
  TTargetTree target;
  REQUIRE(target.Open(top, guard) == 0);
  for (const char* name : {"README.TXT", "link"}) {
    THandle handle;
    REQUIRE(target.CreatePartial(handle) == 0);
    CHECK(target.Finish(name, true) == EEXIST);
    CHECK(target.KeepPartial(name) == name);
  }
  CHECK((content(top + "/README.TXT") == stick));
  const dev_t device = static_cast<dev_t>(IdentityOf(top)->FileSystem);
  if (major(device) == 0) return;  // a file system without a device
  TSourceGuard disk;
  disk.Add(TFileIdentity{0, device});
  CHECK(TTargetTree().Open(top + "/new", disk) == TSourceGuard::Refused);
  CHECK_FALSE(fs::exists(top + "/new"));
  CHECK(TTargetTree().Open(top + "/new", disk, true) == 0);
}

// SPDX-License-Identifier: GPL-3.0-or-later
// What it takes to add a driver: the steps that every driver has, and a row of families. All other steps may
// be absent.
#include <doctest/doctest.h>

#include <set>

#include "core/families.h"
#include "fs/dispatch.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// The least that a driver can be.
class TDummy {
 public:
  static constexpr TPartRecSystem Family = TPartRecSystem::Btrfs;

  bool IsPartition(std::span<const std::uint8_t> buffer, std::size_t start) const { return start < buffer.size(); }
  bool GetDriveInfo(TDriveInfo& drive, bool /*fillTable*/) const { return drive.SectorsCount > 0; }
  void AnalyseSystem(int /*driveNumber*/) const {}
  void GetFiles(TDriveInfo& /*drive*/, TFileArray& result, bool /*rootDirOnly*/,
                const TOnFilesGotten& /*onFilesGotten*/) const {
    result.Clear();
  }
  bool MapStream(TDriveInfo& /*drive*/, TFile& /*file*/, int /*adsNumber*/, TFileStream& /*result*/) const {
    return false;
  }
  std::int64_t GetSizeOnDisk(const TFile& file) const { return file.FileInfo.aSize; }
};
static_assert(TFileSystemDriver<TDummy>);

/// Lacks the reading of files.
class TNoReader : public TDummy {
  using TDummy::MapStream;
};
static_assert(!TFileSystemDriver<TNoReader>);

}  // namespace

TEST_CASE("a driver without optional steps is asked for none of them") {
  TDummy dummy;
  TEngine engine;
  TDrives& drives = engine.Drives();
  const int number = Mount(engine, TImage(1 << 20)).Number;
  TDriveInfo volume = DriveOf(engine, number);
  volume.FileSystem = TFileSystem::fsBtrfs;
  const TByteDynArray bytes(512);
  CHECK(driver::GetFileSystem(dummy, bytes, 0) == TFileSystem::fsBtrfs);
  CHECK_FALSE(driver::SetVolumeBounds(dummy, volume, bytes));
  CHECK_FALSE(driver::IsVolumeSound(dummy, volume, bytes));
  CHECK(driver::RecogniseByCopy(dummy, volume, bytes, 512).System == TFileSystem::fsUnknown);
  CHECK_FALSE(driver::HoldsFolders(dummy, volume));
  CHECK_FALSE(driver::IsCopyOf(dummy, volume, volume));
  CHECK(driver::AllocationUnit(dummy, volume) == 0);
  CHECK(driver::Properties(dummy, volume).empty());
  CHECK_FALSE(driver::HasWaitingFiles(dummy, volume));
  driver::DoAfterAnalyse(dummy, volume);

  // One pass of a partition search: it opens no candidate and takes no sector, but a volume found by its
  // superblock gets its sub-drive, which goes at the end unless it holds something.
  driver::PartRecDoBeforeAnalyse(dummy, number);
  CHECK(driver::PartRecCandidate(dummy, volume) == TFileSystem::fsUnknown);
  driver::PartRecAnalyseSectors(dummy, bytes, number, 0);
  driver::PartRecNoteSector(dummy, bytes, number, 0);
  CHECK(driver::PartRecAccepts(dummy, volume, bytes));
  driver::PartRecAnalyseForNewDrive(dummy, bytes, 0, number, 0);
  CHECK_FALSE(driver::PartRecAnalyseSector(dummy, bytes, 0, number, 0, true));
  volume.FirstSector = 100;
  drives.PartRecInfo.FoundDrives = {volume};
  const int sub = driver::PartRecConfirm(dummy, drives, number, 0);
  REQUIRE(sub >= 0);
  CHECK(DriveOf(engine, sub).FirstSector == 100);
  CHECK(drives.PartRecInfo.FoundDrives.empty());
  driver::PartRecSubdriveAdded(dummy, volume);
  driver::PartRecVolumeKnown(dummy, volume, true);
  CHECK(volume.SectorsCount > 0);
  CHECK_FALSE(driver::PartRecIsAnalysed(dummy, volume));
  CHECK_FALSE(driver::PartRecCanBeTruncated(dummy, volume));
  driver::PartRecDriveAnalysed(dummy, sub);
  driver::PartRecFinishVolumes(dummy, number);
  CHECK_FALSE(driver::PartRecIsWorthKeeping(dummy, drives, sub));
  driver::PartRecDoAfterAnalyse(dummy, number);
  driver::PartRecClear(dummy);
}

TEST_CASE("the families: every search bit and every file system once, and each with a name of its own") {
  std::set<TPartRecSystem> bits;
  std::set<std::string_view> names;
  std::set<std::string_view> captions;
  std::set<TFileSystem> systems;
  std::size_t members = 0;
  for (const TFamily& family : Families()) {
    bits.insert(family.Bit);
    names.insert(family.ScriptName);
    captions.insert(family.Caption);
    members += family.Members.size();
    for (const TFamilyMember& member : family.Members) {
      systems.insert(member.System);
      CHECK(FamilyOf(member.System) == &family);
      CHECK(FileSystemCaption(member.System) != u"");
    }
  }
  const auto families = static_cast<std::size_t>(TPartRecSystem::DeepAnalysis);
  CHECK(bits.size() == families);
  CHECK(names.size() == families);
  CHECK(captions.size() == families);
  CHECK(systems.size() == members);
  CHECK(members == static_cast<std::size_t>(TFileSystem::fsHikvisionFS));
  CHECK(FamilyOf(TFileSystem::fsLUKS) == nullptr);
  CHECK(FamilyOf(TFileSystem::fsUnknown) == nullptr);
}

TEST_CASE("every driver serves its family, and no family without a driver is served") {
  TEngine engine;
  TPartRecSystems served;
  ForEachDriver(engine, [&](auto& driver) {
    constexpr TPartRecSystem bit = std::remove_reference_t<decltype(driver)>::Family;
    CHECK_FALSE(served.Has(bit));
    served.Add(bit);
    for (const TFamilyMember& member : FamilyOf(bit).Members) {
      const auto isSame = [&](auto& other) { return static_cast<const void*>(&other) == &driver; };
      CHECK(WithDriver(engine, member.System, isSame, false));
    }
  });
  CHECK(served == ServedFamilies());
}

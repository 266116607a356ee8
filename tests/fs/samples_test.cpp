// SPDX-License-Identifier: GPL-3.0-or-later
// For each format a folder of samples that must work, compared with their stored listings, and one
// of samples that must give nothing. With BRENLOW_ACCEPT set, new listings are written.
#include <doctest/doctest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "analysis/analysis.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;
namespace filesystem = std::filesystem;

namespace {

const filesystem::path Samples = filesystem::path(BRENLOW_TEST_DATA) / "samples";

/// Rows of the drive list and everything on its volumes. Times of generated folders are left out by
/// `WalkText`, which prints none for folders.
std::string ListingOf(const filesystem::path& sample) {
  TEngine engine;
  const TMounted mounted = Mount(engine, LoadTestImage(filesystem::relative(sample, BRENLOW_TEST_DATA).string()));
  REQUIRE(mounted.Number == 0);
  std::string text;
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    if (!engine.Drives().CanBeAnalysed(i)) continue;
    const TDriveInfo& drive = DriveOf(engine, i);
    text += "== " + ToUtf8(TDrives::GetSystemNameBySystem(drive.FileSystem)) + " at " +
            std::to_string(drive.FirstSector) + ", " + std::to_string(drive.SectorsCount) + " sectors, " +
            ToUtf8(drive.VolumeName) + "\n";
    AnalyseDrive(engine, i);
    text += WalkText(engine, i);
  }
  return text;
}

std::vector<filesystem::path> SamplesIn(const std::string& kind) {
  std::vector<filesystem::path> found;
  for (const auto& format : filesystem::directory_iterator(Samples)) {
    for (const auto& entry : filesystem::directory_iterator(format.path() / kind)) {
      if (entry.path().extension() == ".zst") found.push_back(entry.path());
    }
  }
  REQUIRE(!found.empty());
  return found;
}

}  // namespace

TEST_CASE("samples that must work give their stored listings") {
  for (const filesystem::path& sample : SamplesIn("good")) {
    filesystem::path stored = sample;
    stored.replace_extension().replace_extension(".listing");
    const std::string listing = ListingOf(sample);
    if (std::getenv("BRENLOW_ACCEPT") != nullptr) std::ofstream(stored) << listing;
    std::ifstream file(stored);
    const std::string wanted((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    CHECK_MESSAGE(listing == wanted, sample.string());
    CHECK_MESSAGE(!wanted.empty(), sample.string());
  }
}

TEST_CASE("samples that must fail give no volume or no file, and no fault") {
  for (const filesystem::path& sample : SamplesIn("bad")) {
    const std::string listing = ListingOf(sample);
    const std::size_t titleEnd = listing.find('\n');
    const bool nothing = listing.empty() || titleEnd + 1 == listing.size();
    CHECK_MESSAGE(nothing, sample.string() << ": " << listing);
  }
}

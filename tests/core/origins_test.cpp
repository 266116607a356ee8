// SPDX-License-Identifier: GPL-3.0-or-later
#include <doctest/doctest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "core/images/image_file.h"
#include "core/images/rescue_map.h"
#include "support/images.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("sources name every file that they read from: extents, descriptors and maps") {
  const TTemporaryFolder folder;
  const auto put = [&](const std::string& name, const std::string& text) {
    std::ofstream(folder.Path() + "/" + name) << text;
    return folder.Path() + "/" + name;
  };
  const std::string flat = put("d-flat.vmdk", std::string(4096, 'x'));
  const std::string descriptor = put("d.vmdk", "# Extent description\nRW 8 FLAT \"d-flat.vmdk\" 0\n");
  const std::string map = put("d.map", "0x0 ? 1\n0x0 0x1000 +\n");
  std::filesystem::create_symlink(flat, folder.Path() + "/link.img");
  const auto tells = [](const IDevice& device, const std::vector<std::string>& paths) {
    std::vector<TFileIdentity> origins;
    device.AddOrigins(origins);
    return origins.size() == paths.size() && std::all_of(paths.begin(), paths.end(), [&](const std::string& path) {
             return std::find(origins.begin(), origins.end(), *IdentityOf(path)) != origins.end();
           });
  };
  TOpenedDevice disk = OpenSource(descriptor);
  REQUIRE(disk.Device);
  CHECK(tells(*disk.Device, {flat, descriptor}));
  CHECK(tells(*OpenSource(folder.Path() + "/link.img").Device, {flat}));
  TRescueMap ranges(0);
  REQUIRE(TRescueMap::Load(map, ranges) == 0);
  CHECK(tells(*WithRescueMap(std::move(disk.Device), std::move(ranges)), {flat, descriptor, map}));
  CHECK_FALSE(IdentityOf(folder.Path() + "/nothing"));
}

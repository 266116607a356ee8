// SPDX-License-Identifier: GPL-3.0-or-later
// Devices and images for tests.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"
#include "core/types.h"

namespace brenlow::test {

using TImage = std::vector<std::uint8_t>;

/// A device in memory. Sectors (of 512 bytes) named bad fail; every access is counted.
class TMemoryDevice final : public IDevice {
 public:
  explicit TMemoryDevice(TImage image, int sectorSize = 0) : Image(std::move(image)), FSectorSize(sectorSize) {}
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override;
  std::int64_t Size() const override { return static_cast<std::int64_t>(Image.size()); }
  int SectorSize() const override { return FSectorSize; }
  void AddOrigins(std::vector<TFileIdentity>&) const override {}

  TImage Image;
  std::set<std::int64_t> BadSectors;
  int Accesses = 0;
  std::function<void()> OnRead;

 private:
  int FSectorSize;
};

/// Puts an image under the key and mounts it. The device belongs to the engine.
struct TMounted {
  int Number = -1;
  TMemoryDevice* Device = nullptr;
};
TMounted Mount(TEngine& engine, TImage image, TStringView key = u"/test.img", int sectorSize = 0);

inline TDriveInfo& DriveOf(TEngine& engine, int number) {
  return engine.Drives().List[static_cast<std::size_t>(number)];
}

/// The bytes of a zstd file of tests/data.
TImage LoadTestImage(const std::string& name);
/// A specimen of other origin ("fat/lfn.raw.zst"), when the folder is there; says so when not.
std::optional<TImage> LoadSpecimen(const std::string& name);

/// Everything below the drive's root as text, a line each: path, size, "deleted", modified, and
/// the CRC-32 of what reads back.
std::string WalkText(TEngine& engine, int driveNumber);

std::uint32_t Crc32(std::span<const std::uint8_t> bytes);

/// An empty folder that goes away with the object.
class TTemporaryFolder {
 public:
  TTemporaryFolder();
  ~TTemporaryFolder();
  TTemporaryFolder(const TTemporaryFolder&) = delete;
  TTemporaryFolder& operator=(const TTemporaryFolder&) = delete;
  const std::string& Path() const { return FPath; }

 private:
  std::string FPath;
};

}  // namespace brenlow::test

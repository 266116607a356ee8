// SPDX-License-Identifier: GPL-3.0-or-later
// A disk with bad places, for tests.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "core/device/device.h"
#include "support/images.h"

namespace brenlow::test {

/// A device in memory, ranges of which cannot be read. A request that touches such a range gives nothing,
/// as a disk does it, or with `GivesWhatLiesBefore` the bytes before it, as the page cache does it. All
/// ranges are bytes. Time passes on a clock of its own: a test never waits.
class TFailingDevice final : public IDevice {
 public:
  explicit TFailingDevice(TImage image, int sectorSize = 0) : Image(std::move(image)), FSectorSize(sectorSize) {}

  void Fail(std::int64_t start, std::int64_t size);
  void FailSectors(std::int64_t first, std::int64_t count = 1) { Fail(first * 512, count * 512); }
  /// The disk reads again.
  void Heal() { FBad.clear(); }
  bool IsBad(std::int64_t position) const;

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override;
  std::int64_t Size() const override { return static_cast<std::int64_t>(Image.size()); }
  int SectorSize() const override { return FSectorSize; }
  void AddOrigins(std::vector<TFileIdentity>&) const override {}

  /// How often a failed request touched the sector of 512 bytes that is the most asked for.
  int MostTriesOfASector() const;

  struct TFailure {
    std::int64_t Position;
    std::int64_t Size;
  };

  TImage Image;
  bool GivesWhatLiesBefore = false;
  std::int64_t FailureMilliseconds = 0;  ///< that each failure takes on `Clock`
  std::int64_t Clock = 0;                ///< milliseconds
  std::int64_t Accesses = 0;
  std::vector<TFailure> Failures;  ///< requests, in their order

 private:
  /// First bad byte at or after the position.
  std::int64_t NextBad(std::int64_t position) const;

  std::map<std::int64_t, std::int64_t> FBad;  // from start to end; disjoint
  int FSectorSize;
};

/// Puts a device under the key and mounts it. It belongs to the engine.
struct TMountedFailing {
  int Number = -1;
  TFailingDevice* Device = nullptr;
};
TMountedFailing MountFailing(TEngine& engine, std::unique_ptr<TFailingDevice> device, TStringView key = u"/bad.img");

}  // namespace brenlow::test

// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/device_table.h"
#include "core/drives.h"
#include "core/engine.h"

namespace brenlow::fuzz {

/// The bytes of one input as a device.
class TInputDevice final : public IDevice {
 public:
  TInputDevice(const std::uint8_t* data, std::size_t size) : FBytes(data, data + size) {}
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (position < 0 || position >= Size()) return 0;
    const auto count = std::min<std::size_t>(buffer.size(), FBytes.size() - static_cast<std::size_t>(position));
    std::copy_n(FBytes.begin() + position, count, buffer.begin());
    return count;
  }
  std::int64_t Size() const override { return static_cast<std::int64_t>(FBytes.size()); }
  int SectorSize() const override { return 0; }
  void AddOrigins(std::vector<TFileIdentity>&) const override {}

 private:
  std::vector<std::uint8_t> FBytes;
};

/// Mounts the input as the only source of the engine; its drive number, or -1.
inline int MountInput(TEngine& engine, const std::uint8_t* data, std::size_t size) {
  engine.Devices().Insert(u"/input", std::make_unique<TInputDevice>(data, size));
  return engine.Drives().Mount(u"/input", false);
}

}  // namespace brenlow::fuzz

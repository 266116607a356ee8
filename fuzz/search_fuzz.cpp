// SPDX-License-Identifier: GPL-3.0-or-later
// Both searches for lost partitions, over any bytes at the start of a drive that is otherwise empty.
#include <cstdint>
#include <cstdlib>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "memory_device.h"
#include "table/files.h"

namespace {

using namespace brenlow;

/// The input, and behind it zeros.
class TSparseDevice final : public IDevice {
 public:
  TSparseDevice(const std::uint8_t* data, std::size_t size) : FInput(data, size) {}
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (position < 0 || position >= Size()) return 0;
    const auto count = std::min(buffer.size(), static_cast<std::size_t>(Size() - position));
    std::fill_n(buffer.begin(), count, std::uint8_t{0});
    FInput.Read(position, buffer.first(count));
    return count;
  }
  std::int64_t Size() const override { return 16 << 20; }
  int SectorSize() const override { return 512; }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override { FInput.AddOrigins(origins); }
  std::int64_t NextData(std::int64_t position) override { return position < FInput.Size() ? position : Size(); }

 private:
  fuzz::TInputDevice FInput;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 513 || size > (1 << 18)) return 0;
  const std::uint8_t way = data[0];
  TEngine engine;
  engine.Devices().Insert(u"/input", std::make_unique<TSparseDevice>(data + 1, size - 1));
  TDriveInfo drive;
  drive.Drive = u"/input";
  drive.BytesPerSector = 512;
  drive.SectorsCount = 32768;
  drive.DriveTypes = {TDriveType::dtPhysical};
  engine.Drives().Add(drive, false);
  engine.Drives().Find(0, way, 32768 - way, {});
  for (const TDriveInfo& found : engine.Drives().List) {
    if (found.FirstSector < 0 || found.FirstSector + found.SectorsCount > 32768) std::abort();
  }
  engine.PartRecSystems = {TPartRecSystem::FAT, TPartRecSystem::NTFS};
  if ((way & 1) != 0) engine.PartRecSystems.Add(TPartRecSystem::DeepAnalysis);
  engine.PartRecRunning = true;
  AnalyseDrive(engine, 0);
  engine.PartRecRunning = false;
  TByteDynArray bytes;
  engine.Recovering = true;
  for (std::size_t i = 0; i < std::min<std::size_t>(engine.Files().List.size(), 64); ++i) {
    GetFileData(engine, bytes, engine.Files().List[i], -1, 0, 3000);
  }
  return 0;
}

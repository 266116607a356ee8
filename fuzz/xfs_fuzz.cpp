// SPDX-License-Identifier: GPL-3.0-or-later
// The XFS driver: any bytes as a volume, analysed, listed and read; and as a log. The first byte picks where
// reading starts. A volume is laid out over 16 MiB of zeros: inputs are a list of pieces, each with its place.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/numbers.h"
#include "fs/xfs/xfs.h"
#include "fs/xfs/xfs_log.h"
#include "memory_device.h"
#include "table/files.h"

namespace {

using namespace brenlow;

/// Pieces of 512 bytes that were cut out of a volume, each after the number of its sector (3 bytes).
class TPiecesDevice final : public IDevice {
 public:
  TPiecesDevice(const std::uint8_t* data, std::size_t size) : FBytes(data, data + size) {}
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (position < 0 || position >= Size()) return 0;
    const auto count = std::min<std::size_t>(buffer.size(), static_cast<std::size_t>(Size() - position));
    std::fill_n(buffer.begin(), count, std::uint8_t{0});
    for (std::size_t at = 0; at + Piece <= FBytes.size(); at += Piece) {
      const auto place = static_cast<std::int64_t>(ReadNumber(FBytes, true, 3, at)) * 512;
      const std::int64_t from = std::max(place, position);
      const std::int64_t until = std::min(place + 512, position + static_cast<std::int64_t>(count));
      if (from >= until) continue;
      std::copy_n(FBytes.begin() + static_cast<std::ptrdiff_t>(at + 3) + (from - place), until - from,
                  buffer.begin() + (from - position));
    }
    return count;
  }
  std::int64_t Size() const override { return std::int64_t{16} << 20; }
  int SectorSize() const override { return 0; }
  void AddOrigins(std::vector<TFileIdentity>&) const override {}

 private:
  static constexpr std::size_t Piece = 515;
  TByteDynArray FBytes;
};

class TIgnoringSink final : public xfs::ILogSink {
 public:
  void Inode(xfs::TLoggedInode inode) override { FCount += inode.Image.size(); }
  void Block(const xfs::TLoggedBlock& block) override { FCount += block.Pieces.size(); }
  bool GoOn(double) override { return FCount < 1'000'000; }

 private:
  std::size_t FCount = 0;
};

void WalkAsLog(const TXFSInfo& info, std::span<const std::uint8_t> bytes) {
  TIgnoringSink sink;
  const auto read = [&](std::int64_t at, std::span<std::uint8_t> buffer) {
    std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
    const auto rest = bytes.subspan(std::min(bytes.size(), static_cast<std::size_t>(at)));
    std::copy_n(rest.begin(), std::min(rest.size(), buffer.size()), buffer.begin());
  };
  xfs::WalkLog(info, static_cast<std::int64_t>(bytes.size()), read, sink);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 516 || size > (1 << 17)) return 0;
  const std::uint8_t way = data[0];
  TEngine engine;
  engine.Devices().Insert(u"/input", std::make_unique<TPiecesDevice>(data + 1, size - 1));
  const int number = engine.Drives().Mount(u"/input", false);
  if (number < 0) return 0;
  TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(number)];
  if (drive.FileSystem != TFileSystem::fsXFS) return 0;
  AnalyseDrive(engine, number);
  if (engine.Files().CountUnreached(number) != 0) std::abort();

  engine.Recovering = true;
  TByteDynArray bytes;
  TFileFragments fragments;
  for (std::size_t i = 0; i < std::min<std::size_t>(engine.Files().List.size(), 64); ++i) {
    TFile& file = engine.Files().List[i];
    GetFileData(engine, bytes, file, -1, way * 100, 10000);
    if (static_cast<std::int64_t>(bytes.size()) > std::max<std::int64_t>(file.FileInfo.aSize, 0)) std::abort();
    GetFileFragments(engine, file, fragments);
    engine.Files().GetSizeOnDisk(file);
    IsOverwritten(engine, file);
    PlaceOf(engine, file);
  }
  TFileArray listed;
  TDriveInfo copy = drive;
  GetDriveFiles(engine, copy, listed, (way & 1) != 0,
                [](TDriveInfo&, const TFileArray& files, bool& canBreak) { canBreak = files.size() > 20000; });
  WalkAsLog(XFSInfo(copy), {data + 1, size - 1});
  return 0;
}

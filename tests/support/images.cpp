// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/images.h"

#include <doctest/doctest.h>
#include <fmt/format.h>
#include <zstd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "analysis/file_data.h"
#include "analysis/tree_walk.h"
#include "table/files.h"

namespace brenlow::test {
namespace {

TImage Decompress(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string packed((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  TImage image;
  ZSTD_DStream* stream = ZSTD_createDStream();
  ZSTD_inBuffer in{packed.data(), packed.size(), 0};
  TImage piece(1 << 20);
  while (in.pos < in.size) {
    ZSTD_outBuffer out{piece.data(), piece.size(), 0};
    if (ZSTD_isError(ZSTD_decompressStream(stream, &out, &in)) != 0) break;
    image.insert(image.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(out.pos));
  }
  ZSTD_freeDStream(stream);
  return image;
}

class TTextWalk final : public ITreeVisitor {
 public:
  explicit TTextWalk(TEngine& engine) : FEngine(engine) {}
  bool File(const TTreeEntry& entry) override {
    const TFileInfo& info = entry.File->FileInfo;
    TByteDynArray data;
    TFile& file = FEngine.Files().List[static_cast<std::size_t>(entry.FileNumber)];
    GetFileData(FEngine, data, file, -1, 0, info.aSize);
    Text += fmt::format("{} {} {}{} {:08x}\n", ToUtf8(entry.Path), info.aSize, info.blnDeleted ? "deleted " : "",
                        IsoTime(info.TimeStamp.dtModified), Crc32(data));
    return true;
  }
  bool EnterFolder(const TTreeEntry& entry) override {
    Text += ToUtf8(entry.Path) + "/" + (entry.File->FileInfo.blnDeleted ? " deleted\n" : "\n");
    return true;
  }
  void LeaveFolder(const TTreeEntry&) override {}
  std::string Text;

 private:
  TEngine& FEngine;
};

}  // namespace

std::size_t TMemoryDevice::Read(std::int64_t position, std::span<std::uint8_t> buffer) {
  ++Accesses;
  if (OnRead) OnRead();
  const auto size = static_cast<std::int64_t>(Image.size());
  if (position < 0 || position >= size) return 0;
  const std::int64_t end = std::min(position + static_cast<std::int64_t>(buffer.size()), size);
  const auto bad = BadSectors.lower_bound(position / 512);
  // As a disk does it: the whole request fails.
  if (bad != BadSectors.end() && *bad * 512 < end) return 0;
  std::copy(Image.begin() + position, Image.begin() + end, buffer.begin());
  return static_cast<std::size_t>(end - position);
}

TMounted Mount(TEngine& engine, TImage image, TStringView key, int sectorSize) {
  auto device = std::make_unique<TMemoryDevice>(std::move(image), sectorSize);
  TMounted mounted;
  mounted.Device = device.get();
  engine.Devices().Insert(key, std::move(device));
  mounted.Number = engine.Drives().Mount(key, false);
  return mounted;
}

TImage LoadTestImage(const std::string& name) {
  TImage image = Decompress(std::string(BRENLOW_TEST_DATA) + "/" + name);
  REQUIRE_MESSAGE(!image.empty(), name);
  return image;
}

std::optional<TImage> LoadSpecimen(const std::string& name) {
  const std::string path = std::string(BRENLOW_SPECIMENS) + "/" + name;
  if (!std::filesystem::exists(path)) {
    MESSAGE("specimen not there, skipped: " << name);
    return std::nullopt;
  }
  if (path.ends_with(".zst")) return Decompress(path);
  std::ifstream file(path, std::ios::binary);
  return TImage((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::string WalkText(TEngine& engine, int driveNumber) {
  engine.Recovering = true;
  TTextWalk walk(engine);
  WalkTree(engine, driveNumber, walk);
  engine.Recovering = false;
  return walk.Text;
}

std::uint32_t Crc32(std::span<const std::uint8_t> bytes) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (const std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
  }
  return ~crc;
}

TTemporaryFolder::TTemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "brenlow-test-XXXXXX").string();
  REQUIRE(::mkdtemp(pattern.data()) != nullptr);
  FPath = pattern;
}

TTemporaryFolder::~TTemporaryFolder() {
  std::error_code error;
  std::filesystem::remove_all(FPath, error);
}

}  // namespace brenlow::test

// SPDX-License-Identifier: GPL-3.0-or-later
// What deep analysis does with disks made to wear it out.
#include <doctest/doctest.h>

#include <algorithm>
#include <map>

#include "analysis/analysis.h"
#include "analysis/deep/all_fs.h"
#include "core/language.h"
#include "support/failing_device.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

namespace {

/// A device that says where its holes end.
class TSparseDevice final : public IDevice {
 public:
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    ++Accesses;
    std::fill(buffer.begin(), buffer.end(), std::uint8_t{0});
    for (const auto& [at, text] : Texts) {
      if (at < position || at >= position + static_cast<std::int64_t>(buffer.size())) continue;
      std::copy(text.begin(), text.end(), buffer.begin() + (at - position));
    }
    return buffer.size();
  }
  std::int64_t Size() const override { return std::int64_t{1} << 44; }
  int SectorSize() const override { return 512; }
  std::int64_t NextData(std::int64_t position) override {
    const auto next = Texts.lower_bound(position / 4096 * 4096);
    return next == Texts.end() ? Size() : std::max(position, next->first / 4096 * 4096);
  }
  void AddOrigins(std::vector<TFileIdentity>&) const override {}

  std::map<std::int64_t, std::string> Texts;
  std::int64_t Accesses = 0;
};

}  // namespace

TEST_CASE("searches pass over the holes of 16 TiB, and find what lies between them") {
  auto device = std::make_unique<TSparseDevice>();
  TSparseDevice& sparse = *device;
  sparse.Texts = {{1 << 20, "8BPS"}, {(std::int64_t{1} << 43) + 512 * 77, "MSCF"}, {sparse.Size() - 512, "8BPS"}};
  TEngine engine;
  engine.Devices().Insert(u"/sparse.img", std::move(device));
  const int number = engine.Drives().Mount(u"/sparse.img", false);
  const auto found = [&] {
    std::string rows;
    const TFileArray& list = engine.Files().List;
    for (std::size_t i = 0; i < list.size(); ++i) {
      const TFileInfo& info = list[i].FileInfo;
      if (info.aDeepAnalyse && !info.blnFolder) rows += ToUtf8(info.strName) + " ";
    }
    return rows;
  };
  DeepAnalyseDrive(engine, number);
  CHECK(found() == "File 00001.psd File 00001.cab File 00002.psd ");
  CHECK(sparse.Accesses < 5000);

  sparse.Accesses = 0;
  engine.PartRecSystems = {TPartRecSystem::FAT, TPartRecSystem::NTFS, TPartRecSystem::DeepAnalysis};
  engine.PartRecRunning = true;
  AnalyseDrive(engine, number);
  CHECK(found() == "File 00001.psd File 00001.cab File 00002.psd ");
  CHECK(sparse.Accesses < 5000);
}

TEST_CASE("a disk of nothing but headers does not fill the memory with rows") {
  TImage image(2000 * 512);
  for (std::size_t sector = 1; sector < 2000; ++sector)
    std::copy_n("8BPS", 4, image.begin() + static_cast<std::ptrdiff_t>(sector * 512));
  TEngine engine;
  const TMounted source = Mount(engine, image);
  int messages = 0;
  engine.OnMessage = [&](const TEngineMessage& message) { messages += message.Id == TText::TooManyByContent ? 1 : 0; };
  engine.AllFS().MostRows = 100;
  DeepAnalyseDrive(engine, source.Number);
  CHECK(engine.Files().List.size() < 110);
  CHECK(messages == 1);
  engine.AllFS().MostRows = 5000;
  DeepAnalyseDrive(engine, source.Number);
  CHECK(engine.Files().List.size() >= 1999);
  CHECK(messages == 1);
}

// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/dsk_image.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/lznt1.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

// The least that 64 KiB can be packed into is 16 chunks of 6 bytes; a table of shorter ones is none.
constexpr std::uint16_t ShortestBlock = 16;   // bytes
constexpr std::size_t TableWindow = 0x80000;  // bytes of the length table read at once

class TCompressedImage final : public IDevice {
 public:
  TCompressedImage(std::unique_ptr<IDevice> file, TDiskImage image, std::int64_t size)
      : FFile(std::move(file)), FImage(std::move(image)), FSize(size) {}

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    std::size_t done = 0;
    while (done < buffer.size() && position < FSize && position >= 0) {
      if (!Load(position / dsk::BlockSize)) break;
      const auto within = static_cast<std::size_t>(position % dsk::BlockSize);
      if (within >= FBlock.size()) break;
      // The last block may hold more than the disk's size leaves room for.
      const std::size_t room = std::min(FBlock.size() - within, static_cast<std::size_t>(FSize - position));
      const std::size_t count = std::min(buffer.size() - done, room);
      std::memcpy(buffer.data() + done, FBlock.data() + within, count);
      done += count;
      position += static_cast<std::int64_t>(count);
    }
    return done;
  }
  std::int64_t Size() const override { return FSize; }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override { FFile->AddOrigins(origins); }
  int SectorSize() const override { return 0; }

 private:
  /// Makes a block ready in `FBlock`.
  bool Load(std::int64_t number) {
    if (number == FLoaded) return true;
    const auto index = static_cast<std::size_t>(number);
    if (index >= FImage.Table.size()) return false;
    FLoaded = -1;
    const std::int64_t place = std::llabs(FImage.Table[index]);
    const std::int64_t next =
        index + 1 < FImage.Table.size() ? std::llabs(FImage.Table[index + 1]) : FImage.CompressedFileSize;
    const auto length = static_cast<std::size_t>(std::clamp<std::int64_t>(next - place, 0, dsk::BlockSize));
    TByteDynArray& stored = FImage.Table[index] < 0 ? FBlock : FStored;
    stored.resize(length);
    if (FFile->Read(place, stored) != length) return false;
    if (&stored == &FStored && !DecompressLZNT1(FStored, FBlock, dsk::BlockSize)) return false;
    FLoaded = number;
    return true;
  }

  std::unique_ptr<IDevice> FFile;
  TDiskImage FImage;
  std::int64_t FSize;
  std::int64_t FLoaded = -1;
  TByteDynArray FBlock;
  TByteDynArray FStored;
};

TDiskImage ReadTable(IDevice& file, std::int64_t count) {
  TDiskImage image;
  image.Compressed = true;
  image.CompressedFileSize = file.Size();
  std::int64_t place = dsk::HeadSize + 2 * count;
  TByteDynArray window;
  for (std::int64_t i = 0; i < count; ++i) {
    const auto at = static_cast<std::size_t>(2 * i) % TableWindow;
    if (at == 0) {
      window.assign(static_cast<std::size_t>(std::min<std::int64_t>(TableWindow, 2 * (count - i))), 0);
      file.Read(dsk::HeadSize + 2 * i, window);
    }
    const std::uint16_t length = ReadLe16(window, at);
    const bool isLast = i + 1 == count;
    if (length == 0 || (length < ShortestBlock && !isLast) || place >= image.CompressedFileSize) break;
    const bool raw = length == dsk::StoredRaw;
    image.Table.push_back(raw ? -place : place);
    place += raw ? dsk::BlockSize : length;
  }
  return image;
}

}  // namespace

bool IsCompressedImage(std::span<const std::uint8_t> head) {
  constexpr std::size_t length = sizeof(dsk::Magic) - 1;
  return head.size() >= length && std::memcmp(head.data(), dsk::Magic, length) == 0;
}

TOpenedDevice OpenCompressedImage(std::unique_ptr<IDevice> file) {
  std::uint8_t head[dsk::HeadSize] = {};
  file->Read(0, head);
  const std::uint64_t size = ReadLe64(head, 8);
  const std::uint64_t count = ReadLe64(head, 16);
  const auto room = static_cast<std::uint64_t>(std::max<std::int64_t>(file->Size() - dsk::HeadSize, 0) / 2);
  const bool sound = size > 0 && size <= INT64_MAX / 2 && count <= room &&
                     count == static_cast<std::uint64_t>(CeilDiv(static_cast<std::int64_t>(size), dsk::BlockSize));
  if (!sound) return {std::move(file), 0};
  TDiskImage image = ReadTable(*file, static_cast<std::int64_t>(count));
  return {std::make_unique<TCompressedImage>(std::move(file), std::move(image), static_cast<std::int64_t>(size)), 0};
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/dsk_image.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

#include "core/lznt1.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

// The least that 64 KiB can be packed into is 16 chunks of 6 bytes; a table of shorter ones is none.
constexpr std::uint16_t ShortestBlock = 16;  // bytes

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
    FLoaded = -1;
    const auto block = number < FImage.Count() ? FImage.Find(number) : std::nullopt;
    if (!block) return false;
    TByteDynArray& stored = block->Raw ? FBlock : FStored;
    stored.resize(static_cast<std::size_t>(block->Length));
    if (FFile->Read(block->Place, stored) != stored.size()) return false;
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

}  // namespace

TDiskImage::TDiskImage(IDevice& file, std::int64_t count) : CompressedFileSize(file.Size()), FLengths(file) {
  std::int64_t place = dsk::HeadSize + 2 * count;
  for (; FCount < count; ++FCount) {
    const std::uint16_t length = StoredLength(FCount).value_or(0);
    const bool isLast = FCount + 1 == count;
    if (length == 0 || (length < ShortestBlock && !isLast) || place >= CompressedFileSize) break;
    if (FCount % Step == 0) Table.push_back(place);
    place += length == dsk::StoredRaw ? dsk::BlockSize : length;
  }
}

std::optional<std::uint16_t> TDiskImage::StoredLength(std::int64_t number) {
  const auto length = FLengths.Number(dsk::HeadSize + 2 * number, 2, true);
  return length ? std::optional(static_cast<std::uint16_t>(*length)) : std::nullopt;
}

std::optional<TDiskImage::TBlock> TDiskImage::Find(std::int64_t number) {
  const bool goesOn = FLast >= 0 && number >= FLast && number - FLast < Step;
  std::int64_t at = goesOn ? FLast : number / Step * Step;
  std::int64_t place = goesOn ? FLastPlace : Table[static_cast<std::size_t>(number / Step)];
  for (;; ++at) {
    const auto length = StoredLength(at);
    if (!length) return std::nullopt;
    const bool raw = *length == dsk::StoredRaw;
    const std::int64_t next = place + (raw ? dsk::BlockSize : *length);
    if (at == number) {
      std::tie(FLast, FLastPlace) = std::pair(at, place);
      // The last one has all that follows.
      const std::int64_t end = number + 1 < FCount ? next : CompressedFileSize;
      return TBlock{place, std::clamp<std::int64_t>(end - place, 0, dsk::BlockSize), raw};
    }
    place = next;
  }
}

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
  TDiskImage image(*file, static_cast<std::int64_t>(count));
  return {std::make_unique<TCompressedImage>(std::move(file), std::move(image), static_cast<std::int64_t>(size)), 0};
}

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/rescue_map.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string_view>
#include <utility>

#include "core/device/caller.h"

namespace brenlow {
namespace {

constexpr std::string_view Statuses = "?*/-+";
constexpr std::size_t MostRanges = 1 << 22;

class TMappedImage final : public IDevice {
 public:
  TMappedImage(std::unique_ptr<IDevice> image, TRescueMap map) : FImage(std::move(image)), FMap(std::move(map)) {}

  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    if (position < 0) return 0;
    std::int64_t good = 0;
    while (good < static_cast<std::int64_t>(buffer.size()) && position + good < FMap.Size()) {
      if (FMap.At(position + good) != TMapStatus::Finished) break;
      good = FMap.EndOfRange(position + good) - position;
    }
    const auto count = static_cast<std::size_t>(std::min(good, static_cast<std::int64_t>(buffer.size())));
    return count == 0 ? 0 : FImage->Read(position, buffer.first(count));
  }
  std::int64_t Size() const override { return FImage->Size(); }
  void AddOrigins(std::vector<TFileIdentity>& origins) const override {
    FImage->AddOrigins(origins);
    if (FMap.Origin()) origins.push_back(*FMap.Origin());
  }
  int SectorSize() const override { return FImage->SectorSize(); }

 private:
  std::unique_ptr<IDevice> FImage;
  TRescueMap FMap;
};

}  // namespace

TRescueMap::TRescueMap(std::int64_t size) : FSize(size) { FRanges[0] = TMapStatus::NotTried; }

/// Makes a range begin at the position.
void TRescueMap::Split(std::int64_t position) {
  if (position <= 0 || position >= FSize) return;
  const auto range = std::prev(FRanges.upper_bound(position));
  if (range->first != position) FRanges.emplace_hint(std::next(range), position, range->second);
}

void TRescueMap::Set(std::int64_t position, std::int64_t size, TMapStatus status) {
  const std::int64_t end = std::min(position + size, FSize);
  if (position < 0 || position >= end) return;
  Split(position);
  Split(end);
  auto first = FRanges.lower_bound(position);
  first->second = status;
  const auto last = FRanges.lower_bound(end);
  FRanges.erase(std::next(first), last);
  // Neighbours of one status are one range.
  if (const auto next = std::next(first); next != FRanges.end() && next->second == status) FRanges.erase(next);
  if (first != FRanges.begin() && std::prev(first)->second == status) FRanges.erase(first);
}

TMapStatus TRescueMap::At(std::int64_t position) const { return std::prev(FRanges.upper_bound(position))->second; }

std::int64_t TRescueMap::EndOfRange(std::int64_t position) const {
  const auto next = FRanges.upper_bound(position);
  return next == FRanges.end() ? FSize : next->first;
}

std::int64_t TRescueMap::Find(std::int64_t position, const std::function<bool(TMapStatus)>& wanted) const {
  if (position >= FSize) return FSize;
  for (auto range = std::prev(FRanges.upper_bound(position)); range != FRanges.end(); ++range) {
    if (wanted(range->second)) return std::max(range->first, position);
  }
  return FSize;
}

std::int64_t TRescueMap::Count(TMapStatus status) const {
  std::int64_t bytes = 0;
  for (const auto& [start, value] : FRanges) {
    if (value == status) bytes += EndOfRange(start) - start;
  }
  return bytes;
}

int TRescueMap::Load(const std::string& path, TRescueMap& map) {
  std::ifstream file(path);
  if (!file) return errno;
  struct TRange {
    std::int64_t Start;
    std::int64_t Size;
    char Status;
  };
  std::vector<TRange> ranges;
  std::string line;
  std::int64_t end = 0;
  bool statusLine = true;  // the first line says how far the program had come
  while (std::getline(file, line)) {
    if (line.empty() || line[0] == '#') continue;
    if (std::exchange(statusLine, false)) continue;
    std::istringstream words(line);
    std::string start;
    std::string size;
    TRange range{};
    if (!(words >> start >> size >> range.Status)) return EINVAL;
    range.Start = std::strtoll(start.c_str(), nullptr, 0);
    range.Size = std::strtoll(size.c_str(), nullptr, 0);
    const bool fits = range.Start == end && range.Size > 0 && range.Size <= INT64_MAX - end;
    if (!fits || Statuses.find(range.Status) == std::string_view::npos || ranges.size() >= MostRanges) return EINVAL;
    end = range.Start + range.Size;
    ranges.push_back(range);
  }
  if (ranges.empty()) return EINVAL;
  map = TRescueMap(end);
  map.FOrigin = IdentityOf(path);
  for (const TRange& range : ranges) map.Set(range.Start, range.Size, static_cast<TMapStatus>(range.Status));
  return 0;
}

int TRescueMap::Save(const std::string& path) const {
  const std::string beside = SuccessorName(path);
  const int handle = OpenOrCreate(AT_FDCWD, beside.c_str(), O_WRONLY | O_CLOEXEC | O_TRUNC, 0666);
  std::FILE* file = handle < 0 ? nullptr : ::fdopen(handle, "w");
  if (file == nullptr) {
    const int error = errno;
    if (handle >= 0) ::close(handle);
    return error;
  }
  const bool finished = Find(0, [](TMapStatus status) { return status != TMapStatus::Finished; }) == FSize;
  std::fprintf(file, "# Mapfile. Created by Brenlow Partition Recovery\n# current_pos  current_status  current_pass\n");
  std::fprintf(file, "0x%08llX     %c               1\n#      pos        size  status\n",
               static_cast<unsigned long long>(0), finished ? '+' : '?');
  for (const auto& [start, status] : FRanges) {
    std::fprintf(file, "0x%08llX  0x%08llX  %c\n", static_cast<unsigned long long>(start),
                 static_cast<unsigned long long>(EndOfRange(start) - start), static_cast<char>(status));
  }
  const bool failed = std::ferror(file) != 0;
  if (std::fclose(file) != 0 || failed) return errno != 0 ? errno : EIO;
  return std::rename(beside.c_str(), path.c_str()) == 0 ? 0 : errno;
}

std::unique_ptr<IDevice> WithRescueMap(std::unique_ptr<IDevice> image, TRescueMap map) {
  return std::make_unique<TMappedImage>(std::move(image), std::move(map));
}

}  // namespace brenlow

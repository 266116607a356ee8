// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/failing_device.h"

#include <algorithm>
#include <iterator>

namespace brenlow::test {

void TFailingDevice::Fail(std::int64_t start, std::int64_t size) {
  std::int64_t end = start + size;
  auto range = FBad.upper_bound(start);
  if (range != FBad.begin() && std::prev(range)->second >= start) --range;
  while (range != FBad.end() && range->first <= end) {
    start = std::min(start, range->first);
    end = std::max(end, range->second);
    range = FBad.erase(range);
  }
  FBad[start] = end;
}

std::int64_t TFailingDevice::NextBad(std::int64_t position) const {
  auto range = FBad.upper_bound(position);
  if (range != FBad.begin() && std::prev(range)->second > position) return position;
  return range == FBad.end() ? INT64_MAX : range->first;
}

bool TFailingDevice::IsBad(std::int64_t position) const { return NextBad(position) == position; }

std::size_t TFailingDevice::Read(std::int64_t position, std::span<std::uint8_t> buffer) {
  ++Accesses;
  if (position < 0 || position >= Size()) return 0;
  std::int64_t end = std::min(position + static_cast<std::int64_t>(buffer.size()), Size());
  if (const std::int64_t bad = NextBad(position); bad < end) {
    Failures.push_back({position, end - position});
    Clock += FailureMilliseconds;
    end = GivesWhatLiesBefore ? bad : position;
  }
  std::copy(Image.begin() + position, Image.begin() + end, buffer.begin());
  return static_cast<std::size_t>(end - position);
}

int TFailingDevice::MostTriesOfASector() const {
  std::map<std::int64_t, int> tries;
  for (const TFailure& failure : Failures) {
    for (std::int64_t at = failure.Position / 512; at * 512 < failure.Position + failure.Size; ++at) {
      if (IsBad(at * 512)) ++tries[at];
    }
  }
  int most = 0;
  for (const auto& [sector, count] : tries) most = std::max(most, count);
  return most;
}

TMountedFailing MountFailing(TEngine& engine, std::unique_ptr<TFailingDevice> device, TStringView key) {
  TMountedFailing mounted;
  mounted.Device = device.get();
  engine.Devices().Insert(key, std::move(device));
  mounted.Number = engine.Drives().Mount(key, false);
  return mounted;
}

}  // namespace brenlow::test

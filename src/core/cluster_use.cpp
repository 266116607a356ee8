// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/cluster_use.h"

#include <algorithm>
#include <bit>

namespace brenlow {

TClusterUse::TClusterUse(TByteDynArray bits) : FBits(std::move(bits)) {
  FRanks.reserve(FBits.size() / BytesPerRank + 1);
  std::uint64_t used = 0;
  for (std::size_t i = 0; i < FBits.size(); ++i) {
    if (i % BytesPerRank == 0) FRanks.push_back(used);
    used += static_cast<std::uint64_t>(std::popcount(FBits[i]));
  }
}

bool TClusterUse::IsUsed(std::int64_t cluster) const {
  const auto byte = static_cast<std::size_t>(cluster / 8);
  return cluster >= 0 && byte < FBits.size() && (FBits[byte] >> (cluster % 8) & 1) != 0;
}

std::uint64_t TClusterUse::UsedBefore(std::int64_t cluster) const {
  const std::int64_t end = std::clamp<std::int64_t>(cluster, 0, static_cast<std::int64_t>(FBits.size()) * 8);
  if (end == 0) return 0;
  // The last cluster counted decides the block, so that an end on its border needs none after it.
  const auto block = static_cast<std::size_t>((end - 1) / 8 / BytesPerRank);
  std::uint64_t used = FRanks[block];
  for (auto byte = static_cast<std::int64_t>(block) * BytesPerRank; byte < end / 8; ++byte) {
    used += static_cast<std::uint64_t>(std::popcount(FBits[static_cast<std::size_t>(byte)]));
  }
  if (end % 8 != 0) {
    const unsigned below = (1U << (end % 8)) - 1;
    used += static_cast<std::uint64_t>(std::popcount(FBits[static_cast<std::size_t>(end / 8)] & below));
  }
  return used;
}

bool TClusterUse::IsAnyUsed(const TClusterRun& run) const {
  if (run.Count <= 0 || run.First > INT64_MAX - run.Count) return false;
  return UsedBefore(run.First + run.Count) != UsedBefore(run.First);
}

}  // namespace brenlow

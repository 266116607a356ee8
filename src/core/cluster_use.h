// SPDX-License-Identifier: GPL-3.0-or-later
// Which clusters of a volume are in use, and rows of clusters.
#pragma once

#include <cstdint>
#include <vector>

#include "core/types.h"

namespace brenlow {

/// Adjacent clusters of a volume.
struct TClusterRun {
  std::int64_t First = 0;
  std::int64_t Count = 0;
};
using TClusterRuns = std::vector<TClusterRun>;

/// The clusters that a file says are its own.
struct TClaim {
  TClusterRuns Content;  ///< of the content, in the order of the file; holes are left out
  TClusterRuns Others;   ///< of what else belongs to it
  bool Seen = false;     ///< what lies there now was seen to be its own
};

/// A bit for each cluster of a volume, set while it is in use.
class TClusterUse {
 public:
  TClusterUse() = default;
  /// `bits`: the lowest bit of the first byte is cluster 0. Clusters beyond them count as free.
  explicit TClusterUse(TByteDynArray bits);

  bool IsKnown() const { return !FBits.empty(); }
  bool IsUsed(std::int64_t cluster) const;
  /// Whether any of the run is in use. Takes the same time however long it is.
  bool IsAnyUsed(const TClusterRun& run) const;

 private:
  /// Clusters in use before `cluster`.
  std::uint64_t UsedBefore(std::int64_t cluster) const;

  static constexpr std::int64_t BytesPerRank = 64;
  TByteDynArray FBits;
  std::vector<std::uint64_t> FRanks;  // clusters in use before each 64 bytes
};

}  // namespace brenlow

// SPDX-License-Identifier: GPL-3.0-or-later
// Which of several deleted files that lay in the same clusters was written last.
#pragma once

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "core/datetime.h"

namespace brenlow::exfat {

class TClaims {
 public:
  enum class TVerdict {
    Alone,        ///< no other deleted file lay there
    Shared,       ///< it cannot be told which of them was written last
    Overwritten,  ///< another one was created there after the last change of this one
  };

  /// Clusters of a file. Two entries with the same start and time of creation are names of one file.
  struct TClaim {
    std::int64_t First = 0;
    std::int64_t End = 0;  ///< the cluster after the last
    std::int64_t Start = 0;
    TDateTime Created = 0;   ///< 0: not known
    TDateTime Modified = 0;  ///< 0: not known
  };

  void Add(const TClaim& claim);
  /// All claims are there: from now on they can be judged.
  void Settle();
  TVerdict Judge(const TClaim& claim) const;

 private:
  /// The two largest times, of different files.
  struct TLatest {
    TDateTime Times[2];
    std::int64_t Owners[2] = {-1, -1};
    TLatest();
    void Put(TDateTime time, std::int64_t owner);
    void Put(const TLatest& other);
    TDateTime Except(std::int64_t owner) const { return Owners[0] == owner ? Times[1] : Times[0]; }
  };
  /// A node of the tree over all borders of claims.
  struct TNode {
    TLatest CreatedHere;  // of claims that have the whole node
    TLatest WrittenHere;
    TLatest CreatedBelow;  // of claims that have any of it
    TLatest WrittenBelow;
  };
  struct TRange {
    std::size_t First;
    std::size_t End;
  };

  std::int64_t OwnerOf(const TClaim& claim) const;
  TRange RangeOf(const TClaim& claim) const;
  void Enter(std::size_t node, TRange of, TRange range, const TClaim& claim, std::int64_t owner);
  void Collect(std::size_t node, TRange of, TRange range, TLatest& created, TLatest& written) const;

  std::vector<TClaim> FClaims;
  std::map<std::pair<std::int64_t, TDateTime>, std::int64_t> FOwners;
  std::vector<std::int64_t> FBorders;
  std::vector<TNode> FNodes;
};

}  // namespace brenlow::exfat

// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/exfat/exfat_claims.h"

#include <algorithm>
#include <limits>

namespace brenlow::exfat {
namespace {

constexpr TDateTime Never = -std::numeric_limits<TDateTime>::infinity();
constexpr TDateTime Ever = std::numeric_limits<TDateTime>::infinity();

// The time of creation is set by the system when an entry is made; the one of the last change may come from where
// the file was copied from, and is then older.
TDateTime WrittenFrom(const TClaims::TClaim& claim) { return claim.Created == 0 ? Never : claim.Created; }
TDateTime WrittenUntil(const TClaims::TClaim& claim) {
  return claim.Created == 0 || claim.Modified == 0 ? Ever : std::max(claim.Created, claim.Modified);
}

}  // namespace

TClaims::TLatest::TLatest() : Times{Never, Never} {}

void TClaims::TLatest::Put(TDateTime time, std::int64_t owner) {
  if (owner < 0) return;
  if (owner == Owners[0]) {
    Times[0] = std::max(Times[0], time);
    return;
  }
  if (owner == Owners[1]) {
    Times[1] = std::max(Times[1], time);
  } else if (time > Times[1] || Owners[1] < 0) {
    Times[1] = time;
    Owners[1] = owner;
  }
  if (Times[1] > Times[0] || Owners[0] < 0) {
    std::swap(Times[0], Times[1]);
    std::swap(Owners[0], Owners[1]);
  }
}

void TClaims::TLatest::Put(const TLatest& other) {
  Put(other.Times[0], other.Owners[0]);
  Put(other.Times[1], other.Owners[1]);
}

void TClaims::Add(const TClaim& claim) {
  if (claim.First >= claim.End) return;
  FClaims.push_back(claim);
  FOwners.try_emplace({claim.Start, claim.Created}, static_cast<std::int64_t>(FOwners.size()));
  FBorders.push_back(claim.First);
  FBorders.push_back(claim.End);
}

std::int64_t TClaims::OwnerOf(const TClaim& claim) const {
  const auto owner = FOwners.find({claim.Start, claim.Created});
  return owner == FOwners.end() ? -1 : owner->second;
}

/// The stretches between borders that a claim has.
TClaims::TRange TClaims::RangeOf(const TClaim& claim) const {
  const auto index = [&](std::int64_t border) {
    return static_cast<std::size_t>(std::lower_bound(FBorders.begin(), FBorders.end(), border) - FBorders.begin());
  };
  return {index(claim.First), index(claim.End)};
}

void TClaims::Settle() {
  std::sort(FBorders.begin(), FBorders.end());
  FBorders.erase(std::unique(FBorders.begin(), FBorders.end()), FBorders.end());
  if (FBorders.empty()) return;
  FNodes.assign(4 * FBorders.size(), {});
  for (const TClaim& claim : FClaims) Enter(1, {0, FBorders.size()}, RangeOf(claim), claim, OwnerOf(claim));
}

void TClaims::Enter(std::size_t node, TRange of, TRange range, const TClaim& claim, std::int64_t owner) {
  if (range.End <= of.First || of.End <= range.First) return;
  FNodes[node].CreatedBelow.Put(WrittenFrom(claim), owner);
  FNodes[node].WrittenBelow.Put(WrittenUntil(claim), owner);
  if (range.First <= of.First && of.End <= range.End) {
    FNodes[node].CreatedHere.Put(WrittenFrom(claim), owner);
    FNodes[node].WrittenHere.Put(WrittenUntil(claim), owner);
    return;
  }
  const std::size_t middle = (of.First + of.End) / 2;
  Enter(2 * node, {of.First, middle}, range, claim, owner);
  Enter(2 * node + 1, {middle, of.End}, range, claim, owner);
}

void TClaims::Collect(std::size_t node, TRange of, TRange range, TLatest& created, TLatest& written) const {
  if (range.End <= of.First || of.End <= range.First) return;
  if (range.First <= of.First && of.End <= range.End) {
    created.Put(FNodes[node].CreatedBelow);
    written.Put(FNodes[node].WrittenBelow);
    return;
  }
  created.Put(FNodes[node].CreatedHere);
  written.Put(FNodes[node].WrittenHere);
  const std::size_t middle = (of.First + of.End) / 2;
  Collect(2 * node, {of.First, middle}, range, created, written);
  Collect(2 * node + 1, {middle, of.End}, range, created, written);
}

TClaims::TVerdict TClaims::Judge(const TClaim& claim) const {
  if (FNodes.empty() || claim.First >= claim.End) return TVerdict::Alone;
  TLatest created;
  TLatest written;
  Collect(1, {0, FBorders.size()}, RangeOf(claim), created, written);
  const std::int64_t owner = OwnerOf(claim);
  if (created.Except(owner) > WrittenUntil(claim)) return TVerdict::Overwritten;
  const TDateTime latest = written.Except(owner);
  return latest != Never && latest >= WrittenFrom(claim) ? TVerdict::Shared : TVerdict::Alone;
}

}  // namespace brenlow::exfat

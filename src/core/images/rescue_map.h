// SPDX-License-Identifier: GPL-3.0-or-later
// Which parts of a source were read: the map file that GNU ddrescue writes and reads ("Mapfile
// structure" in its manual).
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "core/device/device.h"

namespace brenlow {

enum class TMapStatus : char {
  NotTried = '?',
  NotTrimmed = '*',  ///< a large read failed
  NotScraped = '/',
  Bad = '-',
  Finished = '+',
};

/// Every byte of a source has one status.
class TRescueMap {
 public:
  explicit TRescueMap(std::int64_t size);

  std::int64_t Size() const { return FSize; }
  std::size_t RangeCount() const { return FRanges.size(); }
  void Set(std::int64_t position, std::int64_t size, TMapStatus status);
  TMapStatus At(std::int64_t position) const;
  /// End of the range of one status that holds the position.
  std::int64_t EndOfRange(std::int64_t position) const;
  /// Start of the first range at or after the position whose status is wanted; `Size()` if none.
  std::int64_t Find(std::int64_t position, const std::function<bool(TMapStatus)>& wanted) const;
  /// Bytes of a status.
  std::int64_t Count(TMapStatus status) const;

  /// Reads a map file. 0, EINVAL when it is none or does not begin at 0, or the errno.
  static int Load(const std::string& path, TRescueMap& map);
  /// The file that it was read from; nothing when it was made here.
  const std::optional<TFileIdentity>& Origin() const { return FOrigin; }
  /// Writes it through a file beside it, so that there is a whole map at any time. 0, or the errno.
  int Save(const std::string& path) const;
  /// The file beside it.
  static std::string SuccessorName(const std::string& path) { return path + ".new"; }

 private:
  void Split(std::int64_t position);

  std::int64_t FSize;
  std::map<std::int64_t, TMapStatus> FRanges;  // by start; each reaches to the next
  std::optional<TFileIdentity> FOrigin;
};

/// The image of a source with unreadable places: a read that touches a byte that is not finished
/// fails there, as it did on the source.
std::unique_ptr<IDevice> WithRescueMap(std::unique_ptr<IDevice> image, TRescueMap map);

}  // namespace brenlow

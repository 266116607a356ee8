// SPDX-License-Identifier: GPL-3.0-or-later
// The folder that a recovery writes into. Every file and folder is created relative to an open
// folder, never through a symbolic link, and never over something that exists.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "core/datetime.h"
#include "core/types.h"

namespace brenlow {

/// An open descriptor; closes it.
class THandle {
 public:
  explicit THandle(int handle = -1) : FHandle(handle) {}
  THandle(THandle&& other) noexcept : FHandle(other.Release()) {}
  THandle& operator=(THandle&& other) noexcept;
  ~THandle() { Close(); }
  int Get() const { return FHandle; }
  bool Valid() const { return FHandle >= 0; }
  int Release();
  void Close();

 private:
  int FHandle;
};

class TTargetTree {
 public:
  /// Opens the folder, creating it and its parents where missing. 0, or the errno of the failure.
  int Open(const std::string& path);

  /// Descends into a folder named on the source. It is created when the first file goes into it.
  void Push(TStringView name, const TTimeStamp& times);
  /// Creates the folder in hand and those above it. 0, or the errno.
  int EnsureCreated();
  /// Leaves the folder in hand and gives it its times.
  void Pop();

  /// Creates a new file in the folder in hand; where its name is taken, a numbered one. 0, or the
  /// errno. `path` gets the path below the target.
  int CreateFile(TStringView name, THandle& handle, std::string& path);

 private:
  struct TLevel {
    std::string Name;  // as it is on the target
    THandle Handle;
    TTimeStamp Times;
    std::map<std::string, int> Taken;  // last number given to a name that was taken
  };
  // Descriptors are a limited resource: content deeper than this stays in the folder at this depth.
  static constexpr std::size_t MaxDepth = 200;

  TLevel& Current() { return FLevels[std::min(FLevels.size(), MaxDepth) - 1]; }

  std::vector<TLevel> FLevels;
};

/// Gives an open file or folder its times; unknown ones stay. Creation times cannot be set here.
void SetTimes(int handle, const TTimeStamp& times);

}  // namespace brenlow

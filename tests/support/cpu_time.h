// SPDX-License-Identifier: GPL-3.0-or-later
// What tests of speed measure: the clock on the wall would tell how busy the machine is.
#pragma once

#include <ctime>

namespace brenlow::test {

/// Time that this process has had a processor since the object was made.
class TCpuTime {
 public:
  double Seconds() const { return Now() - FStart; }

 private:
  static double Now() {
    std::timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
  }
  double FStart = Now();
};

}  // namespace brenlow::test

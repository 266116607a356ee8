// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/datetime.h"

#include <chrono>
#include <cmath>
#include <cstdlib>

namespace brenlow {
namespace {

constexpr std::chrono::sys_days Epoch = std::chrono::year{1899} / 12 / 30;
constexpr std::int64_t MillisecondsPerDay = 86'400'000;

struct TCivil {
  int Year = 0, Month = 0, Day = 0, Hour = 0, Minute = 0, Second = 0, Millisecond = 0;
};

bool Decode(TDateTime time, TCivil& civil) {
  // Years 1601 to 9999, the range of dates that any supported file system can mean.
  if (!(time > -109'205.0 && time < 2'958'466.0) || time == 0) return false;
  const auto total = static_cast<std::int64_t>(std::llround(time * static_cast<double>(MillisecondsPerDay)));
  std::int64_t days = total / MillisecondsPerDay;
  std::int64_t rest = total % MillisecondsPerDay;
  if (rest < 0) {
    rest += MillisecondsPerDay;
    --days;
  }
  const std::chrono::year_month_day date{Epoch + std::chrono::days{days}};
  civil.Year = static_cast<int>(date.year());
  civil.Month = static_cast<int>(static_cast<unsigned>(date.month()));
  civil.Day = static_cast<int>(static_cast<unsigned>(date.day()));
  civil.Millisecond = static_cast<int>(rest % 1000);
  rest /= 1000;
  civil.Second = static_cast<int>(rest % 60);
  civil.Minute = static_cast<int>(rest / 60 % 60);
  civil.Hour = static_cast<int>(rest / 3600);
  return true;
}

}  // namespace

TDateTime EncodeDate(int year, int month, int day) {
  const std::chrono::year_month_day date{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                                         std::chrono::day{static_cast<unsigned>(day)}};
  if (!date.ok()) return 0;
  return static_cast<TDateTime>((std::chrono::sys_days{date} - Epoch).count());
}

TDateTime Now() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return EncodeDate(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday) +
         EncodeTime(local.tm_hour, local.tm_min, local.tm_sec, 0);
}

std::string IsoTime(TDateTime time) {
  TCivil civil;
  if (!Decode(time, civil)) return {};
  // By hand: listings print one for every file.
  std::string text = "0000-00-00T00:00:00";
  const auto put = [&](std::size_t end, int value, int digits) {
    for (; digits > 0; --digits, value /= 10) text[--end] = static_cast<char>('0' + value % 10);
  };
  put(4, civil.Year, 4);
  put(7, civil.Month, 2);
  put(10, civil.Day, 2);
  put(13, civil.Hour, 2);
  put(16, civil.Minute, 2);
  put(19, civil.Second, 2);
  if (civil.Millisecond != 0) {
    text += ".000";
    put(23, civil.Millisecond, 3);
  }
  return text;
}

namespace {

/// Seconds that local time is ahead of UTC. The C library takes its time over each question, and
/// the answer changes at quarters of an hour only.
std::int64_t LocalOffset(std::int64_t unixSeconds) {
  struct TKnown {
    std::int64_t Quarter = INT64_MIN;
    std::int64_t Offset = 0;
  };
  thread_local TKnown known[1024];
  const std::int64_t quarter = unixSeconds / 900 - (unixSeconds % 900 < 0 ? 1 : 0);
  TKnown& entry = known[static_cast<std::uint64_t>(quarter) % std::size(known)];
  if (entry.Quarter != quarter) {
    const std::time_t time = unixSeconds;
    std::tm local{};
    localtime_r(&time, &local);
    entry = {quarter, local.tm_gmtoff};
  }
  return entry.Offset;
}

constexpr std::int64_t DayZero = 25'569;  // days from 1899-12-30 to 1970
constexpr double SecondsPerDay = 86'400;

/// Seconds since 1970 of the same wall clock in UTC.
std::int64_t WallSeconds(TDateTime time) {
  return std::llround(std::floor((time - static_cast<double>(DayZero)) * SecondsPerDay + 0.0005));
}

}  // namespace

std::string IsoTimeWithOffset(TDateTime time) {
  std::string text = IsoTime(time);
  if (text.empty()) return text;
  const std::int64_t wall = WallSeconds(time);
  const std::int64_t minutes = LocalOffset(wall - LocalOffset(wall)) / 60;
  const std::int64_t size = std::abs(minutes);
  text += minutes < 0 ? "-00:00" : "+00:00";
  char* end = text.data() + text.size();
  end[-5] = static_cast<char>('0' + size / 600 % 10);
  end[-4] = static_cast<char>('0' + size / 60 % 10);
  end[-2] = static_cast<char>('0' + size % 60 / 10);
  end[-1] = static_cast<char>('0' + size % 10);
  return text;
}

TDateTime FromUtc(TDateTime time) {
  return time == 0 ? 0 : time + static_cast<double>(LocalOffset(WallSeconds(time))) / SecondsPerDay;
}

TDateTime FromFileTime(std::uint64_t fileTime) {
  constexpr std::uint64_t perSecond = 10'000'000;
  constexpr std::int64_t epochs = 11'644'473'600;            // seconds from 1601 to 1970
  constexpr std::uint64_t last = 2'650'467'744'000'000'000;  // the end of the year 9999
  if (fileTime == 0 || fileTime >= last) return 0;
  const std::int64_t seconds = static_cast<std::int64_t>(fileTime / perSecond) - epochs;
  const std::int64_t milliseconds = static_cast<std::int64_t>(fileTime % perSecond) / 10'000;
  const std::int64_t local = seconds + LocalOffset(seconds);
  return static_cast<double>(DayZero) + static_cast<double>(local * 1000 + milliseconds) / 86'400'000.0;
}

bool ToUnixTime(TDateTime time, std::timespec& result) {
  TCivil civil;
  if (!Decode(time, civil)) return false;
  std::tm local{};
  local.tm_year = civil.Year - 1900;
  local.tm_mon = civil.Month - 1;
  local.tm_mday = civil.Day;
  local.tm_hour = civil.Hour;
  local.tm_min = civil.Minute;
  local.tm_sec = civil.Second;
  local.tm_isdst = -1;
  result.tv_sec = std::mktime(&local);
  result.tv_nsec = civil.Millisecond * 1'000'000L;
  return true;
}

std::int64_t SteadyMilliseconds() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace brenlow

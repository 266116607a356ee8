// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/option_values.h"

#include <charconv>

namespace brenlow::cli {
namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// Takes `digits` digits from the front.
bool TakeNumber(std::string_view& text, std::size_t digits, int& value) {
  if (text.size() < digits) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + digits, value);
  if (error != std::errc() || end != text.data() + digits || value < 0) return false;
  text.remove_prefix(digits);
  return true;
}

bool TakeOneOf(std::string_view& text, std::string_view characters) {
  if (text.empty() || characters.find(text.front()) == std::string_view::npos) return false;
  text.remove_prefix(1);
  return true;
}

struct TClock {
  int Hour = 0, Minute = 0, Second = 0;
};

bool TakeClock(std::string_view& text, TClock& clock) {
  if (!TakeNumber(text, 2, clock.Hour) || !TakeOneOf(text, ":") || !TakeNumber(text, 2, clock.Minute)) return false;
  if (TakeOneOf(text, ":") && !TakeNumber(text, 2, clock.Second)) return false;
  return clock.Hour < 24 && clock.Minute < 60 && clock.Second < 60;
}

/// Minutes that "Z" or "+02:00" say; nothing when it is neither.
std::optional<int> TakeZone(std::string_view& text) {
  if (TakeOneOf(text, "Zz")) return 0;
  const bool west = !text.empty() && text.front() == '-';
  TClock clock;
  if (!TakeOneOf(text, "+-") || !TakeNumber(text, 2, clock.Hour)) return std::nullopt;
  TakeOneOf(text, ":");
  if (!TakeNumber(text, 2, clock.Minute)) return std::nullopt;
  return (west ? -1 : 1) * (clock.Hour * 60 + clock.Minute);
}

}  // namespace

std::vector<std::string> SplitList(std::string_view list) {
  std::vector<std::string> members(1);
  for (const char c : list) {
    if (c != ',' && c != ' ' && c != '\t') {
      members.back() += Lower(c);
    } else if (!members.back().empty()) {
      members.emplace_back();
    }
  }
  if (members.back().empty()) members.pop_back();
  return members;
}

std::optional<std::int64_t> ParseSize(std::string_view text) {
  double number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (error != std::errc() || !(number >= 0)) return std::nullopt;
  std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
  while (TakeOneOf(unit, " ")) continue;
  if (!unit.empty()) {
    const std::size_t power = std::string_view("bkmgt").find(Lower(unit.front()));
    if (power == std::string_view::npos) return std::nullopt;
    for (std::size_t i = 0; i < power; ++i) number *= 1024;
    unit.remove_prefix(1);
    if (power > 0 && (unit == "B" || unit == "b" || unit == "iB")) unit = {};
  }
  if (!unit.empty() || number >= 9e18) return std::nullopt;
  return static_cast<std::int64_t>(number);
}

std::optional<TDateTime> ParseTime(std::string_view text) {
  int year = 0;
  int month = 0;
  int day = 0;
  if (!TakeNumber(text, 4, year) || !TakeOneOf(text, "-") || !TakeNumber(text, 2, month) || !TakeOneOf(text, "-") ||
      !TakeNumber(text, 2, day)) {
    return std::nullopt;
  }
  const TDateTime date = EncodeDate(year, month, day);
  if (date == 0) return std::nullopt;
  if (text.empty()) return date;
  TClock clock;
  if (!TakeOneOf(text, "T ") || !TakeClock(text, clock)) return std::nullopt;
  const TDateTime time = date + EncodeTime(clock.Hour, clock.Minute, clock.Second, 0);
  if (text.empty()) return time;
  const std::optional<int> zone = TakeZone(text);
  if (!zone || !text.empty()) return std::nullopt;
  return FromUtc(time - *zone / 1440.0);
}

}  // namespace brenlow::cli

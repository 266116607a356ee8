// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/console.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>

#include "cli/options.h"
#include "core/device/device.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "shell/progress_text.h"

namespace brenlow::cli {
namespace {

constexpr std::size_t BufferSize = 1 << 16;
constexpr auto MaxWait = std::chrono::milliseconds(100);  // of a line for whoever reads the output
constexpr auto RedrawInterval = std::chrono::milliseconds(100);
constexpr auto LineInterval = std::chrono::seconds(10);

// Signal handlers have no argument, and standard output is one for the whole program: this is all the
// global state there is.
std::atomic<TEngine*> StopTarget{nullptr};
std::atomic<int> StopSignal{0};
std::atomic<bool> IsLineWanted{false};
std::atomic<int> OutputError{0};  // errno of the first write that failed

extern "C" void HandleStop(int signal) {
  int none = 0;
  const bool first = StopSignal.compare_exchange_strong(none, signal);
  TEngine* engine = StopTarget;
  if (!first || engine == nullptr) _exit(128 + signal);
  engine->StopScans();
}

extern "C" void HandleLineWanted(int) { IsLineWanted = true; }

void SetHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(signal, &action, nullptr);
}

/// One character of UTF-8 from the front of a text, with its length in bytes; nothing for an invalid byte.
struct TCharacter {
  char32_t Code;
  std::size_t Length;
};
std::optional<TCharacter> FirstCharacter(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return TCharacter{lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return std::nullopt;
  char32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return std::nullopt;
    code = (code << 6) | (byte(i) & 0x3FU);
  }
  constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < smallest[length] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return std::nullopt;
  return TCharacter{code, length};
}

/// Whether a terminal would do something else than show this character.
bool IsUnprintable(char32_t character) {
  const auto isIn = [character](char32_t first, char32_t last) { return character >= first && character <= last; };
  if (isIn(0, 0x1F) || isIn(0x7F, 0x9F)) return true;
  return isIn(0x202A, 0x202E) || isIn(0x2066, 0x2069);  // embeddings, overrides and isolates of direction
}

bool IsPlain(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

/// The text with something in place of every unprintable character and (nothing given) invalid byte.
template <typename TInPlace>
std::string Replaced(std::string_view text, TInPlace inPlace) {
  std::string result;
  while (!text.empty()) {
    const std::optional<TCharacter> character = FirstCharacter(text);
    const std::size_t length = character ? character->Length : 1;
    if (!character) {
      result += inPlace(std::nullopt);
    } else if (IsUnprintable(character->Code)) {
      result += inPlace(character->Code);
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return result;
}

/// Cuts a line down to what one row of the terminal shows, so that it can be drawn over.
void FitTerminal(std::string& line) {
  struct winsize size {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 2) return;
  std::size_t columns = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if ((static_cast<unsigned char>(line[i]) & 0xC0) == 0x80) continue;
    if (++columns == size.ws_col) line.resize(i);
  }
}

}  // namespace

void TOutput::Write(std::string_view text) {
  FBuffer += text;
  if (FBuffer.size() >= BufferSize) {
    Flush();
  } else {
    FlushIfDue();
  }
}

void TOutput::FlushIfDue() {
  if (std::chrono::steady_clock::now() - FLastFlush >= MaxWait) Flush();
}

void TOutput::Flush() {
  FLastFlush = std::chrono::steady_clock::now();
  if (!FBuffer.empty() && OutputError == 0) {
    errno = 0;
    std::fwrite(FBuffer.data(), 1, FBuffer.size(), stdout);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) OutputError = errno != 0 ? errno : EIO;
  }
  FBuffer.clear();
}

bool OutputArrived(const TLanguage& texts) {
  if (OutputError == 0 && std::fflush(stdout) != 0) OutputError = errno;
  if (OutputError == 0 && std::ferror(stdout) != 0) OutputError = EIO;
  if (OutputError == 0) return true;
  Complain(texts.Utf8(TText::OutputFailed, {SystemErrorText(texts, OutputError)}));
  return false;
}

void Complain(const std::string& text) { std::fprintf(stderr, "brenlow-cli: %s\n", Printable(text).c_str()); }

TProgressLine::TProgressLine(const TOptions& options)
    : FTexts(options.Texts),
      FStyle(options.Quiet                                           ? TStyle::None
             : options.ProgressLines || ::isatty(STDERR_FILENO) == 0 ? TStyle::Lines
                                                                     : TStyle::Redrawn) {}

void TProgressLine::Begin(std::string title) {
  Clear();
  FTitle = std::move(title);
  FBegin = FLastDrawn = std::chrono::steady_clock::now();
}

bool TProgressLine::IsDue(std::chrono::steady_clock::time_point now) const {
  if (FStyle == TStyle::None) return false;
  if (FStyle == TStyle::Redrawn) return now - FLastDrawn >= RedrawInterval;
  return now - FLastDrawn >= LineInterval;
}

std::string TProgressLine::Line(double position, std::int64_t bytes, const std::string& detail, double seconds) const {
  std::string line = fmt::format("{}: {:.0f}%", FTitle, position * 100);
  if (!detail.empty()) line += ", " + detail;
  if (const std::string rate = RateText(bytes, seconds); !rate.empty()) line += ", " + rate;
  if (const double left = SecondsLeft(position, seconds); left >= 0) {
    line += ", " + FTexts.Utf8(TText::TimeLeft, {DurationText(left)});
  }
  return line;
}

void TProgressLine::Show(double position, std::int64_t bytes, const std::string& detail) {
  const auto now = std::chrono::steady_clock::now();
  const bool asked = IsLineWanted.exchange(false);
  if (!asked && !IsDue(now)) return;
  FLastDrawn = now;
  std::string line = Line(position, bytes, detail, std::chrono::duration<double>(now - FBegin).count());
  if (asked || FStyle == TStyle::Lines) {
    Clear();
    std::fprintf(stderr, "%s\n", line.c_str());
    return;
  }
  FitTerminal(line);
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
  FDrawn = true;
}

void TProgressLine::Clear() {
  if (FDrawn) std::fputs("\r\x1b[K", stderr);
  FDrawn = false;
}

std::string Printable(std::string text) {
  return IsPlain(text) ? text : Replaced(text, [](std::optional<char32_t>) { return std::string("?"); });
}

std::string PrintableJson(const std::string& json) {
  return IsPlain(json) ? json : Replaced(json, [](std::optional<char32_t> character) {
    return fmt::format("\\u{:04x}", static_cast<std::uint32_t>(character.value_or(U'\uFFFD')));
  });
}

void PrepareSignals() {
  std::signal(SIGPIPE, SIG_DFL);
  SetHandler(SIGUSR1, HandleLineWanted);
}

TStopKey::TStopKey(TEngine& engine) {
  StopSignal = 0;
  StopTarget = &engine;
  SetHandler(SIGINT, HandleStop);
  SetHandler(SIGTERM, HandleStop);
}

TStopKey::~TStopKey() { StopTarget = nullptr; }

bool TStopKey::Pressed() { return StopSignal != 0; }

int TStopKey::Status() { return 128 + StopSignal; }

}  // namespace brenlow::cli

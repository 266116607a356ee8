// SPDX-License-Identifier: GPL-3.0-or-later
#include "cli/console.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>

#include "cli/options.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "shell/progress_text.h"

namespace brenlow::cli {
namespace {

constexpr std::size_t BufferSize = 1 << 16;
constexpr auto RedrawInterval = std::chrono::milliseconds(100);

// A signal handler has no argument: this is the one piece of global state of the program.
std::atomic<TEngine*> StopTarget{nullptr};
std::atomic<int> StopCount{0};

extern "C" void HandleStop(int) {
  ++StopCount;
  TEngine* engine = StopTarget;
  if (engine != nullptr && engine->Analysing.exchange(false)) return;
  if (engine != nullptr && engine->Recovering.exchange(false)) return;
  if (engine != nullptr && engine->Drives().CanSave.exchange(false)) return;
  if (engine != nullptr && engine->Drives().CanSearch.exchange(false)) return;
  _exit(StoppedByUser);
}

}  // namespace

void TOutput::Write(std::string_view text) {
  FBuffer += text;
  if (FBuffer.size() >= BufferSize) Flush();
}

void TOutput::Flush() {
  std::fwrite(FBuffer.data(), 1, FBuffer.size(), stdout);
  std::fflush(stdout);
  FBuffer.clear();
}

TProgressLine::TProgressLine(const TLanguage& texts) : FTexts(texts), FIsTerminal(::isatty(STDERR_FILENO) != 0) {}

void TProgressLine::Begin(std::string title) {
  Clear();
  FTitle = std::move(title);
  FBegin = FLastDrawn = std::chrono::steady_clock::now();
}

void TProgressLine::Show(double position, std::int64_t bytes, const std::string& detail) {
  if (!FIsTerminal) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - FLastDrawn < RedrawInterval) return;
  FLastDrawn = now;
  const double seconds = std::chrono::duration<double>(now - FBegin).count();
  std::string line = fmt::format("{}: {:.0f}%", FTitle, position * 100);
  if (!detail.empty()) line += ", " + detail;
  if (const std::string rate = RateText(bytes, seconds); !rate.empty()) line += ", " + rate;
  if (const double left = SecondsLeft(position, seconds); left >= 0) {
    line += ", " + FTexts.Utf8(TText::TimeLeft, {DurationText(left)});
  }
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
  FDrawn = true;
}

void TProgressLine::Clear() {
  if (FDrawn) std::fputs("\r\x1b[K", stderr);
  FDrawn = false;
}

std::string Printable(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  return text;
}

TStopKey::TStopKey(TEngine& engine) {
  StopTarget = &engine;
  struct sigaction action {};
  action.sa_handler = HandleStop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

TStopKey::~TStopKey() { StopTarget = nullptr; }

bool TStopKey::Pressed() { return StopCount > 0; }

}  // namespace brenlow::cli

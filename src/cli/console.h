// SPDX-License-Identifier: GPL-3.0-or-later
// Talking to the terminal: buffered output, complaints, progress, signals.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace brenlow {
class TEngine;
class TLanguage;
}  // namespace brenlow

namespace brenlow::cli {

struct TOptions;

/// Standard output in large pieces. After a write that failed nothing more is written: `OutputArrived`
/// reports it at the end of the program.
class TOutput {
 public:
  ~TOutput() { Flush(); }
  /// What is older than 100 ms goes out with it, so that whoever reads a pipe keeps up.
  void Write(std::string_view text);
  /// Writes out what has waited for 100 ms; for pumps of work that writes rarely.
  void FlushIfDue();
  void Flush();

 private:
  std::string FBuffer;
  std::chrono::steady_clock::time_point FLastFlush = std::chrono::steady_clock::now();
};

/// Whether all that went to standard output got there; complains when it did not.
bool OutputArrived(const TLanguage& texts);

/// A line on standard error, with the program's name; `text` is made harmless for a terminal.
void Complain(const std::string& text);

/// Progress on standard error: on a terminal one line that is drawn over and over, else (and with
/// `--progress`) a line every 10 seconds, with `--quiet` none. SIGUSR1 asks for a line at once.
class TProgressLine {
 public:
  explicit TProgressLine(const TOptions& options);
  ~TProgressLine() { Clear(); }
  void Begin(std::string title);
  /// `position` 0 to 1; `bytes` moved since `Begin`, for the rate; `detail` is shown as it is.
  void Show(double position, std::int64_t bytes, const std::string& detail);
  void Clear();

 private:
  enum class TStyle : std::uint8_t { None, Redrawn, Lines };
  bool IsDue(std::chrono::steady_clock::time_point now) const;
  std::string Line(double position, std::int64_t bytes, const std::string& detail, double seconds) const;

  const TLanguage& FTexts;
  TStyle FStyle;
  bool FDrawn = false;
  std::string FTitle;
  std::chrono::steady_clock::time_point FBegin;
  std::chrono::steady_clock::time_point FLastDrawn;
};

/// Text from a source, made harmless for a terminal: control characters of both sets, characters
/// that turn the direction of text around, and bytes that are not UTF-8 become '?'.
std::string Printable(std::string text);
/// The same for JSON: such characters become "\\uXXXX", which reads back as what it was.
std::string PrintableJson(const std::string& json);

/// To be called once, before anything is done: a closed pipe ends the program without a word, and
/// SIGUSR1 asks for progress instead of ending it.
void PrepareSignals();

/// While it lives, the first SIGINT or SIGTERM stops scans, searches and images of the engine at their
/// next polling point, and whoever else asks `Pressed`; a second one ends the program at once, and so
/// does the first where no stop key lives.
class TStopKey {
 public:
  explicit TStopKey(TEngine& engine);
  ~TStopKey();
  TStopKey(const TStopKey&) = delete;
  TStopKey& operator=(const TStopKey&) = delete;
  /// Since the last stop key was made.
  static bool Pressed();
  /// What the program ends with after a stop: 130 for SIGINT, 143 for SIGTERM.
  static int Status();
};

}  // namespace brenlow::cli

// SPDX-License-Identifier: GPL-3.0-or-later
// Talking to the terminal: buffered output, the progress line, the stop key.
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

/// Standard output in large pieces.
class TOutput {
 public:
  ~TOutput() { Flush(); }
  void Write(std::string_view text);
  void Flush();

 private:
  std::string FBuffer;
};

/// One line on standard error that is drawn over and over; nothing when that is no terminal.
class TProgressLine {
 public:
  explicit TProgressLine(const TLanguage& texts);
  ~TProgressLine() { Clear(); }
  void Begin(std::string title);
  /// `position` 0 to 1; `bytes` moved since `Begin`, for the rate; `detail` is shown as it is.
  void Show(double position, std::int64_t bytes, const std::string& detail);
  void Clear();

 private:
  const TLanguage& FTexts;
  bool FIsTerminal;
  bool FDrawn = false;
  std::string FTitle;
  std::chrono::steady_clock::time_point FBegin;
  std::chrono::steady_clock::time_point FLastDrawn;
};

/// Text from a source, made harmless for a terminal: control characters become '?'.
std::string Printable(std::string text);

/// While it lives, Ctrl-C (and a plain kill) stops the scan or the recovery of the engine at its
/// next polling point; once neither runs, it ends the program.
class TStopKey {
 public:
  explicit TStopKey(TEngine& engine);
  ~TStopKey();
  TStopKey(const TStopKey&) = delete;
  TStopKey& operator=(const TStopKey&) = delete;
  static bool Pressed();
};

}  // namespace brenlow::cli

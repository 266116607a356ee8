// SPDX-License-Identifier: GPL-3.0-or-later
// The thread that the engine runs on, and the two queues that lead to it. Whoever posts never waits
// for a disk.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace brenlow {

class TEngineHost {
 public:
  using TJob = std::function<void()>;

  TEngineHost();
  /// Ends and waits.
  ~TEngineHost();
  TEngineHost(const TEngineHost&) = delete;
  TEngineHost& operator=(const TEngineHost&) = delete;

  // ---- for all threads ----
  /// Commands run one after another, when nothing else does.
  void Command(TJob job);
  /// Questions run at once when the engine is idle, else at the next polling point of what runs.
  void Question(TJob job);
  /// No further job begins. This does not stop what runs: clear the engine's go-on flags for that.
  void End();
  bool Ending() const;
  /// True when the thread has ended within the time.
  bool Wait(std::chrono::milliseconds time);

  // ---- for the engine's thread ----
  /// Answers the questions that wait. The pump calls it.
  void ServeQuestions();
  /// Serves questions, and commands too if wanted, until `done` holds. False when the host ends
  /// before.
  bool ServeUntil(const std::function<bool()>& done, bool commands);

 private:
  void Run();
  /// Takes a job out; false when the host ends before one comes.
  bool Take(TJob& job, bool commands);

  mutable std::mutex FMutex;
  std::condition_variable FChanged;
  std::deque<TJob> FCommands;
  std::deque<TJob> FQuestions;
  bool FEnding = false;
  bool FEnded = false;
  std::thread FThread;  // the last member: it uses all others
};

}  // namespace brenlow

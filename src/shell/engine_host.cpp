// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/engine_host.h"

#include <utility>

namespace brenlow {

TEngineHost::TEngineHost() : FThread([this] { Run(); }) {}

TEngineHost::~TEngineHost() {
  End();
  FThread.join();
}

void TEngineHost::Command(TJob job) {
  const std::lock_guard lock(FMutex);
  FCommands.push_back(std::move(job));
  FChanged.notify_all();
}

void TEngineHost::Question(TJob job) {
  const std::lock_guard lock(FMutex);
  FQuestions.push_back(std::move(job));
  FChanged.notify_all();
}

void TEngineHost::End() {
  const std::lock_guard lock(FMutex);
  FEnding = true;
  FChanged.notify_all();
}

bool TEngineHost::Ending() const {
  const std::lock_guard lock(FMutex);
  return FEnding;
}

bool TEngineHost::Wait(std::chrono::milliseconds time) {
  std::unique_lock lock(FMutex);
  return FChanged.wait_for(lock, time, [this] { return FEnded; });
}

bool TEngineHost::Take(TJob& job, bool commands) {
  std::unique_lock lock(FMutex);
  FChanged.wait(lock, [&] { return FEnding || !FQuestions.empty() || (commands && !FCommands.empty()); });
  if (FEnding) return false;
  std::deque<TJob>& queue = FQuestions.empty() ? FCommands : FQuestions;
  job = std::move(queue.front());
  queue.pop_front();
  return true;
}

void TEngineHost::ServeQuestions() {
  while (true) {
    TJob job;
    {
      const std::lock_guard lock(FMutex);
      if (FEnding || FQuestions.empty()) return;
      job = std::move(FQuestions.front());
      FQuestions.pop_front();
    }
    job();
  }
}

bool TEngineHost::ServeUntil(const std::function<bool()>& done, bool commands) {
  while (!done()) {
    TJob job;
    if (!Take(job, commands)) return false;
    job();
  }
  return true;
}

void TEngineHost::Run() {
  ServeUntil([] { return false; }, true);
  const std::lock_guard lock(FMutex);
  FEnded = true;
  FChanged.notify_all();
}

}  // namespace brenlow

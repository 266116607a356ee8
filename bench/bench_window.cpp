// SPDX-License-Identifier: GPL-3.0-or-later
// Measures the window; see bench/run.
//   bench_window start        ends when the window is painted and the drives are listed
//   bench_window rows COUNT   a folder of COUNT files: bytes that the window adds, milliseconds to show, to sort by
//   name and
//                             by size, and the latest turn of the event loop meanwhile
#include <malloc.h>
#include <unistd.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QScrollBar>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>

#include "core/drives.h"
#include "core/text.h"
#include "shell/desktop/file_list.h"
#include "shell/desktop/file_model.h"
#include "shell/desktop/main_window.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::desktop;

namespace {

long long ResidentBytes() {
  ::malloc_trim(0);
  std::ifstream file("/proc/self/statm");
  long long all = 0;
  long long resident = 0;
  file >> all >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

void RunUntil(const std::function<bool()>& condition) {
  while (!condition()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
}

struct TLateness {
  TLateness() {
    Timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&Timer, &QTimer::timeout, [this] { Worst = qMax(Worst, Since.restart() - 5); });
    Since.start();
    Timer.start(5);
  }
  QTimer Timer;
  QElapsedTimer Since;
  qint64 Worst = 0;
};

/// A table as an analysis leaves it: one drive with many files at its top.
void FillTable(TEngine& engine, int count) {
  TDriveInfo drive;
  drive.Caption = u"bench";
  drive.Drive = u"/bench";
  drive.SectorsCount = 1;
  drive.BytesPerSector = 512;
  drive.FileSystem = TFileSystem::fsNTFS;
  drive.Analysed = TAnalyseInformation::aiFull;
  drive.DriveTypes = {TDriveType::dtVolume};
  const int number = engine.Drives().Add(drive, true);
  TFileInfo info;
  TFiles::ClearInfo(info, number);
  info.blnFolder = false;
  for (int i = 0; i < count; ++i) {
    const TString name = u"IMG_2023_" + NumberText((static_cast<std::int64_t>(i) * 7919) % count) + u".jpg";
    info.strName = name;
    info.aSize = (i * 31LL) % 1000003;
    info.FirstCluster = 100 + i;
    info.TimeStamp.dtModified = 44000 + i % 5000;
    engine.Files().Add(info, SpecialCluster::Root, true);
  }
}

int MeasureRows(TfMain& window, int count) {
  std::atomic<bool> filled = false;
  window.Controller().Do([&](TCommands&) {
    FillTable(window.Controller().Engine(), count);
    filled = true;
  });
  RunUntil([&] { return filled && !window.Controller().IsBusy(); });
  const long long before = ResidentBytes();
  TLateness lateness;
  auto& model = window.FileList().Model();
  const auto timed = [&](const std::function<void()>& begin, const std::function<bool()>& done) {
    QElapsedTimer clock;
    clock.start();
    begin();
    RunUntil(done);
    return clock.elapsed();
  };
  const int drive = window.Drives().back().Number;
  const qint64 show = timed([&] { window.Controller().OpenDrive(drive); }, [&] { return model.rowCount() >= count; });
  const auto sort = [&](TSortOrder order) {
    return timed([&] { window.Controller().Ask([order](TCommands& commands) { commands.View().Sort(order); }); },
                 [&] { return window.FileList().Place().Sort == order; });
  };
  const qint64 bySize = sort({TSortKey::Size, false});
  const qint64 byName = sort({TSortKey::Name, true});
  QScrollBar* bar = window.FileList().View()->verticalScrollBar();
  for (int i = 0; i <= 200; ++i) {
    bar->setValue(static_cast<int>(static_cast<long long>(bar->maximum()) * i / 200));
    QElapsedTimer clock;
    clock.start();
    RunUntil([&] { return clock.elapsed() > 15; });
  }
  std::printf("%lld %lld %lld %lld %lld\n", ResidentBytes() - before, static_cast<long long>(show),
              static_cast<long long>(byName), static_cast<long long>(bySize), static_cast<long long>(lateness.Worst));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  TSettings settings;
  settings.Master.ShowOnStartup = false;
  settings.Main.DontAskOnClose = true;
  settings.Main.Maximize = false;
  TfMain window(settings, TLanguage::English(), std::string());
  window.show();
  window.Start(QString());
  RunUntil([&] { return !window.Drives().empty() && !window.Controller().IsBusy(); });
  int result = 0;
  if (argc > 2 && std::strcmp(argv[1], "rows") == 0) result = MeasureRows(window, std::atoi(argv[2]));
  window.close();
  window.EndEngine(std::chrono::seconds(10));
  return result;
}

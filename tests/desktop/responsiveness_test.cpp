// SPDX-License-Identifier: GPL-3.0-or-later
// The window never waits for a disk.
#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QScrollBar>
#include <atomic>
#include <thread>

#include "shell/desktop/folder_tree.h"
#include "table/files.h"
#include "window.h"

using namespace brenlow;
using namespace brenlow::desktop;
using namespace brenlow::test;

namespace {

/// Milliseconds that this thread was ready to run so far while the machine ran others; 0 where the kernel does
/// not count them. The second number of schedstat, in nanoseconds: Linux, Documentation/scheduler/sched-stats.
qint64 WaitedForProcessor() {
  QFile file(QStringLiteral("/proc/thread-self/schedstat"));
  if (!file.open(QIODevice::ReadOnly)) return 0;
  const QList<QByteArray> numbers = file.readAll().split(' ');
  return numbers.size() < 2 ? 0 : numbers[1].toLongLong() / 1'000'000;
}

/// The longest time between two turns of the event loop beyond what was asked for, and how late the
/// machine lets a thread be that does nothing else.
class TLateness {
 public:
  TLateness()
      : FControl([this](const std::stop_token& stop) {
          QElapsedTimer since;
          while (!stop.stop_requested()) {
            since.start();
            QThread::msleep(5);
            FMachine = qMax<qint64>(FMachine, since.elapsed() - 5);
          }
        }) {
    FTimer.setInterval(5);
    FTimer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&FTimer, &QTimer::timeout, [this] { Turn(); });
    FSince.start();
    FTimer.start();
  }
  /// Milliseconds that the window itself is to blame for: not those in which other processes had the machine.
  qint64 OfWindow() const { return qMax<qint64>(0, FWorstOwn - FMachine); }
  qint64 Worst = 0;  ///< milliseconds

 private:
  void Turn() {
    const qint64 late = FSince.restart() - 5;
    const qint64 waited = WaitedForProcessor();
    Worst = qMax(Worst, late);
    FWorstOwn = qMax(FWorstOwn, late - (waited - FWaited));
    FWaited = waited;
  }

  QTimer FTimer;
  QElapsedTimer FSince;
  qint64 FWaited = WaitedForProcessor();
  qint64 FWorstOwn = 0;
  std::atomic<qint64> FMachine{0};
  std::jthread FControl;
};

class TResponsivenessTest : public QObject {
  Q_OBJECT
 private Q_SLOTS:
  void slowDevice();
  void manyRows();
};

constexpr qint64 MaxLate = 50;  // milliseconds

/// Every read takes two seconds; the user goes on clicking.
void TResponsivenessTest::slowDevice() {
  TWindow w;
  w.OpenStick();
  w.WaitFor([&] { return w.Idle() && !w.Main->Drives().empty(); });
  QTest::qWait(300);  // the first paint loads fonts
  w.Device->Delay = 2000;
  TLateness lateness;
  w.Main->SecondStart(QStringLiteral("dsk_file ") + w.Key);
  const auto click = [&](int times) {
    for (int i = 0; i < times; ++i) {
      QTest::mouseClick(w.Main->Folders().viewport(), Qt::LeftButton, {}, QPoint(60, 10 + 18 * (i % 4)));
      w.Main->Action(i % 2 == 0 ? TAction::actFilterDeleted : TAction::actSortBySize)->trigger();
      QTest::qWait(100);
    }
  };
  click(10);
  // While it mounts, something is seen to go on.
  const auto* status = w.Main->findChild<QLabel*>(QStringLiteral("lblStatus"));
  QVERIFY(!status->text().isEmpty());
  w.Device->Delay = 0;
  w.WaitFor([&] { return w.Main->Drives().back().Device == u"/stick.img" && w.Idle(); });
  w.Mount();
  w.Device->Delay = 2000;
  const int reads = w.Device->Reads;
  w.Trigger(TAction::actOpen);
  w.WaitFor([&] { return w.Device->Reads > reads; });
  click(15);
  QVERIFY(w.Main->State().Analysing || w.Main->Controller().IsBusy());
  // Silence of the device is told.
  w.WaitFor([&] { return status->text().contains(QStringLiteral("no answer")); });
  w.Main->close();
  QTest::qWait(100);
  qInfo("latest turn of the event loop: %lld ms", static_cast<long long>(lateness.Worst));
  QVERIFY2(lateness.OfWindow() <= MaxLate, qPrintable(QString::number(lateness.Worst)));
}

/// A million rows: scrolling, sorting and selecting keep the window alive.
void TResponsivenessTest::manyRows() {
  TWindow w;
  w.Open(LoadTestImage("demo-stick.img.zst"));
  w.Analyse();
  constexpr int count = 1'000'000;
  w.Main->Controller().Do([&w](TCommands& commands) {
    TEngine& engine = w.Main->Controller().Engine();
    TFileInfo info;
    TFiles::ClearInfo(info, engine.Drives().Current);
    info.blnFolder = false;
    for (int i = 0; i < count; ++i) {
      const TString name = u"IMG_" + NumberText(count - i) + u".jpg";
      info.strName = name;
      info.aSize = i;
      info.FirstCluster = 100 + i;
      engine.Files().Add(info, SpecialCluster::Root, true);
    }
    commands.View().Rebuild();
  });
  w.WaitFor([&] { return w.Rows() > count; });
  QTest::qWait(200);
  TLateness lateness;
  auto* view = w.Main->FileList().View();
  for (int i = 1; i <= 20; ++i) {
    view->verticalScrollBar()->setValue(view->verticalScrollBar()->maximum() / 20 * i);
    QTest::qWait(30);
  }
  w.WaitFor([&] { return view->model()->index(w.Rows() - 1, 0).data().toString() != QStringLiteral("…"); });
  const auto sorted = [&](TSortOrder order) { w.WaitFor([&] { return w.Main->FileList().Place().Sort == order; }); };
  w.Main->Action(TAction::actSortBySize)->trigger();
  sorted({TSortKey::Size, false});
  w.Main->Action(TAction::actSortDescending)->trigger();
  sorted({TSortKey::Size, true});
  w.Main->Action(TAction::actSortByName)->trigger();
  sorted({TSortKey::Name, true});
  qInfo("latest turn while scrolling and sorting a million rows: %lld ms", static_cast<long long>(lateness.Worst));
  // What Qt itself does for a list of that length is short, but not nothing.
  QVERIFY2(lateness.OfWindow() <= 4 * MaxLate, qPrintable(QString::number(lateness.Worst)));
}

}  // namespace

int main(int argc, char** argv) { return RunTest<TResponsivenessTest>(argc, argv); }
#include "responsiveness_test.moc"

// SPDX-License-Identifier: GPL-3.0-or-later
// The real window with the demo stick, driven as a user would.
#pragma once

#include <doctest/doctest.h>

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QTest>
#include <QThread>
#include <cstring>
#include <functional>
#include <memory>
#include <source_location>

#include "shell/desktop/file_list.h"
#include "shell/desktop/file_model.h"
#include "shell/desktop/main_window.h"
#include "support/images.h"

namespace brenlow::test {

/// What `QTEST_MAIN` does, with doctest's checks of the test support working too.
template <typename TTest>
int RunTest(int argc, char** argv) {
  doctest::Context context;
  context.setAsDefaultForAssertsOutOfTestCases();
  context.setAssertHandler(
      [](const doctest::AssertData& failed) { QTest::qFail(failed.m_expr, failed.m_file, failed.m_line); });
  QApplication application(argc, argv);
  TTest test;
  return QTest::qExec(&test, argc, argv);
}

/// A device whose reads take as long as the test likes.
class TSlowDevice final : public IDevice {
 public:
  explicit TSlowDevice(TImage image) : FImage(std::move(image)) {}
  std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) override {
    ++Reads;
    if (Delay > 0) QThread::msleep(static_cast<unsigned long>(Delay));
    if (position >= Size()) return 0;
    const auto count = std::min(buffer.size(), FImage.size() - static_cast<std::size_t>(position));
    std::copy_n(FImage.begin() + position, count, buffer.begin());
    return count;
  }
  std::int64_t Size() const override { return static_cast<std::int64_t>(FImage.size()); }
  int SectorSize() const override { return 512; }
  void AddOrigins(std::vector<brenlow::TFileIdentity>&) const override {}

  std::atomic<int> Delay{0};  ///< milliseconds of each read
  std::atomic<int> Reads{0};

 private:
  TImage FImage;
};

/// An MBR with two partitions, each the demo stick, and as many sectors of nothing between them.
inline TImage DiskOfSticks(std::uint32_t gap) {
  const TImage stick = LoadTestImage("demo-stick.img.zst");
  const auto sectors = static_cast<std::uint32_t>(stick.size() / 512);
  TImage disk(2048 * 512, 0);
  for (std::uint32_t i = 0; i < 2; ++i) {
    if (i > 0) disk.resize(disk.size() + std::size_t{gap} * 512);
    std::uint8_t* entry = disk.data() + 446 + 16 * i;
    entry[4] = 0x0C;  // FAT32
    const std::uint32_t values[] = {static_cast<std::uint32_t>(disk.size() / 512), sectors};
    std::memcpy(entry + 8, values, sizeof values);
    disk.insert(disk.end(), stick.begin(), stick.end());
  }
  disk[510] = 0x55;
  disk[511] = 0xAA;
  return disk;
}

class TWindow {
 public:
  TWindow() {
    Settings.Master.ShowOnStartup = false;
    Settings.Main.DontAskOnClose = true;
    Settings.Main.Maximize = false;
    Settings.Main.Language = "English";
    Settings.Recovery.Path = Folder.Path() + "/out";
    Settings.Recovery.CanReplaceSymbols = true;
  }
  ~TWindow() { Close(); }

  /// Shows the window over an image under the key, which may be slow.
  void Open(TImage image, TStringView key = u"/stick.img") {
    auto device = std::make_unique<TSlowDevice>(std::move(image));
    Device = device.get();
    Main = std::make_unique<desktop::TfMain>(Settings, TLanguage::English(), BRENLOW_LANGUAGES);
    Main->Controller().Engine().Devices().Insert(key, std::move(device));
    Main->resize(1280, 800);
    Main->show();
    Main->Start(QString());
    Key = QString::fromStdString(ToUtf8(key));
  }
  void OpenStick() { Open(LoadTestImage("demo-stick.img.zst")); }
  void Close() {
    if (Main == nullptr) return;
    if (Device != nullptr) Device->Delay = 0;
    Main->close();
    Main->EndEngine(std::chrono::minutes(2));
    Main.reset();
  }
  void Mount() {
    Main->SecondStart(QStringLiteral("dsk_file ") + Key);
    WaitFor([this] { return !Names().contains(QStringLiteral("…")) && Main->State().Tree.Drive >= 0; });
  }
  /// Mounts the image and analyses it.
  void Analyse() {
    Mount();
    Trigger(TAction::actOpen);
    WaitFor([this] { return Idle() && Rows() > 0; });
  }

  bool Idle() const {
    return !Main->Controller().IsBusy() && !Main->State().Analysing && !Main->State().Searching &&
           Main->Progress().Kind == TProgressSnapshot::None;
  }
  void Trigger(TAction action) {
    WaitFor([&] { return Main->Action(action)->isEnabled(); });
    Main->Action(action)->trigger();
  }
  /// Runs the event loop until the condition holds; the test fails after two minutes, which is long enough for
  /// what takes a moment on a quiet machine.
  static void WaitFor(const std::function<bool()>& condition,
                      std::source_location where = std::source_location::current()) {
    constexpr int milliseconds = 120'000;
    QElapsedTimer clock;
    clock.start();
    // What an idle engine has told may still be on its way to the window.
    while (QTest::qWaitFor(condition, milliseconds - static_cast<int>(clock.elapsed()))) {
      QCoreApplication::processEvents();
      if (condition()) return;
    }
    QTest::qFail("waited in vain", where.file_name(), static_cast<int>(where.line()));
  }
  int Rows() const { return Main->FileList().Model().rowCount(); }
  /// The names in the file list as they stand there, fetched.
  QStringList Names() const {
    QStringList names;
    auto& model = Main->FileList().Model();
    const auto name = [&](int row) { return model.index(row, 0).data().toString(); };
    for (int row = 0; row < model.rowCount(); ++row) {
      WaitFor([&] { return row >= model.rowCount() || name(row) != QStringLiteral("…"); });
      if (row < model.rowCount()) names << name(row);
    }
    return names;
  }
  void Select(const QStringList& wanted) {
    const QStringList names = Names();
    auto* view = Main->FileList().View();
    view->clearSelection();
    for (const QString& name : wanted) {
      const qsizetype row = names.indexOf(name);
      QVERIFY2(row >= 0, qPrintable(name));
      view->selectionModel()->select(view->model()->index(static_cast<int>(row), 0),
                                     QItemSelectionModel::Select | QItemSelectionModel::Rows);
      view->selectionModel()->setCurrentIndex(view->model()->index(static_cast<int>(row), 0),
                                              QItemSelectionModel::NoUpdate);
    }
    WaitFor([&] { return Main->State().List.Count == wanted.size(); });
  }
  /// Opens a folder of the list, as a double click does.
  void Enter(const QString& name) {
    Select({name});
    const std::uint64_t place = Main->FileList().Place().Place;
    Trigger(TAction::actOpen);
    WaitFor([&] { return Main->FileList().Place().Place != place; });
  }
  /// The dialog of that name, when it shows.
  template <typename TWidget = QWidget>
  TWidget* Find(const char* name) const {
    for (TWidget* widget : Main->findChildren<TWidget*>(QLatin1String(name))) {
      if (widget->isVisible()) return widget;
    }
    return nullptr;
  }
  void Click(const char* button) const {
    WaitFor([&] { return Find<QAbstractButton>(button) != nullptr && Find<QAbstractButton>(button)->isEnabled(); });
    QTest::mouseClick(Find<QAbstractButton>(button), Qt::LeftButton);
  }

  /// Goes through the recovery wizard, which shows or is about to, with what it proposes.
  void RunRecoveryMaster() const {
    Click("btnNext");
    WaitFor([&] { return Find("TfrmSaveOptions") != nullptr; });
    Click("btnNext");
    WaitFor([&] { return Find("TfrmFinish") != nullptr; });
  }

  TTemporaryFolder Folder;
  TSettings Settings;
  std::unique_ptr<desktop::TfMain> Main;
  TSlowDevice* Device = nullptr;
  QString Key;
};

}  // namespace brenlow::test

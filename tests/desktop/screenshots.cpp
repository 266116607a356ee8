// SPDX-License-Identifier: GPL-3.0-or-later
// Pictures of the main flows, for looking at and for the documents; see tools/screenshots.
#include <QDialog>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QScreen>
#include <QTabBar>
#include <QTreeWidget>

#include "window.h"

using namespace brenlow;
using namespace brenlow::desktop;
using namespace brenlow::test;

namespace {

class TScreenshots : public QObject {
  Q_OBJECT
 private Q_SLOTS:
  void flows();
  void disks();
  void dark();

 private:
  static void Take(const char* name) {
    QTest::qWait(400);  // what is under way arrives and is painted
    const QString path = QStringLiteral("%1/%2.png").arg(qEnvironmentVariable("BRENLOW_SHOTS"), QLatin1String(name));
    QVERIFY(QGuiApplication::primaryScreen()->grabWindow(0).save(path));
  }
  static QSize ScreenSize() { return QGuiApplication::primaryScreen()->size(); }
};

void TScreenshots::flows() {
  TWindow w;
  w.OpenStick();
  w.Main->resize(ScreenSize());
  w.Main->move(0, 0);
  w.WaitFor([&] { return w.Idle(); });
  Take("01-computer");
  w.Main->Action(TAction::actMaster)->trigger();
  w.WaitFor([&] { return w.Find("TfAnalyseMaster") != nullptr; });
  Take("02-master-drive");
  w.Find<QDialog>("TfAnalyseMaster")->reject();
  w.Mount();
  Take("03-not-analysed");
  w.Trigger(TAction::actMaster);
  w.Click("btnNext");
  Take("04-master-type");
  w.Find<QRadioButton>("rbFull")->setChecked(true);
  w.Click("btnNext");
  Take("05-master-files");
  w.Find<QDialog>("TfAnalyseMaster")->reject();
  w.Device->Delay = 400;
  w.Trigger(TAction::actOpen);
  w.WaitFor([&] { return w.Main->State().Analysing && w.Rows() > 0; });
  Take("06-scanning");
  w.Trigger(TAction::actStopAnalyse);
  Take("07-stop-question");
  w.Click("btnBanner0");
  w.WaitFor([&] { return w.Idle(); });
  Take("08-stopped");
  w.Device->Delay = 0;
  w.Click("btnBanner0");
  w.WaitFor([&] { return w.Idle() && w.Rows() > 4; });
  w.Select({QStringLiteral("README.TXT")});
  Take("09-files");
  auto* tree = w.Main->findChild<QTreeView*>(QStringLiteral("tvFolders"));
  for (int i = 0; i < tree->model()->rowCount(tree->currentIndex()); ++i) {
    const QModelIndex folder = tree->model()->index(i, 0, tree->currentIndex());
    if (folder.data().toString() == QStringLiteral("Lost and found")) tree->expandRecursively(folder);
  }
  w.Enter(QStringLiteral("Pictures"));
  w.Enter(QStringLiteral("Summer 2020"));
  const QStringList names = w.Names();
  w.Select({names.front()});
  auto& model = w.Main->FileList().Model();
  model.setData(model.index(0, 0), Qt::Checked, Qt::CheckStateRole);
  model.setData(model.index(1, 0), Qt::Checked, Qt::CheckStateRole);
  Take("10-recovery-list");
  w.Trigger(TAction::actViewLargeIcons);
  Take("11-large-icons");
  w.Trigger(TAction::actViewTile);
  Take("12-tiles");
  w.Trigger(TAction::actViewList);
  Take("13-list");
  w.Trigger(TAction::actViewDetails);
  w.Trigger(TAction::actProperties);
  w.WaitFor([&] { return w.Find("TfProperties") != nullptr; });
  Take("14-properties");
  w.Find<QDialog>("TfProperties")->reject();
  w.Trigger(TAction::actFindFile);
  Take("15-find-file");
  w.Find<QDialog>("TfFindFile")->reject();
  auto* edit = w.Find<QLineEdit>("edtQuickFind");
  edit->setText(QStringLiteral("*.txt"));
  QTest::keyClick(edit, Qt::Key_Return);
  Take("16-search-results");
  w.Trigger(TAction::actRecoveryFromList);
  w.WaitFor([&] { return w.Find("TfRecoveryMaster") != nullptr; });
  Take("17-recover-kind");
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfrmSaveOptions") != nullptr; });
  Take("18-recover-options");
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfrmFinish") != nullptr; });
  Take("19-recover-finish");
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfRecoveryMaster") == nullptr; });
  w.Trigger(TAction::actSettings);
  Take("20-settings");
  w.Find<QDialog>("TfSettings")->reject();
  w.Trigger(TAction::actWhere);
  Take("21-where");
  w.Find<QDialog>("TfWhereFiles")->reject();
  w.Main->SecondStart(QStringLiteral("path_") + w.Key);
  w.WaitFor([&] { return w.Find("TfAnalyseMaster") != nullptr; });
  w.Find<QDialog>("TfAnalyseMaster")->reject();
  w.Main->Controller().OpenDrive(w.Main->Drives().back().Number);
  w.WaitFor([&] { return w.Main->State().Tree.Drive >= 0; });
  w.Trigger(TAction::actFoldersFindPartitions);
  Take("22-find-partitions");
  w.Click("btnSearch");
  w.WaitFor([&] { return w.Idle(); });
  Take("23-found-partitions");
  w.Find<QDialog>("TfFindPartitions")->reject();
  w.Trigger(TAction::actFoldersCreateImage);
  Take("24-create-image");
  w.Find<QDialog>("TfCreateImage")->reject();
  w.Trigger(TAction::actFoldersCreateVirtualPartition);
  Take("25-virtual-partition");
  w.Find<QDialog>("TfCreateVirtualPartition")->reject();
  w.Trigger(TAction::actAbout);
  Take("27-about");
  w.Find<QDialog>("TfAbout")->reject();
  w.Main->SecondStart(QStringLiteral("dsk_file /no/such/image.img"));
  Take("28-error");
}

void TScreenshots::disks() {
  TWindow w;
  w.Settings.FileList.Tab = 1;
  w.Open(DiskOfSticks(100'000), u"/old disk.img");
  w.Main->resize(ScreenSize());
  w.Main->move(0, 0);
  w.Mount();
  Take("26-disks");
}

void TScreenshots::dark() {
  QPalette dark(QColor(0x31, 0x36, 0x3B), QColor(0x2A, 0x2E, 0x32));
  dark.setColor(QPalette::WindowText, QColor(0xFC, 0xFC, 0xFC));
  dark.setColor(QPalette::Base, QColor(0x1B, 0x1E, 0x20));
  dark.setColor(QPalette::AlternateBase, QColor(0x23, 0x26, 0x29));
  dark.setColor(QPalette::Text, QColor(0xFC, 0xFC, 0xFC));
  dark.setColor(QPalette::ButtonText, QColor(0xFC, 0xFC, 0xFC));
  dark.setColor(QPalette::Highlight, QColor(0x3D, 0xAE, 0xE9));
  dark.setColor(QPalette::HighlightedText, QColor(0xFC, 0xFC, 0xFC));
  dark.setColor(QPalette::PlaceholderText, QColor(0xA1, 0xA9, 0xB1));
  dark.setColor(QPalette::ToolTipBase, QColor(0x31, 0x36, 0x3B));
  dark.setColor(QPalette::ToolTipText, QColor(0xFC, 0xFC, 0xFC));
  QApplication::setPalette(dark);
  TWindow w;
  w.Settings.RecoveryList.IsOn = true;
  w.OpenStick();
  w.Main->resize(ScreenSize());
  w.Main->move(0, 0);
  w.Analyse();
  w.Select({QStringLiteral("README.TXT")});
  Take("29-dark");
}

}  // namespace

int main(int argc, char** argv) { return RunTest<TScreenshots>(argc, argv); }
#include "screenshots.moc"

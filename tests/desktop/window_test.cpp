// SPDX-License-Identifier: GPL-3.0-or-later
// The whole road in the real window, on the offscreen platform.
#include "window.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateEdit>
#include <QDialogButtonBox>
#include <QDir>
#include <QDirIterator>
#include <QDropEvent>
#include <QFile>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QRadioButton>
#include <QTimer>
#include <QTreeWidget>
#include <QUrl>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "recovery/master_link.h"
#include "shell/desktop/banner.h"
#include "shell/desktop/disk_manager.h"
#include "shell/desktop/folder_tree.h"
#include "shell/desktop/single_instance.h"
#include "support/fat_builder.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::desktop;
using namespace brenlow::test;

namespace {

QByteArray ContentOf(const QString& path) {
  QFile file(path);
  return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("cannot be opened");
}

/// What the engine reads as the content of a file of the demo stick, by its path.
QByteArray Expected(const QString& wanted) {
  static const auto files = [] {
    std::map<QString, QByteArray> contents;
    TEngine engine;
    const TMounted stick = Mount(engine, LoadTestImage("demo-stick.img.zst"));
    AnalyseDrive(engine, stick.Number);
    const TFileTableLink link(engine);
    for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
      TFile& file = engine.Files().List[i];
      if (file.FileInfo.blnFolder) continue;
      QString path;
      for (const TString& folder : link.GetFilePath(static_cast<int>(i)))
        path += QString::fromStdU16String(folder) + QLatin1Char('/');
      TByteDynArray bytes;
      GetFileData(engine, bytes, file, -1, 0, file.FileInfo.aSize);
      path += QString::fromStdU16String(TString(file.FileInfo.strName));
      contents[path] = QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<qsizetype>(bytes.size()));
    }
    return contents;
  }();
  const auto found = files.find(wanted);
  return found == files.end() ? QByteArray("not on the stick") : found->second;
}

class TWindowTest : public QObject {
  Q_OBJECT

 private Q_SLOTS:
  void wholeRoad();
  void stopAndResume();
  void filtersAndSearch();
  void recoveryListByTicks();
  void conflictsAreAsked();
  void languageSwitch();
  void argumentsAndSecondInstance();
  void closeWhileScanning();
  void master();
  void diskWithVolumes();
  void findPartitions();
  void imageAndVirtualPartition();
  void imageNeverReplacesItsSource();
  void errorsShowInTheWindow();
  void settingsAreKept();
  void navigation();
};

void TWindowTest::wholeRoad() {
  TWindow w;
  w.OpenStick();
  w.Mount();
  QCOMPARE(w.Rows(), 0);
  QVERIFY(w.Find("pnEmpty") != nullptr);  // says what to do next
  QVERIFY(!w.Main->Action(TAction::actRecovery)->isEnabled());
  w.Trigger(TAction::actOpen);
  w.WaitFor([&] { return w.Idle() && w.Rows() > 3; });
  const QStringList names = w.Names();
  QVERIFY(names.contains(QStringLiteral("README.TXT")));
  // Folders stand before files.
  QVERIFY(names.indexOf(QStringLiteral("Documents")) < names.indexOf(QStringLiteral("README.TXT")));

  w.Select({QStringLiteral("Documents"), QStringLiteral("README.TXT")});
  w.Trigger(TAction::actRecovery);
  w.WaitFor([&] { return w.Find("TfRecoveryMaster") != nullptr; });
  QVERIFY(!w.Main->Action(TAction::actMountImage)->isEnabled());
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfrmSaveOptions") != nullptr; });
  w.Find<QLineEdit>("edtPath")->setText(QString::fromStdString(w.Folder.Path() + "/out"));
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfrmFinish") != nullptr; });
  QVERIFY(w.Find<QLabel>("lblSummary")->text().contains(QStringLiteral("recovered")));
  w.Click("btnNext");
  w.WaitFor(
      [&] { return w.Find("TfRecoveryMaster") == nullptr && w.Main->Action(TAction::actMountImage)->isEnabled(); });

  // Every file on the target is what stands on the stick.
  const QString out = QString::fromStdString(w.Folder.Path() + "/out");
  int files = 0;
  for (QDirIterator it(out, QDir::Files, QDirIterator::Subdirectories); it.hasNext(); ++files) {
    const QString path = it.next();
    QCOMPARE(ContentOf(path), Expected(QDir(out).relativeFilePath(path)));
  }
  QVERIFY2(files > 3, qPrintable(QString::number(files)));
}

void TWindowTest::stopAndResume() {
  TWindow w;
  w.OpenStick();
  w.Mount();
  w.Device->Delay = 100;
  w.Trigger(TAction::actOpen);
  w.WaitFor([&] { return w.Main->State().Analysing; });
  QVERIFY(!w.Main->Action(TAction::actRecovery)->isEnabled());
  w.Trigger(TAction::actStopAnalyse);
  w.Click("btnBanner1");  // go on
  QVERIFY(w.Main->State().Analysing);
  w.Trigger(TAction::actStopAnalyse);
  w.Click("btnBanner0");
  w.WaitFor([&] { return w.Idle(); });
  QVERIFY(w.Main->Drives().back().Analysed == TAnalyseInformation::aiPartial);
  // The window says that there is more, and how to get it.
  w.WaitFor([&] { return w.Main->Banner().Message().contains(QStringLiteral("was stopped")); });
  w.Device->Delay = 0;
  w.Click("btnBanner0");
  w.WaitFor([&] { return w.Idle() && w.Main->Drives().back().Analysed == TAnalyseInformation::aiFull; });
  QVERIFY(w.Names().contains(QStringLiteral("README.TXT")));
}

void TWindowTest::filtersAndSearch() {
  TWindow w;
  w.OpenStick();
  w.Analyse();
  const qsizetype all = w.Names().size();
  w.Trigger(TAction::actFilterExisting);
  w.WaitFor([&] { return w.Rows() < all; });
  QVERIFY(!w.Names().contains(QStringLiteral("README.TXT")));
  w.Trigger(TAction::actFilterDeleted);
  w.WaitFor([&] { return w.Rows() == 0; });
  QVERIFY(w.Find("pnEmpty") != nullptr);
  w.Trigger(TAction::actFilterExisting);
  w.Trigger(TAction::actFilterDeleted);
  w.WaitFor([&] { return w.Rows() == all; });
  w.Trigger(TAction::actFilterImage);
  w.WaitFor([&] { return !w.Names().contains(QStringLiteral("README.TXT")); });
  w.Trigger(TAction::actFilterAllFiles);
  w.WaitFor([&] { return w.Rows() == all; });

  auto* edit = w.Find<QLineEdit>("edtQuickFind");
  QTest::keyClicks(edit, QStringLiteral("*.png"));
  QTest::keyClick(edit, Qt::Key_Return);
  w.WaitFor([&] { return w.Main->State().ShowsSearch && w.Rows() > 0; });
  for (const QString& name : w.Names())
    QVERIFY2(name.endsWith(QStringLiteral(".png"), Qt::CaseInsensitive), qPrintable(name));
  // The same with everything that the form knows: only what is large enough and in time.
  w.Trigger(TAction::actFindFile);
  w.WaitFor([&] { return w.Find("TfFindFile") != nullptr; });
  w.Find<QLineEdit>("edtFind")->setText(QStringLiteral("beach"));
  w.Settings.Find.BySize = w.Settings.Find.ByDate = false;
  w.Find<QCheckBox>("cbBySize")->setChecked(true);
  w.Find<QComboBox>("cmbSizeType")->setCurrentIndex(3);
  w.Find<QLineEdit>("edtSizeKB")->setText(QStringLiteral("8"));
  w.Find<QCheckBox>("cbByDate")->setChecked(true);
  w.Find<QComboBox>("cmbDateType")->setCurrentIndex(3);
  w.Find<QDateEdit>("edtFrom")->setDate(QDate(2020, 8, 14));
  w.Find<QDateEdit>("edtTo")->setDate(QDate(2020, 8, 14));
  w.Find<QDialog>("TfFindFile")->accept();
  const QStringList large{QStringLiteral("beach 3.png"), QStringLiteral("beach 4.png")};
  w.WaitFor([&] { return w.Names() == large; });
  QVERIFY(w.Settings.Find.BySize && w.Settings.Find.SizeSpecify == 8);

  const QString first = w.Names().front();
  w.Select({first});
  w.Trigger(TAction::actFoundFileLocation);
  w.WaitFor([&] { return !w.Main->State().ShowsSearch && w.Main->State().List.Count == 1; });
  QVERIFY(w.Names().contains(first));
  const TFileRow* row = w.Main->FileList().CurrentRow();
  QVERIFY(row != nullptr && QString::fromStdU16String(row->Name) == first);
}

void TWindowTest::recoveryListByTicks() {
  TWindow w;
  w.OpenStick();
  w.Analyse();
  auto& model = w.Main->FileList().Model();
  const int row = static_cast<int>(w.Names().indexOf(QStringLiteral("Pictures")));
  QVERIFY(row >= 0);
  QVERIFY(!w.Main->Action(TAction::actRecoveryFromList)->isEnabled());
  QVERIFY(model.setData(model.index(row, 0), Qt::Checked, Qt::CheckStateRole));
  w.WaitFor([&] { return w.Main->Action(TAction::actRecoveryFromList)->isEnabled(); });
  QVERIFY(w.Find("TfrRecoveryList") != nullptr);  // shows by itself
  // Two more by drag and drop, which stands for the selection; the list is sorted by a click on its head.
  w.Select({QStringLiteral("README.TXT"), QStringLiteral("NEWFILE.TXT")});
  auto* panel = w.Find("TfrRecoveryList");
  const std::unique_ptr<QMimeData> dragged(model.mimeData({model.index(0, 0)}));
  QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, dragged.get(), Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(panel, &enter);
  QVERIFY(enter.isAccepted());
  QDropEvent drop(QPointF(5, 5), Qt::CopyAction, dragged.get(), Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(panel, &drop);
  auto* list = panel->findChild<QTableView*>(QStringLiteral("lvRecoveryList"));
  const auto names = [&] {
    QStringList shown;
    for (int i = 0; i < list->model()->rowCount(); ++i) shown << list->model()->index(i, 0).data().toString();
    return shown;
  };
  const QStringList up{QStringLiteral("Pictures"), QStringLiteral("NEWFILE.TXT"), QStringLiteral("README.TXT")};
  w.WaitFor([&] { return names() == up; });
  Q_EMIT list->horizontalHeader()->sectionClicked(0);
  const QStringList down{QStringLiteral("Pictures"), QStringLiteral("README.TXT"), QStringLiteral("NEWFILE.TXT")};
  w.WaitFor([&] { return names() == down; });

  w.Trigger(TAction::actRecoveryFromList);
  w.WaitFor([&] { return w.Find("TfRecoveryMaster") != nullptr; });
  w.RunRecoveryMaster();
  w.Click("btnNext");
  w.WaitFor([&] { return w.Idle() && w.Find("TfRecoveryMaster") == nullptr; });
  const QString png = QString::fromStdString(w.Folder.Path() + "/out/Pictures/Summer 2020/beach 3.png");
  QCOMPARE(ContentOf(png), Expected(QStringLiteral("Pictures/Summer 2020/beach 3.png")));
  QCOMPARE(ContentOf(QString::fromStdString(w.Folder.Path() + "/out/README.TXT")),
           Expected(QStringLiteral("README.TXT")));
  QVERIFY(model.setData(model.index(row, 0), Qt::Unchecked, Qt::CheckStateRole));
  w.WaitFor([&] { return names().size() == 2; });
  list->selectAll();
  w.Click("btnRemoveFromList");
  w.WaitFor([&] { return !w.Main->Action(TAction::actRecoveryFromList)->isEnabled(); });
}

void TWindowTest::conflictsAreAsked() {
  TWindow w;
  w.OpenStick();
  w.Analyse();
  QDir().mkpath(QString::fromStdString(w.Folder.Path() + "/out"));
  QFile there(QString::fromStdString(w.Folder.Path() + "/out/README.TXT"));
  QVERIFY(there.open(QIODevice::WriteOnly));
  there.write("mine");
  there.close();
  w.Select({QStringLiteral("README.TXT")});
  w.Trigger(TAction::actRecovery);
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfrmSaveOptions") != nullptr; });
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfFileExists") != nullptr; });
  QCOMPARE(w.Find<QLabel>("lblName")->text(), QStringLiteral("README.TXT"));
  QCOMPARE(w.Find<QLineEdit>("edtNewName")->text(), QStringLiteral("README (2).TXT"));
  w.Click("btnExists4");  // Rename
  w.WaitFor([&] { return w.Find("TfrmFinish") != nullptr; });
  QCOMPARE(ContentOf(there.fileName()), QByteArray("mine"));
  QCOMPARE(ContentOf(QString::fromStdString(w.Folder.Path() + "/out/README (2).TXT")),
           Expected(QStringLiteral("README.TXT")));
}

void TWindowTest::languageSwitch() {
  TWindow w;
  w.OpenStick();
  w.Analyse();
  QCOMPARE(w.Main->Action(TAction::actRecovery)->text(), QStringLiteral("Recovery"));
  w.Trigger(TAction::actSettings);
  w.WaitFor([&] { return w.Find("TfSettings") != nullptr; });
  w.Find<QComboBox>("cmbLanguage")->setCurrentText(QStringLiteral("German"));
  w.Find<QDialog>("TfSettings")->accept();
  w.WaitFor([&] { return w.Main->FileList().Place().Crumbs.front() == u"Dieser Computer"; });
  QCOMPARE(w.Main->Action(TAction::actRecovery)->text(), QStringLiteral("Wiederherstellen"));
  QCOMPARE(QString::fromStdString(w.Settings.Main.Language), QStringLiteral("German"));
  // Rows that are shown say it in the new language too.
  auto& model = w.Main->FileList().Model();
  const int row = static_cast<int>(w.Names().indexOf(QStringLiteral("Documents")));
  w.WaitFor([&] { return model.index(row, TFileModel::Type).data().toString() == QStringLiteral("Ordner"); });
}

void TWindowTest::argumentsAndSecondInstance() {
  TWindow w;
  w.OpenStick();
  const QString name = QStringLiteral("brenlow test %1").arg(QCoreApplication::applicationPid());
  TSingleInstance first(name);
  QVERIFY(!TSingleInstance(name).HandOver(QStringLiteral("nobody listens")));
  QVERIFY(first.Listen());
  QObject::connect(&first, &TSingleInstance::Started, w.Main.get(), &TfMain::SecondStart);
  TSingleInstance second(name);
  QVERIFY(second.HandOver(QStringLiteral("DSK_FILE ") + w.Key));
  w.WaitFor([&] { return w.Main->State().Tree.Drive >= 0; });
  QCOMPARE(w.Main->Drives()[static_cast<std::size_t>(w.Main->State().Tree.Drive)].Device, TString(u"/stick.img"));
  // Once more: the image is there already, and the window says so.
  QVERIFY(second.HandOver(QStringLiteral("dsk_file ") + w.Key));
  w.WaitFor([&] { return w.Main->Banner().Message().contains(QStringLiteral("already mounted")); });
  // The same by dropping the file onto the window.
  w.Main->Banner().hide();
  QMimeData file;
  file.setUrls({QUrl::fromLocalFile(w.Key)});
  QDragEnterEvent enter(QPoint(300, 300), Qt::CopyAction, &file, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(w.Main.get(), &enter);
  QVERIFY(enter.isAccepted());
  QDropEvent drop(QPointF(300, 300), Qt::CopyAction, &file, Qt::LeftButton, Qt::NoModifier);
  QCoreApplication::sendEvent(w.Main.get(), &drop);
  w.WaitFor([&] { return w.Main->Banner().Message().contains(QStringLiteral("already mounted")); });
  QVERIFY(second.HandOver(QStringLiteral("path_/stick.img")));
  w.WaitFor([&] { return w.Find("TfAnalyseMaster") != nullptr; });
  QVERIFY(w.Find<QListWidget>("lbDrives")->currentItem()->text().contains(QStringLiteral("stick.img")));
}

void TWindowTest::closeWhileScanning() {
  TWindow w;
  w.Settings.Main.DontAskOnClose = false;
  w.OpenStick();
  w.Mount();
  w.Device->Delay = 100;
  w.Trigger(TAction::actOpen);
  w.WaitFor([&] { return w.Main->State().Analysing; });
  const auto answer = [&](int button, bool dontAsk) {
    QTimer::singleShot(100, w.Main.get(), [&w, button, dontAsk] {
      auto* box = w.Find<QMessageBox>("msgClose");
      QVERIFY(box != nullptr);
      box->checkBox()->setChecked(dontAsk);
      box->buttons().at(button)->click();
    });
  };
  answer(1, true);
  QVERIFY(!w.Main->close());  // the user thought better of it
  QVERIFY(w.Main->isVisible());
  QVERIFY(w.Main->State().Analysing);
  QVERIFY(!w.Settings.Main.DontAskOnClose);
  answer(0, true);
  QVERIFY(w.Main->close());
  QVERIFY(w.Settings.Main.DontAskOnClose);
  QVERIFY(w.Main->EndEngine(std::chrono::minutes(2)));
}

void TWindowTest::master() {
  TWindow w;
  w.OpenStick();
  w.Mount();
  w.Trigger(TAction::actMaster);
  w.WaitFor([&] { return w.Find("TfAnalyseMaster") != nullptr; });
  w.Click("btnNext");
  w.Find<QRadioButton>("rbFull")->setChecked(true);
  w.Click("btnNext");
  auto* types = w.Find<QTreeWidget>("tvTypes");
  QVERIFY(types != nullptr && types->topLevelItemCount() > 3);
  for (int i = 0; i < types->topLevelItemCount(); ++i) types->topLevelItem(i)->setCheckState(0, Qt::Unchecked);
  const auto* next = w.Find<QAbstractButton>("btnNext");
  QVERIFY(!next->isEnabled());  // nothing to look for
  QTreeWidgetItem* png = nullptr;
  for (int g = 0; g < types->topLevelItemCount(); ++g) {
    for (int i = 0; i < types->topLevelItem(g)->childCount(); ++i) {
      QTreeWidgetItem* item = types->topLevelItem(g)->child(i);
      if (item->data(0, Qt::UserRole).toString() == QStringLiteral(".png")) png = item;
    }
  }
  QVERIFY(png != nullptr);
  png->setCheckState(0, Qt::Checked);
  w.Click("btnNext");
  w.WaitFor([&] { return w.Idle() && w.Main->Drives().back().DeepAnalysed == TAnalyseInformation::aiFull; });
  QVERIFY(w.Names().contains(QStringLiteral("README.TXT")));
  w.Enter(QStringLiteral("Deep analysis"));
  QCOMPARE(w.Rows(), 1);  // one folder: of the one type
}

void TWindowTest::diskWithVolumes() {
  TWindow w;
  w.Open(DiskOfSticks(0));
  w.Mount();
  w.Device->Delay = 60;
  w.Trigger(TAction::actOpen);
  // The volumes show while the disk is analysed, and can be looked into.
  w.WaitFor([&] { return w.Main->State().Analysing && w.Rows() > 0; });
  w.WaitFor([&] { return !w.Names().isEmpty(); });
  w.Device->Delay = 0;
  w.WaitFor([&] { return w.Idle() && w.Rows() == 2; });
  const QString volume = w.Names().front();
  QVERIFY2(volume.startsWith(QStringLiteral("DEMOSTICK")), qPrintable(volume));
  w.Enter(volume);
  QVERIFY(w.Names().contains(QStringLiteral("README.TXT")));
  // All of the disk: each volume below a folder of its name.
  w.Main->FileList().View()->clearSelection();
  QTest::keyClick(w.Main.get(), Qt::Key_Up, Qt::AltModifier);
  w.WaitFor([&] { return w.Rows() == 2; });
  w.Trigger(TAction::actFoldersRecovery);
  w.RunRecoveryMaster();
  int found = 0;
  for (QDirIterator it(QString::fromStdString(w.Folder.Path() + "/out"), {QStringLiteral("README.TXT")}, QDir::Files,
                       QDirIterator::Subdirectories);
       it.hasNext(); ++found) {
    QCOMPARE(ContentOf(it.next()), Expected(QStringLiteral("README.TXT")));
  }
  QCOMPARE(found, 2);
}

void TWindowTest::findPartitions() {
  // A disk whose table is gone: the volume begins at sector 2048.
  TImage disk(2048 * 512, 0);
  const TImage stick = LoadTestImage("demo-stick.img.zst");
  disk.insert(disk.end(), stick.begin(), stick.end());
  TWindow w;
  w.Open(std::move(disk));
  w.Mount();
  w.Trigger(TAction::actFoldersFindPartitions);
  w.WaitFor([&] { return w.Find("TfFindPartitions") != nullptr; });
  w.Click("btnSearch");
  w.WaitFor([&] { return w.Idle() && w.Find<QTreeWidget>("lvFound")->topLevelItemCount() > 0; });
  auto* found = w.Find<QTreeWidget>("lvFound");
  QCOMPARE(found->topLevelItemCount(), 1);
  QCOMPARE(found->topLevelItem(0)->text(1), QStringLiteral("FAT32"));
  QCOMPARE(found->topLevelItem(0)->text(3), QStringLiteral("2048"));
  w.WaitFor([&] { return found->currentItem() != nullptr; });
  QTest::keyClick(found, Qt::Key_Return);
  Q_EMIT found->itemDoubleClicked(found->topLevelItem(0), 0);
  w.WaitFor([&] { return w.Idle() && w.Names().contains(QStringLiteral("README.TXT")); });
}

void TWindowTest::imageAndVirtualPartition() {
  TWindow w;
  w.OpenStick();
  w.Settings.MountImage.Create = w.Folder.Path();
  w.Mount();
  w.Trigger(TAction::actFoldersCreateImage);
  w.WaitFor([&] { return w.Find("TfCreateImage") != nullptr; });
  w.Find<QLineEdit>("edtSectorsCount")->setText(QStringLiteral("64"));
  w.Find<QLineEdit>("edtFile")->setText(QString::fromStdString(w.Folder.Path() + "/copy.img"));
  w.Find<QDialog>("TfCreateImage")->accept();
  w.WaitFor([&] { return w.Main->Banner().Message().contains(QStringLiteral("copy.dsk")); });
  const TImage stick = LoadTestImage("demo-stick.img.zst");
  QCOMPARE(ContentOf(QString::fromStdString(w.Folder.Path() + "/copy.dsk")),
           QByteArray(reinterpret_cast<const char*>(stick.data()), 64 * 512));

  const std::size_t before = w.Main->Drives().size();
  w.Trigger(TAction::actFoldersCreateVirtualPartition);
  w.WaitFor([&] { return w.Find("TfCreateVirtualPartition") != nullptr; });
  w.Find<QLineEdit>("edtFirstSector")->setText(QStringLiteral("1"));  // now the range runs over the end
  w.Find<QDialog>("TfCreateVirtualPartition")->accept();
  QVERIFY(w.Find("TfCreateVirtualPartition") != nullptr);
  w.Find<QLineEdit>("edtFirstSector")->setText(QStringLiteral("0"));
  w.Find<QDialog>("TfCreateVirtualPartition")->accept();
  w.WaitFor([&] { return w.Idle() && w.Main->Drives().size() == before + 1; });
  QVERIFY(w.Main->Drives().back().Kind == TEntryKind::VirtualVolume);
  QVERIFY(w.Main->Drives().back().FileSystem == u"FAT32");
}

void TWindowTest::imageNeverReplacesItsSource() {
  TWindow w;
  w.OpenStick();
  const QString folder = QString::fromStdString(w.Folder.Path());
  const QString source = folder + QStringLiteral("/source.dsk");
  const TImage stick = LoadTestImage("demo-stick.img.zst");
  const QByteArray before(reinterpret_cast<const char*>(stick.data()), static_cast<qsizetype>(stick.size()));
  QFile file(source);
  QVERIFY(file.open(QIODevice::WriteOnly) && file.write(before) == before.size());
  file.close();
  QVERIFY(QFile::link(folder, folder + QStringLiteral("/link")));
  w.Main->SecondStart(QStringLiteral("dsk_file ") + source);
  w.WaitFor([&] { return w.Idle() && w.Main->State().Tree.Drive >= 0; });
  w.Trigger(TAction::actFoldersCreateImage);
  w.WaitFor([&] { return w.Find("TfCreateImage") != nullptr; });
  w.Find<QLineEdit>("edtFile")->setText(folder + QStringLiteral("/link/source.dsk"));
  QString warning;
  w.WaitFor([&] {
    const auto* ok = w.Find<QDialog>("TfCreateImage")->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Ok);
    return ok->isEnabled();
  });
  QTimer::singleShot(100, [&] {
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    if (box == nullptr) return;
    warning = box->text();
    box->accept();
  });
  w.Find<QDialog>("TfCreateImage")->accept();
  QVERIFY(warning.contains(QStringLiteral("source.dsk")));
  QVERIFY(w.Find("TfCreateImage") != nullptr);
  QVERIFY(ContentOf(source) == before);
  QVERIFY(!QFile::exists(source + QStringLiteral(".partial")));
}

void TWindowTest::errorsShowInTheWindow() {
  TWindow w;
  w.OpenStick();
  w.Main->SecondStart(QStringLiteral("dsk_file /no/such/image.img"));
  w.WaitFor([&] { return w.Main->Banner().Message().contains(QStringLiteral("/no/such/image.img")); });
  // A target that cannot be made: the page stays and says why.
  w.Analyse();
  w.Settings.Recovery.Path = "/proc/nothing";
  w.Select({QStringLiteral("README.TXT")});
  w.Trigger(TAction::actRecovery);
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find("TfrmSaveOptions") != nullptr; });
  w.Find<QLineEdit>("edtPath")->setText(QStringLiteral("/proc/nothing"));
  w.Click("btnNext");
  w.WaitFor([&] { return w.Find<QLabel>("lblError") != nullptr; });
  QVERIFY(w.Find<QLabel>("lblError")->text().contains(QStringLiteral("/proc/nothing")));
  QVERIFY(w.Find("TfrmSaveOptions") != nullptr);
}

void TWindowTest::settingsAreKept() {
  TWindow w;
  w.OpenStick();
  w.Analyse();
  w.Main->resize(1111, 777);
  w.Trigger(TAction::actViewIcons);
  w.Trigger(TAction::actImageBar);
  w.Trigger(TAction::actPreview);
  w.Trigger(TAction::actSortBySize);
  w.Trigger(TAction::actSortDescending);
  w.WaitFor([&] { return w.Main->FileList().Place().Sort == TSortOrder{TSortKey::Size, true}; });
  w.Close();
  QCOMPARE(w.Settings.Main.Width, 1111);
  QCOMPARE(w.Settings.Main.Height, 777);
  QCOMPARE(w.Settings.FileList.ViewStyle, static_cast<int>(TViewStyle::Icons));
  QCOMPARE(w.Settings.FileList.SortIndex, 2);
  QCOMPARE(w.Settings.FileList.SortRevers, 0);
  QVERIFY(w.Settings.Main.ImageBar);
  QVERIFY(!w.Settings.Preview.IsOn);
  // The next start takes them up.
  w.OpenStick();
  w.Analyse();
  QVERIFY(w.Main->FileList().ViewStyle() == TViewStyle::Icons);
  const QStringList names = w.Names();
  auto& model = w.Main->FileList().Model();
  std::int64_t last = INT64_MAX;
  for (int row = 0; row < model.rowCount(); ++row) {
    if (model.RowAt(row)->Kind != TEntryKind::File) continue;
    QVERIFY(model.RowAt(row)->Size <= last);
    last = model.RowAt(row)->Size;
  }
}

void TWindowTest::navigation() {
  TWindow w;
  w.OpenStick();
  w.Mount();
  auto& tree = w.Main->Folders();
  // Opening a drive in the tree analyses it.
  w.WaitFor([&] { return tree.currentIndex().isValid() && tree.model()->hasChildren(tree.currentIndex()); });
  tree.expand(tree.currentIndex());
  w.WaitFor([&] { return w.Idle() && w.Rows() > 3; });
  w.WaitFor([&] { return tree.isExpanded(tree.currentIndex()) && tree.model()->rowCount(tree.currentIndex()) > 3; });
  const auto current = [&] { return tree.currentIndex().data().toString(); };
  w.Enter(QStringLiteral("Pictures"));
  w.WaitFor([&] { return current() == QStringLiteral("Pictures"); });  // the tree follows
  w.Enter(QStringLiteral("Summer 2020"));
  QVERIFY(w.Main->FileList().Place().Crumbs.back() == u"Summer 2020");
  QTest::keyClick(w.Main.get(), Qt::Key_Up, Qt::AltModifier);
  w.WaitFor([&] { return w.Main->FileList().Place().Crumbs.back() == u"Pictures"; });
  QTest::keyClick(w.Main.get(), Qt::Key_Left, Qt::AltModifier);
  w.WaitFor([&] { return w.Main->FileList().Place().Crumbs.back() == u"Summer 2020"; });
  QTest::keyClick(w.Main.get(), Qt::Key_Left, Qt::AltModifier);
  w.WaitFor([&] { return w.Main->FileList().Place().Crumbs.back() == u"Pictures"; });
  QTest::keyClick(w.Main.get(), Qt::Key_Right, Qt::AltModifier);
  w.WaitFor([&] { return w.Main->FileList().Place().Crumbs.back() == u"Summer 2020"; });
  // Typing finds a name that begins so.
  auto* view = w.Main->FileList().View();
  view->setFocus();
  QTest::keyClicks(view, QStringLiteral("bea"));
  w.WaitFor([&] { return view->currentIndex().data().toString().startsWith(QStringLiteral("beach")); });
  // The space bar ticks what has the focus.
  QTest::keyClick(view, Qt::Key_Space);
  w.WaitFor([&] { return w.Main->State().RecoveryListFiles == 1; });
  // A drive on the map of disks.
  auto* map = w.Main->findChild<TfrDiskManager*>();
  Q_EMIT map->DriveActivated(w.Main->State().Tree.Drive >= 0 ? w.Main->State().Tree.Drive
                                                             : w.Main->Drives().back().Number);
  w.WaitFor([&] { return w.Main->FileList().Place().IsDriveRoot; });
  // The image goes, with all that came from it.
  const std::size_t before = w.Main->Drives().size();
  w.Trigger(TAction::actFoldersCloseDisk);
  w.WaitFor([&] { return w.Idle() && w.Main->Drives().size() == before - 1; });
}

}  // namespace

int main(int argc, char** argv) { return RunTest<TWindowTest>(argc, argv); }
#include "window_test.moc"

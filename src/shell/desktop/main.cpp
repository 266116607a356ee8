// SPDX-License-Identifier: GPL-3.0-or-later
// brenlow: the window of Brenlow Partition Recovery.
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QMessageBox>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "core/drives.h"
#include "core/language.h"
#include "shell/desktop/main_window.h"
#include "shell/desktop/single_instance.h"
#include "shell/desktop/ui_text.h"
#include "shell/settings.h"

namespace {

using namespace brenlow;
using namespace brenlow::desktop;

constexpr std::chrono::seconds EndTime{3};  // that the engine has to answer in

const QString InstanceName = QStringLiteral("Brenlow Partition Recovery " BRENLOW_VERSION " FileCommand");

bool AsksFor(int argc, char** argv, std::string_view option) {
  return std::any_of(argv + std::min(argc, 1), argv + argc, [&](const char* argument) { return argument == option; });
}

/// Without a display Qt would end the program with its own message.
bool HasDisplay(int argc, char** argv) {
  if (AsksFor(argc, argv, "-platform")) return true;
  for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return true;
  }
  return false;
}

/// All arguments are one: "dsk_file" and a path may come in two. Paths become absolute, since a second
/// instance may run in another folder than the first.
QString Argument(const QStringList& arguments) {
  const QString argument = arguments.mid(1).join(QLatin1Char(' '));
  for (const QString& prefix : {QStringLiteral("dsk_file "), QString()}) {
    if (!argument.startsWith(prefix, Qt::CaseInsensitive)) continue;
    const QFileInfo file(argument.mid(prefix.size()));
    if (file.exists()) return prefix + file.absoluteFilePath();
  }
  return argument;
}

/// A program that was started inside an archive has no language files beside it.
bool IsInArchive(const std::string& program) {
  return !QFileInfo::exists(PathToQt(LanguageFolder(program))) && program.find(".zip/") != std::string::npos;
}

TLanguage LoadLanguage(const std::string& program, const TSettings& settings) {
  TLanguage language;
  TLanguage::Load(LanguageFolder(program), LanguageToUse(settings), language);
  return language;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string program = ProgramFolder();
  TSettingsFile file(SettingsPath(program));
  TSettings settings = file.Load();
  const TLanguage language = LoadLanguage(program, settings);
  if (AsksFor(argc, argv, "--help") || AsksFor(argc, argv, "-h")) {
    std::printf("%s\n", language.Utf8(TText::WindowUsage).c_str());
    return 0;
  }
  if (!HasDisplay(argc, argv)) {
    std::fprintf(stderr, "brenlow: %s\n", language.Utf8(TText::NoDisplay).c_str());
    return 1;
  }
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Brenlow Partition Recovery " BRENLOW_VERSION));
  QApplication::setDesktopFileName(QStringLiteral("brenlow"));
  const QString argument = Argument(QApplication::arguments());
  if (IsInArchive(program)) {
    QMessageBox::warning(nullptr, QApplication::applicationName(), Text(language, TText::ExtractArchive));
    return 1;
  }
  TSingleInstance instance(InstanceName);
  if (instance.HandOver(argument)) return 0;
  if (!instance.Listen()) return 1;
  if (const int error = file.LoadError(); error != 0) {
    const std::string reason = SystemErrorText(language, error);
    QMessageBox::warning(nullptr, QApplication::applicationName(),
                         QString::fromStdString(language.Utf8(TText::SettingsUnreadable, {file.Path(), reason})));
  }

  QDir::setCurrent(PathToQt(program));
  auto window = std::make_unique<TfMain>(settings, language, LanguageFolder(program));
  QObject::connect(&instance, &TSingleInstance::Started, window.get(),
                   [&](const QString& other) { window->SecondStart(other); });
  window->show();
  window->Start(argument);
  const int result = QApplication::exec();
  const bool ended = window->EndEngine(EndTime);
  file.Save(settings, ended ? window->Controller().Engine().Drives().SourceGuard() : TSourceGuard());
  // A device that does not answer must not keep the program: nothing of it is written to.
  if (!ended) ::_exit(result);
  return result;
}

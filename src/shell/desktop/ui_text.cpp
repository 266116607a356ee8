// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/ui_text.h"

#include <QLocale>
#include <vector>

#include "core/sizes.h"
#include "core/text.h"

namespace brenlow::desktop {

QString ToQt(TStringView text) { return QString::fromUtf16(text.data(), static_cast<qsizetype>(text.size())); }

QString ToQt(const std::string& utf8) { return QString::fromStdString(utf8); }

TString FromQt(const QString& text) { return text.toStdU16String(); }

std::string PathFromQt(const QString& path) { return path.toLocal8Bit().toStdString(); }

QString PathToQt(const std::string& path) {
  return QString::fromLocal8Bit(path.data(), static_cast<qsizetype>(path.size()));
}

QString Text(const TLanguage& language, TText text, std::initializer_list<QString> arguments) {
  std::vector<TString> texts;
  for (const QString& argument : arguments) texts.push_back(FromQt(argument));
  // The language's own formatter takes a fixed list; no text of the window has more than three.
  switch (texts.size()) {
    case 0:
      return ToQt(language[text]);
    case 1:
      return ToQt(language.Format(text, {texts[0]}));
    case 2:
      return ToQt(language.Format(text, {texts[0], texts[1]}));
    default:
      return ToQt(language.Format(text, {texts[0], texts[1], texts[2]}));
  }
}

QString CountText(const TLanguage& language, TText one, TText many, std::int64_t count) {
  return Text(language, count == 1 ? one : many, {QLocale().toString(static_cast<qlonglong>(count))});
}

QString SizeOrNothing(std::int64_t bytes) { return bytes < 0 ? QString() : ToQt(SizeText(bytes)); }

QDateTime ToQtTime(TDateTime time) {
  return QDateTime(QDate(1899, 12, 30), QTime(0, 0)).addMSecs(static_cast<qint64>(time * 86'400'000.0 + 0.5));
}

QString TimeOrNothing(TDateTime time) {
  if (time == 0) return {};
  const QDateTime shown = ToQtTime(time);
  return QLocale().toString(shown.date(), QLocale::ShortFormat) + shown.time().toString(QStringLiteral(" HH:mm"));
}

QString StatusText(const TLanguage& language, TEntryStatus status) {
  return Text(language, status == TEntryStatus::Existing  ? TText::StatusExisting
                        : status == TEntryStatus::Deleted ? TText::StatusDeleted
                                                          : TText::StatusOverwritten);
}

}  // namespace brenlow::desktop

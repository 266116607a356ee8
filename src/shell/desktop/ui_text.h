// SPDX-License-Identifier: GPL-3.0-or-later
// Texts between the engine and Qt, and how values look.
#pragma once

#include <QDateTime>
#include <QString>

#include "core/datetime.h"
#include "core/language.h"
#include "core/types.h"
#include "shell/snapshots.h"

namespace brenlow::desktop {

/// Unpaired surrogates of names survive both ways.
QString ToQt(TStringView text);
QString ToQt(const std::string& utf8);
TString FromQt(const QString& text);
/// A path of the host as its bytes.
std::string PathFromQt(const QString& path);
QString PathToQt(const std::string& path);

/// A text of the language, with "%s" replaced in order.
QString Text(const TLanguage& language, TText text, std::initializer_list<QString> arguments = {});
/// One of two texts, with the number filled in.
QString CountText(const TLanguage& language, TText one, TText many, std::int64_t count);

/// "1.44 MB"; empty for a negative size.
QString SizeOrNothing(std::int64_t bytes);
/// Short date and time of the system's locale; empty for an unknown time.
QString TimeOrNothing(TDateTime time);
QDateTime ToQtTime(TDateTime time);
QString StatusText(const TLanguage& language, TEntryStatus status);

}  // namespace brenlow::desktop

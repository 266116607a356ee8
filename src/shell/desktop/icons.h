// SPDX-License-Identifier: GPL-3.0-or-later
// The icons of the window. Drawn from SVG in the colours of the palette, so that they suit light and
// dark ones and every screen.
#pragma once

#include <QIcon>
#include <QString>

#include "core/types.h"
#include "shell/snapshots.h"

namespace brenlow::desktop {

/// An icon of the set by name ("edit-find"). Made once.
QIcon Icon(const char* name);
QIcon IconOf(TEntryKind kind);
/// The icon of a row: files by the kind of their extension, deleted ones paler with a red mark.
QIcon IconOf(const TFileRow& row);
QIcon DeletedIconOf(TEntryKind kind);

}  // namespace brenlow::desktop

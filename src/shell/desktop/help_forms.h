// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shell/actions.h"
#include "shell/desktop/form.h"

class QAction;

namespace brenlow::desktop {

class TfAbout final : public TForm {
 public:
  TfAbout(const TLanguage& texts, QWidget* parent);
};

/// The user guide.
class TfHelp final : public TForm {
 public:
  TfHelp(const TLanguage& texts, QWidget* parent);
};

/// "Where are my files?": what to try when they do not show. Each suggestion is one of the actions given.
class TfWhereFiles final : public TForm {
 public:
  TfWhereFiles(const TLanguage& texts, const std::vector<std::pair<QAction*, TText>>& ways, QWidget* parent);
};

}  // namespace brenlow::desktop

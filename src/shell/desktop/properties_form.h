// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "shell/desktop/form.h"
#include "shell/settings.h"

namespace brenlow::desktop {

class TfProperties final : public TForm {
 public:
  TfProperties(const TProperties& properties, const TLanguage& texts, TSettings& settings, QWidget* parent);
};

}  // namespace brenlow::desktop

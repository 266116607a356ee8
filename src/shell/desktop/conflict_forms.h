// SPDX-License-Identifier: GPL-3.0-or-later
// The questions that interrupt a recovery.
#pragma once

#include "recovery/questions.h"
#include "shell/desktop/form.h"

class QCheckBox;

namespace brenlow::desktop {

/// "Rename File": a name holds characters that the target may refuse.
class TfRename final : public TForm {
 public:
  TfRename(const TRenameQuestion& question, const TLanguage& texts, QWidget* parent);
  const TRenameAnswer& Answer() const { return FAnswer; }

 private:
  void Rename();

  TRenameAnswer FAnswer;
  QLineEdit* FName;
  QCheckBox* FReplace;
  QLineEdit* FSymbol;
  QLabel* FError;
};

/// "This file already exists".
class TfFileExists final : public TForm {
 public:
  TfFileExists(const TFileExistsQuestion& question, const TLanguage& texts, QWidget* parent);
  const TFileExistsAnswer& Answer() const { return FAnswer; }

 private:
  TFileExistsAnswer FAnswer;
};

/// The possible starts of a deleted file.
class TfChangeFirstCluster final : public TForm {
 public:
  TfChangeFirstCluster(const QString& fileName, const std::vector<std::int64_t>& candidates, const TLanguage& texts,
                       QWidget* parent);
  const TCandidateAnswer& Answer() const { return FAnswer; }

 private:
  TCandidateAnswer FAnswer;
};

}  // namespace brenlow::desktop

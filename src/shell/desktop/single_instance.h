// SPDX-License-Identifier: GPL-3.0-or-later
// One window at a time: a second start hands its argument to the first and ends.
#pragma once

#include <QLocalServer>
#include <QObject>

namespace brenlow::desktop {

class TSingleInstance final : public QObject {
  Q_OBJECT
 public:
  /// `name` distinguishes programs; each user has their own instance.
  explicit TSingleInstance(const QString& name);
  /// Hands the argument over when a first instance runs. True then: this one should end.
  bool HandOver(const QString& argument);
  /// Becomes the first instance. False when that is not possible.
  bool Listen();

 Q_SIGNALS:
  /// Another start has come, with its argument or none.
  void Started(const QString& argument);

 private:
  QString FName;
  QLocalServer FServer;
};

}  // namespace brenlow::desktop

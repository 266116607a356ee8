// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/single_instance.h"

#include <unistd.h>

#include <QLocalSocket>
#include <memory>

namespace brenlow::desktop {
namespace {

constexpr int WaitTime = 1000;          // milliseconds
constexpr qint64 MaxMessage = 1 << 16;  // bytes; an argument is a path with a word before it

}  // namespace

TSingleInstance::TSingleInstance(const QString& name) : FName(QStringLiteral("%1-%2").arg(name).arg(::getuid())) {
  FServer.setSocketOptions(QLocalServer::UserAccessOption);
  connect(&FServer, &QLocalServer::newConnection, this, [this] {
    QLocalSocket* socket = FServer.nextPendingConnection();
    auto received = std::make_shared<QByteArray>();
    const auto read = [socket, received] {
      received->append(socket->readAll());
      if (received->size() > MaxMessage) socket->abort();
    };
    connect(socket, &QLocalSocket::readyRead, this, read);
    connect(socket, &QLocalSocket::disconnected, this, [this, socket, received, read] {
      read();
      socket->deleteLater();
      if (received->size() <= MaxMessage) Q_EMIT Started(QString::fromUtf8(*received));
    });
  });
}

bool TSingleInstance::HandOver(const QString& argument) {
  QLocalSocket socket;
  socket.connectToServer(FName);
  if (!socket.waitForConnected(WaitTime)) return false;
  socket.write(argument.toUtf8());
  socket.waitForBytesWritten(WaitTime);
  socket.disconnectFromServer();
  return true;
}

bool TSingleInstance::Listen() {
  if (FServer.listen(FName)) return true;
  // Nobody answered: the name is left from a run that crashed.
  QLocalServer::removeServer(FName);
  return FServer.listen(FName);
}

}  // namespace brenlow::desktop

#include "QtPlatform.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>
#include <QMetaObject>

namespace ambrel::qt {

void QtDispatcher::post(std::function<void()> fn) {
  // A context gone means the window is gone, and nothing queued may run.
  if (QObject* c = context_.data()) QMetaObject::invokeMethod(c, std::move(fn), Qt::QueuedConnection);
}

namespace {

class NoHold : public SleepHold {
 public:
  bool active() const override { return false; }
};

// Closing the descriptor logind handed back ends the lock.
class DBusHold : public SleepHold {
 public:
  explicit DBusHold(QDBusUnixFileDescriptor fd) : fd_(std::move(fd)) {}
  bool active() const override { return fd_.isValid(); }

 private:
  QDBusUnixFileDescriptor fd_;
};

}  // namespace

std::unique_ptr<SleepHold> QtDBusSleepInhibitor::inhibit(const std::string& why) {
  // Asked for from whichever thread starts a scan; QDBusConnection is thread-safe.
  QDBusConnection bus = QDBusConnection::systemBus();
  if (!bus.isConnected()) return std::make_unique<NoHold>();
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
      QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
  call << QStringLiteral("sleep:idle") << who_ << QString::fromStdString(why) << QStringLiteral("block");
  QDBusReply<QDBusUnixFileDescriptor> reply = bus.call(call, QDBus::Block, 5000);
  if (!reply.isValid() || !reply.value().isValid()) return std::make_unique<NoHold>();
  return std::make_unique<DBusHold>(reply.value());
}

QString instanceServerName() {
  const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
  const QString name = QString::fromUtf8(kMessageServerName);
  return !runtime.isEmpty() && QFileInfo(runtime).isDir() ? QDir(runtime).filePath(name) : name;
}

InstanceServer::InstanceServer(QObject* parent) : QObject(parent) {
  // Only this user may connect: a message opens files in this session.
  server_.setSocketOptions(QLocalServer::UserAccessOption);
  connect(&server_, &QLocalServer::newConnection, this, &InstanceServer::accept);
}

bool InstanceServer::listen(const QString& name) {
  // With user-only access Qt binds beside the name and renames over it, which
  // would take the name from a running instance: ask first whether one answers.
  QLocalSocket probe;
  probe.connectToServer(name);
  if (probe.waitForConnected(500)) return false;
  // A socket file left by a crashed instance answers nobody: take its place.
  QLocalServer::removeServer(name);
  return server_.listen(name);
}

void InstanceServer::accept() {
  while (QLocalSocket* socket = server_.nextPendingConnection()) {
    const int id = nextId_++;
    if (messages_) messages_->addMessageClient({id, id});
    socket->setParent(this);
    connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
      // One short line; anything longer than a path is not ours.
      while (socket->canReadLine()) {
        const QString line = QString::fromUtf8(socket->readLine(4096)).trimmed();
        if (line.isEmpty()) continue;
        emit messageReceived(line);
        if (messages_) messages_->broadcastMessageString(line.toStdString());
      }
      if (socket->bytesAvailable() > 4096) socket->abort();
    });
    connect(socket, &QLocalSocket::disconnected, this, [this, socket, id] {
      if (messages_) messages_->connectionDidDie(id, nullptr);
      socket->deleteLater();
    });
  }
}

bool sendToRunningInstance(const QString& message, const QString& name, int timeoutMs) {
  QLocalSocket socket;
  socket.connectToServer(name);
  if (!socket.waitForConnected(timeoutMs)) return false;
  socket.write(message.toUtf8() + '\n');
  if (!socket.waitForBytesWritten(timeoutMs)) return false;
  socket.disconnectFromServer();
  return true;
}

}  // namespace ambrel::qt

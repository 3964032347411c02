#pragma once
// What the controller needs from the platform, done with Qt: work posted onto
// the GUI thread, the logind sleep lock over QtDBus, and the single-instance
// connection over a local socket.
#include <QLocalServer>
#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <string>

#include "core/MainThread.h"
#include "core/MessageServer.h"
#include "core/SleepInhibitor.h"

namespace ambrel::qt {

// Runs posted work on the thread of the context object (the GUI thread), in
// order, through queued invocations.
class QtDispatcher : public MainThreadDispatcher {
 public:
  explicit QtDispatcher(QObject* context) : context_(context) {}
  void post(std::function<void()> fn) override;

 private:
  QPointer<QObject> context_;
};

// systemd-logind's "sleep:idle" block lock over the system bus; a hold that
// does nothing where there is no bus or no logind.
class QtDBusSleepInhibitor : public SleepInhibitor {
 public:
  explicit QtDBusSleepInhibitor(QString who = QStringLiteral("Tarnwell Ambrel")) : who_(std::move(who)) {}
  std::unique_ptr<SleepHold> inhibit(const std::string& why) override;

 private:
  QString who_;
};

// The server's name: in the user's runtime folder where there is one, so
// that each user has an instance of their own.
QString instanceServerName();

// The running instance's end of the single-instance connection. Each client
// sends one message ("BringFront", "AlreadyRunning" or a scan info path),
// newline-terminated, which goes to the MessageServer on the GUI thread.
class InstanceServer : public QObject {
  Q_OBJECT
 public:
  explicit InstanceServer(QObject* parent = nullptr);
  // False when another instance already listens under the name.
  bool listen(const QString& name = instanceServerName());
  void setMessageServer(MessageServer* server) { messages_ = server; }
  QString fullServerName() const { return server_.fullServerName(); }

 signals:
  void messageReceived(const QString& message);

 private:
  void accept();
  QLocalServer server_;
  MessageServer* messages_ = nullptr;
  int nextId_ = 1;
};

// A second launch: hands `message` to the running instance. False when none answers.
bool sendToRunningInstance(const QString& message, const QString& name = instanceServerName(),
                           int timeoutMs = 2000);

}  // namespace ambrel::qt

// ambrel: the desktop application.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QSplashScreen>
#include <QStandardPaths>
#include <QTimer>

#include "MainWindow.h"
#include "QtPlatform.h"
#include "Splash.h"

using namespace ambrel;

int main(int argc, char** argv) {
  // Debian's Qt 6.4 ffmpeg backend crashes without a sound device.
  qputenv("QT_MEDIA_BACKEND", qgetenv("QT_MEDIA_BACKEND").isEmpty() ? QByteArray("gstreamer")
                                                                     : qgetenv("QT_MEDIA_BACKEND"));
  QApplication qapp(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Tarnwell Ambrel"));
  QApplication::setApplicationVersion(QStringLiteral("0.1.0"));
  QApplication::setDesktopFileName(QStringLiteral("ambrel"));

  QCommandLineParser args;
  args.setApplicationDescription(QStringLiteral("Recovers files from HFS+ and HFSX volumes."));
  args.addHelpOption();
  args.addVersionOption();
  args.addPositionalArgument(QStringLiteral("file"), QStringLiteral("A scan info file (.asi) or a disk image."));
  args.process(qapp);
  const QStringList files = args.positionalArguments();
  const QString file = files.isEmpty() ? QString() : QFileInfo(files.front()).absoluteFilePath();
  const bool scanInfo = file.endsWith(QStringLiteral(".asi"), Qt::CaseInsensitive);

  qt::InstanceServer server;
  if (!server.listen()) {
    // Another instance runs: it takes the file, or comes to the front.
    if (qt::sendToRunningInstance(scanInfo ? file : QStringLiteral("BringFront"))) return 0;
    fprintf(stderr, "ambrel: could not start the single-instance server\n");
  }

  QSplashScreen splash(qt::splashPicture());
  splash.show();
  QApplication::processEvents();

  auto images = std::make_shared<qt::DiskImages>();
  if (!file.isEmpty() && !scanInfo) images->add(file.toStdString());
  qt::MainWindow window(images);
  qt::QtDispatcher dispatcher(&window);
  qt::QtDBusSleepInhibitor sleep;
  ControllerOptions options;
  options.listDrives = [images, roots = options.roots] { return images->listWith(roots); };
  // The last save's report, kept until the next save replaces it. In the
  // cache rather than /tmp, as a large save's report is large too.
  const QString cache = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
  if (QDir().mkpath(cache)) options.recoveryReportPath = (cache + QStringLiteral("/last-recovery-report.xml")).toStdString();
  AppController app(window, dispatcher, sleep, std::move(options));
  MessageServer messages(app);
  server.setMessageServer(&messages);
  window.setController(&app);
  app.start();
  window.show();
  splash.finish(&window);
  if (scanInfo) QTimer::singleShot(0, &window, [&app, file] { app.openScanInfoFile(file.toStdString()); });
  const int code = QApplication::exec();
  server.setMessageServer(nullptr);
  return code;
}

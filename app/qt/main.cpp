// ambrel: the desktop application.
#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QLinearGradient>
#include <QPainter>
#include <QSplashScreen>
#include <QStandardPaths>
#include <QTimer>

#include "MainWindow.h"
#include "QtPlatform.h"

using namespace ambrel;

namespace {

// Shown while the drives are listed, which can take a moment with many disks.
QPixmap splashPicture() {
  QPixmap picture(420, 200);
  picture.fill(Qt::transparent);
  QPainter p(&picture);
  p.setRenderHint(QPainter::Antialiasing);
  QLinearGradient shade(0, 0, 0, 200);
  shade.setColorAt(0, QColor(0x3b, 0x42, 0x4c));
  shade.setColorAt(1, QColor(0x1f, 0x23, 0x28));
  p.setBrush(shade);
  p.setPen(Qt::NoPen);
  p.drawRoundedRect(picture.rect(), 14, 14);
  p.setPen(QPen(QColor(0xf2, 0xb2, 0x3a), 8, Qt::SolidLine, Qt::RoundCap));
  p.drawArc(QRect(34, 50, 90, 90), 30 * 16, 280 * 16);
  p.setPen(Qt::white);
  QFont title = p.font();
  title.setPointSize(22);
  title.setBold(true);
  p.setFont(title);
  p.drawText(QRect(145, 55, 260, 40), Qt::AlignLeft | Qt::AlignVCenter, QStringLiteral("Tarnwell Ambrel"));
  QFont line = p.font();
  line.setPointSize(11);
  line.setBold(false);
  p.setFont(line);
  p.setPen(QColor(0xc8, 0xcd, 0xd3));
  p.drawText(QRect(145, 100, 260, 40), Qt::AlignLeft | Qt::AlignTop,
             QStringLiteral("HFS+ data recovery\nLooking for drives…"));
  return picture;
}

}  // namespace

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

  QSplashScreen splash(splashPicture());
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

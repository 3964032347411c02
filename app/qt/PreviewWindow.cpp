#include "PreviewWindow.h"

#include <QBuffer>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QIcon>
#include <QImageReader>
#include <QLabel>
#include <QMimeDatabase>
#include <QPlainTextEdit>
#include <QStackedWidget>
#include <QAudioOutput>
#include <QEventLoop>
#include <QMediaPlayer>
#include <QPushButton>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>
#include <QVideoWidget>

namespace ambrel::qt {

PreviewWindow::PreviewWindow(QWidget* parent) : QWidget(parent, Qt::Window) {
  setObjectName(QStringLiteral("previewWindow"));
  setWindowTitle(QStringLiteral("Preview"));
  resize(560, 460);
  auto* l = new QVBoxLayout(this);
  auto* top = new QHBoxLayout;
  icon_ = new QLabel;
  name_ = new QLabel;
  name_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  top->addWidget(icon_);
  top->addWidget(name_, 1);
  l->addLayout(top);
  pages_ = new QStackedWidget;
  text_ = new QPlainTextEdit;
  text_->setReadOnly(true);
  text_->setFont(QFont(QStringLiteral("monospace")));
  image_ = new QLabel;
  image_->setAlignment(Qt::AlignCenter);
  image_->setMinimumSize(64, 64);
  auto* movie = new QWidget;
  auto* ml = new QVBoxLayout(movie);
  poster_ = new QLabel;
  poster_->setAlignment(Qt::AlignCenter);
  video_ = new QVideoWidget;
  video_->setMinimumHeight(200);
  video_->hide();
  ml->addWidget(video_, 1);
  ml->addStretch(1);
  ml->addWidget(poster_);
  for (QLabel*& field : movieFields_) {
    field = new QLabel;
    field->setWordWrap(true);
    field->setAlignment(Qt::AlignCenter);
    ml->addWidget(field);
  }
  play_ = new QPushButton(QStringLiteral("Play"));
  play_->setEnabled(false);
  connect(play_, &QPushButton::clicked, this, [this] {
    if (!player_) return;
    if (player_->playbackState() == QMediaPlayer::PlayingState) player_->pause();
    else player_->play();
  });
  ml->addWidget(play_, 0, Qt::AlignHCenter);
  ml->addStretch(1);
  loading_ = new QLabel(QStringLiteral("Loading…"));
  loading_->setAlignment(Qt::AlignCenter);
  for (QWidget* w : {static_cast<QWidget*>(text_), static_cast<QWidget*>(image_), movie,
                     static_cast<QWidget*>(loading_)})
    pages_->addWidget(w);
  l->addWidget(pages_, 1);
}

void PreviewWindow::reset(const QString& name, const QString& extension) {
  static const QMimeDatabase mimes;
  const QMimeType type = mimes.mimeTypeForFile(QStringLiteral("x.") + extension, QMimeDatabase::MatchExtension);
  icon_->setPixmap(QIcon::fromTheme(type.iconName(), QIcon::fromTheme(QStringLiteral("text-x-generic"))).pixmap(32));
  name_->setText(name);
  setWindowTitle(name);
  text_->clear();
  image_->clear();
  full_ = QPixmap();
  for (QLabel* field : movieFields_) field->clear();
  poster_->clear();
  dropMovie();
  pages_->setCurrentIndex(3);
}

PreviewWindow::~PreviewWindow() {
  // Before the children go: a player torn down with them may still be told
  // of its decoder's pads by the media backend, after its output is gone.
  if (player_) {
    releasePlayer(player_);
    delete player_;
    player_ = nullptr;
  }
}

// A player stopped and let go of its source and output, so that nothing of
// the media backend reaches it any more.
void PreviewWindow::releasePlayer(QMediaPlayer* player) {
  player->stop();
  player->setSource(QUrl());
  player->setVideoOutput(nullptr);
}

void PreviewWindow::dropMovie() {
  if (player_) {
    releasePlayer(player_);
    player_->deleteLater();
    player_ = nullptr;
  }
  if (buffer_) {
    buffer_->deleteLater();
    buffer_ = nullptr;
  }
  video_->hide();
  play_->setEnabled(false);
  play_->setText(QStringLiteral("Play"));
}

QString PreviewWindow::setMovie(const std::vector<uint8_t>& data, const QString& name) {
  dropMovie();
  buffer_ = new QBuffer(this);
  buffer_->setData(reinterpret_cast<const char*>(data.data()), static_cast<qsizetype>(data.size()));
  buffer_->open(QIODevice::ReadOnly);
  player_ = new QMediaPlayer(this);
  player_->setAudioOutput(new QAudioOutput(player_));
  player_->setVideoOutput(video_);
  connect(player_, &QMediaPlayer::playbackStateChanged, this, [this](QMediaPlayer::PlaybackState state) {
    play_->setText(state == QMediaPlayer::PlayingState ? QStringLiteral("Pause") : QStringLiteral("Play"));
  });
  connect(player_, &QMediaPlayer::hasVideoChanged, video_, &QWidget::setVisible);
  QEventLoop wait;
  QTimer limit;
  limit.setSingleShot(true);
  connect(&limit, &QTimer::timeout, &wait, &QEventLoop::quit);
  connect(player_, &QMediaPlayer::mediaStatusChanged, &wait, [&wait](QMediaPlayer::MediaStatus status) {
    if (status != QMediaPlayer::LoadingMedia && status != QMediaPlayer::NoMedia) wait.quit();
  });
  connect(player_, &QMediaPlayer::errorOccurred, &wait, &QEventLoop::quit);
  // The name's extension tells the backend what the bytes are.
  player_->setSourceDevice(buffer_, QUrl(name));
  limit.start(5000);
  if (player_->mediaStatus() == QMediaPlayer::LoadingMedia) wait.exec(QEventLoop::ExcludeUserInputEvents);
  const auto status = player_ ? player_->mediaStatus() : QMediaPlayer::InvalidMedia;
  if (!player_ || player_->error() != QMediaPlayer::NoError ||
      (status != QMediaPlayer::LoadedMedia && status != QMediaPlayer::BufferedMedia))
    return {};
  // Some containers tell their length only once playing has begun.
  if (player_->duration() <= 0) {
    QTimer later;
    later.setSingleShot(true);
    connect(&later, &QTimer::timeout, &wait, &QEventLoop::quit);
    connect(player_, &QMediaPlayer::durationChanged, &wait, &QEventLoop::quit);
    later.start(2000);
    wait.exec(QEventLoop::ExcludeUserInputEvents);
  }
  play_->setEnabled(true);
  const qint64 ms = std::max<qint64>(0, player_->duration());
  return QStringLiteral("%1:%2:%3.%4")
      .arg(ms / 3600000)
      .arg(ms / 60000 % 60, 2, 10, QLatin1Char('0'))
      .arg(ms / 1000 % 60, 2, 10, QLatin1Char('0'))
      .arg(ms / 100 % 10);
}

QWidget* PreviewWindow::videoWidget() const { return video_; }

void PreviewWindow::showLoading() { pages_->setCurrentIndex(3); }

void PreviewWindow::showPage(int page) {
  if (page >= 0 && page < 3) pages_->setCurrentIndex(page);
}

void PreviewWindow::setPreviewText(const QString& text) { text_->setPlainText(text); }

bool PreviewWindow::setImage(const std::vector<uint8_t>& data) {
  QByteArray bytes(reinterpret_cast<const char*>(data.data()), static_cast<qsizetype>(data.size()));
  QBuffer buffer(&bytes);
  QImageReader reader(&buffer);
  reader.setAutoTransform(true);
  // A damaged header can claim any size: refuse what no screen would show.
  if (reader.size().isValid() && qint64(reader.size().width()) * reader.size().height() > 100'000'000) return false;
  const QImage img = reader.read();
  if (img.isNull()) return false;
  full_ = QPixmap::fromImage(img);
  fitImage();
  return true;
}

void PreviewWindow::fitImage() {
  if (full_.isNull()) return;
  const QSize room = image_->size().boundedTo(full_.size());
  image_->setPixmap(full_.scaled(room, Qt::KeepAspectRatio, Qt::SmoothTransformation));
}

void PreviewWindow::setPoster(const std::vector<uint8_t>& picture) {
  QImage img;
  if (!img.loadFromData(picture.data(), static_cast<int>(picture.size()))) return;
  if (img.width() > 100 || img.height() > 100) img = img.scaled(100, 100, Qt::KeepAspectRatio, Qt::SmoothTransformation);
  poster_->setPixmap(QPixmap::fromImage(img));
}

void PreviewWindow::closeEvent(QCloseEvent* event) {
  dropMovie();
  if (onClose) onClose();
  event->accept();
}

void PreviewWindow::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  fitImage();
}

}  // namespace ambrel::qt

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
#include <QVBoxLayout>

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
  ml->addStretch(1);
  ml->addWidget(poster_);
  for (QLabel*& field : movieFields_) {
    field = new QLabel;
    field->setWordWrap(true);
    field->setAlignment(Qt::AlignCenter);
    ml->addWidget(field);
  }
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
  pages_->setCurrentIndex(3);
}

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
  if (onClose) onClose();
  event->accept();
}

void PreviewWindow::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  fitImage();
}

}  // namespace ambrel::qt

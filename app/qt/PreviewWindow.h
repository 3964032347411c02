#pragma once
// The preview window: a recovered file's name and icon over its text or its
// image. The controller loads the data and says which page to show.
#include <QWidget>
#include <QPixmap>
#include <cstdint>
#include <functional>
#include <vector>

class QBuffer;
class QLabel;
class QMediaPlayer;
class QPlainTextEdit;
class QPushButton;
class QStackedWidget;
class QVideoWidget;

namespace ambrel::qt {

class PreviewWindow : public QWidget {
  Q_OBJECT
 public:
  explicit PreviewWindow(QWidget* parent = nullptr);
  ~PreviewWindow() override;
  void reset(const QString& name, const QString& extension);
  void showLoading();
  // 0 text, 1 image, 2 movie (PreviewPage's order).
  void showPage(int page);
  void setPreviewText(const QString& text);
  bool setImage(const std::vector<uint8_t>& data);
  void setPoster(const std::vector<uint8_t>& picture);
  // Makes a player for a movie or sound held in memory; `name` tells the
  // format. Waits (the event loop running) until the media is read, so the
  // duration can be told: "H:MM:SS.t", empty when it cannot play.
  QString setMovie(const std::vector<uint8_t>& data, const QString& name);
  // Stops and drops the player.
  void dropMovie();
  QMediaPlayer* player() const { return player_; }
  QPushButton* playButton() const { return play_; }
  QLabel* posterLabel() const { return poster_; }
  QWidget* videoWidget() const;
  QLabel* imageLabel() const { return image_; }
  QPlainTextEdit* textView() const { return text_; }
  QLabel* nameLabel() const { return name_; }
  // The movie page's name, status, loaded size and duration fields.
  QLabel* movieField(int i) const { return movieFields_[i]; }
  // Closing by the window's own button asks the controller.
  std::function<void()> onClose;

 protected:
  void closeEvent(QCloseEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  void fitImage();
  static void releasePlayer(QMediaPlayer* player);
  QLabel* icon_;
  QLabel* name_;
  QStackedWidget* pages_;
  QPlainTextEdit* text_;
  QLabel* image_;
  QLabel* movieFields_[4];
  QLabel* poster_;
  QLabel* loading_;
  QVideoWidget* video_;
  QPushButton* play_;
  QMediaPlayer* player_ = nullptr;
  QBuffer* buffer_ = nullptr;
  QPixmap full_;
};

}  // namespace ambrel::qt

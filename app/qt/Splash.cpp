#include "Splash.h"

#include <QLinearGradient>
#include <QPainter>

namespace ambrel::qt {

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

}  // namespace ambrel::qt

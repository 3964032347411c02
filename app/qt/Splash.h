#pragma once
// The splash window's picture: shown while the drives are listed, which can
// take a moment with many disks.
#include <QPixmap>

namespace ambrel::qt {

QPixmap splashPicture();

}  // namespace ambrel::qt

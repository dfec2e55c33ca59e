#include "ui/dialog_units.h"

#include <QFontMetricsF>

#include <cmath>

namespace kb::ui {

DialogUnits::DialogUnits(const QFont& font) {
    const QFontMetricsF metrics(font);
    const QString letters = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
    averageWidth_ = metrics.horizontalAdvance(letters) / letters.size();
    height_ = static_cast<int>(std::lround(metrics.height()));
}

int DialogUnits::X(int units) const {
    return static_cast<int>(std::lround(units * averageWidth_ / 4.0));
}

int DialogUnits::Y(int units) const {
    return static_cast<int>(std::lround(units * height_ / 8.0));
}

QRect DialogUnits::Rect(int x, int y, int width, int height) const {
    // Both edges are rounded, so that controls that touch in units touch in
    // pixels too.
    const int left = X(x);
    const int top = Y(y);
    return QRect(left, top, X(x + width) - left, Y(y + height) - top);
}

}  // namespace kb::ui

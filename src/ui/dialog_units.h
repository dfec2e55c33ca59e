// Dialog units: the measure in which the window's controls are placed. They
// follow the dialog's font, so a larger font makes a larger window with the
// same proportions: a horizontal unit is a quarter of the font's average
// character width, a vertical unit an eighth of its character height. The
// average width is that of the 52 letters "A" to "Z" and "a" to "z".
#pragma once

#include <QFont>
#include <QRect>

namespace kb::ui {

class DialogUnits {
public:
    explicit DialogUnits(const QFont& font);

    // Pixels of so many horizontal or vertical units, rounded.
    [[nodiscard]] int X(int units) const;
    [[nodiscard]] int Y(int units) const;
    [[nodiscard]] QRect Rect(int x, int y, int width, int height) const;

private:
    double averageWidth_ = 0;
    int height_ = 0;
};

}  // namespace kb::ui

// The window's pictures: drawn as SVG, compiled into the program as Qt
// resources, and rendered for the screen at its own pixel density, so they are
// sharp at any scale.
#pragma once

#include <QIcon>
#include <QPixmap>
#include <QSize>
#include <QString>

namespace kb::ui {

// The resource of a picture or icon, by its resource number ("IDB_...",
// "IDI_...", IDR_MAINFRAME); "" for a number that has none.
QString PicturePath(int id);
// The icon of a file list row by its image: 0 a plain file, 1 a folder, 2 a
// program.
int RowIconId(int image);
// The picture drawn to fit size (in logical pixels), centred and in its own
// proportions, for a screen of that pixel ratio. Null for an unknown number.
QPixmap RenderPicture(int id, QSize size, qreal pixelRatio);
// The picture as an icon of that size, with pixmaps for single and double
// density screens.
QIcon PictureIcon(int id, QSize size);

}  // namespace kb::ui

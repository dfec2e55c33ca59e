#include "ui/pictures.h"

#include <QPainter>
#include <QSvgRenderer>

#include <algorithm>
#include <cmath>
#include <map>

#include "resources/resource.h"

namespace kb::ui {

using namespace kb::resources;

QString PicturePath(int id) {
    static const std::map<int, const char*> Names = {
        {IDR_MAINFRAME, "kestrelbound"},
        {IDI_PLAIN_FILE, "plain_file"},
        {IDI_PROGRAM_FILE, "program_file"},
        {IDI_FOLDER, "folder"},
        {IDB_OPEN_INCOMING, "open_incoming"},
        {IDB_PROGRAM_1, "program_1"},
        {IDB_PROGRAM_2, "program_2"},
        {IDB_ABOUT, "about"},
        {IDB_EMBLEM, "emblem"},
        {IDB_MAKE_FOLDER, "make_folder"},
        {IDB_FOLDER_EMPTY, "folder_empty"},
        {IDB_FOLDER_FILLED, "folder_filled"},
        {IDB_HOT_EMPTY, "hot_empty"},
        {IDB_HOT_FILLED, "hot_filled"},
    };
    const auto found = Names.find(id);
    if (found == Names.end()) {
        return QString();
    }
    return QStringLiteral(":/pictures/%1.svg").arg(QString::fromLatin1(found->second));
}

int RowIconId(int image) {
    switch (image) {
        case 1:
            return IDI_FOLDER;
        case 2:
            return IDI_PROGRAM_FILE;
        default:
            return IDI_PLAIN_FILE;
    }
}

QPixmap RenderPicture(int id, QSize size, qreal pixelRatio) {
    const QString path = PicturePath(id);
    if (path.isEmpty() || size.isEmpty()) {
        return QPixmap();
    }
    QSvgRenderer renderer(path);
    if (!renderer.isValid()) {
        return QPixmap();
    }
    QPixmap pixmap(size * pixelRatio);
    pixmap.setDevicePixelRatio(pixelRatio);
    pixmap.fill(Qt::transparent);
    // Fitted into the size without being stretched, and centred. A picture
    // that has room to grow grows by whole steps, and its corner lies on a
    // whole pixel, so that lines drawn on its grid stay on the screen's.
    const QSizeF own = renderer.defaultSize();
    double scale = std::min(size.width() / own.width(), size.height() / own.height());
    if (scale >= 1) {
        scale = std::floor(scale);
    }
    const QSizeF drawn = own * scale;
    const QPointF corner(std::floor((size.width() - drawn.width()) / 2),
                         std::floor((size.height() - drawn.height()) / 2));
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter, QRectF(corner, drawn));
    return pixmap;
}

QIcon PictureIcon(int id, QSize size) {
    QIcon icon;
    for (const qreal ratio : {1.0, 2.0}) {
        const QPixmap pixmap = RenderPicture(id, size, ratio);
        if (!pixmap.isNull()) {
            icon.addPixmap(pixmap);
        }
    }
    return icon;
}

}  // namespace kb::ui

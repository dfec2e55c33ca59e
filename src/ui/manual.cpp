#include "ui/manual.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include "app/application.h"

namespace kb::ui {

using namespace kb::app;

namespace {

// Where the pages lie among the program's resources.
const QString ManualResources = QStringLiteral(":/manual");

}  // namespace

bool InstallManual(const std::string& root) {
    const QString startPage = QFile::decodeName(ManualStartPageBelow(root).c_str());
    if (QFileInfo::exists(startPage)) {
        return true;
    }
    const QDir folder(QFile::decodeName(ManualFolderBelow(root).c_str()));
    const QDir resources(ManualResources);
    bool written = true;
    QDirIterator pages(ManualResources, QDir::Files, QDirIterator::Subdirectories);
    while (pages.hasNext()) {
        const QString source = pages.next();
        const QString target = folder.filePath(resources.relativeFilePath(source));
        QFile page(source);
        QSaveFile copy(target);
        const bool done = QDir().mkpath(QFileInfo(target).path()) &&
                          page.open(QIODevice::ReadOnly) && copy.open(QIODevice::WriteOnly) &&
                          copy.write(page.readAll()) == page.size() && copy.commit();
        written = written && done;
    }
    return written;
}

}  // namespace kb::ui

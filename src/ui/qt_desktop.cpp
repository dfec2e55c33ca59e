#include "ui/qt_desktop.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QProcess>
#include <QStringList>
#include <QUrl>

#include "ui/gui_thread.h"

namespace kb::ui {

using namespace kb::platform;

namespace {

QString LocalPath(const std::string& path) {
    return QFile::decodeName(path.c_str());
}

}  // namespace

std::string QtFileFilter(const std::string& filter) {
    const QStringList parts = QString::fromStdString(filter).split(QLatin1Char('|'));
    QStringList kinds;
    for (qsizetype i = 0; i + 1 < parts.size(); i += 2) {
        QString name = parts[i];
        QString pattern = parts[i + 1];
        if (name.isEmpty() || pattern.isEmpty()) {
            continue;
        }
        // The name may carry its pattern already; Qt reads the pattern from
        // the brackets, so they hold the one that counts.
        const qsizetype bracket = name.indexOf(QLatin1Char('('));
        if (bracket >= 0) {
            name = name.left(bracket).trimmed();
        }
        pattern.replace(QLatin1Char(';'), QLatin1Char(' '));
        kinds << QStringLiteral("%1 (%2)").arg(name, pattern);
    }
    return kinds.join(QStringLiteral(";;")).toStdString();
}

QtDesktop::QtDesktop(GuiThread& gui, std::function<QWidget*()> parent)
    : gui_(gui), parent_(std::move(parent)) {}

void QtDesktop::ShowFolder(const std::string& path) {
    gui_.Call([&] { QDesktopServices::openUrl(QUrl::fromLocalFile(LocalPath(path))); });
}

bool QtDesktop::OpenInBrowser(const std::string& page) {
    // Qt hands a page to the desktop's handler and counts it as taken once
    // the handler has started, so a handler that fails at once (no browser
    // set up, a page it cannot show) would go unnoticed and Help would say
    // nothing. The desktop's own handler is asked instead, and its answer
    // heard; it runs on the caller's thread, never on the GUI's.
    return LinuxDesktop().OpenInBrowser(page);
}

void QtDesktop::ActivateBrowser() {
    // A browser that takes a page from the desktop raises its own window
    // with it; the desktop offers no way to raise another program's window,
    // and none is needed.
}

void QtDesktop::StartProgram(const std::string& path) {
    // Detached: in a session of its own, with the signals this program holds
    // back let through again, and nothing waits for it.
    gui_.Call([&] { QProcess::startDetached(LocalPath(path), {}); });
}

std::optional<std::string> QtDesktop::ChooseFile(const FileDialogRequest& request) {
    QString chosen;
    gui_.Call([&] {
        const QString filter = QString::fromStdString(QtFileFilter(request.Filter));
        if (request.For == FileDialogRequest::Purpose::Save) {
            const QString proposed = QDir::current().filePath(LocalPath(request.ProposedName));
            chosen = QFileDialog::getSaveFileName(parent_(), QStringLiteral("Save As"), proposed,
                                                  filter);
        } else if (request.For == FileDialogRequest::Purpose::Folder) {
            chosen =
                QFileDialog::getExistingDirectory(parent_(), QStringLiteral("Choose a Folder"));
        } else {
            const QString title = request.Title.empty() ? QStringLiteral("Open")
                                                        : QString::fromStdString(request.Title);
            chosen = QFileDialog::getOpenFileName(parent_(), title, QString(), filter);
        }
    });
    if (chosen.isEmpty()) {
        return std::nullopt;
    }
    return QFile::encodeName(chosen).toStdString();
}

std::vector<std::string> QtDesktop::ChooseFiles(const FileDialogRequest& request) {
    QStringList chosen;
    gui_.Call([&] {
        chosen =
            QFileDialog::getOpenFileNames(parent_(), QStringLiteral("Open"), QString(),
                                          QString::fromStdString(QtFileFilter(request.Filter)));
    });
    std::vector<std::string> paths;
    for (const QString& path : chosen) {
        paths.push_back(QFile::encodeName(path).toStdString());
    }
    return paths;
}

}  // namespace kb::ui

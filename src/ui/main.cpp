// kestrelbound: the program with its window, on the desktop.
//
// Run in the installation's folder, as kbstation is: everything the program
// keeps lies below the folder it starts in. SIGINT and SIGTERM end it as the
// window's close box does.
//
//   kestrelbound [--screenshot FILE] [--screenshot-on-signal FILE] [--help]
//
// The options are described in Help below, which the manual page repeats.

#include <QApplication>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QStringList>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>

#include "platform/stop_signals.h"
#include "ui/front_end.h"

namespace kb::ui {

namespace {

constexpr const char* Usage =
    "usage: kestrelbound [--screenshot FILE] [--screenshot-on-signal FILE] [--help]\n";

constexpr const char* Help = R"(Usage: kestrelbound [options]

Kestrelbound with its window. It keeps everything in the folder it is started
in: its settings, directory and log, "Incoming Files", "Pick Up" and the
manual that Help shows.

Options:
  --screenshot FILE   once the start is over (the splash gone, the search for
                      the adapter ended), write a PNG of the window to FILE
                      and leave as File, Exit does
  --screenshot-on-signal FILE
                      each SIGUSR1 writes a PNG of the window to FILE; the
                      program runs on
  --help              this text

SIGINT and SIGTERM end it as the window's close box does.
)";

// False for anything the program does not know.
bool ReadOptions(const QStringList& arguments, FrontEndOptions& options) {
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& word = arguments[i];
        QString* file = nullptr;
        if (word == QStringLiteral("--screenshot")) {
            file = &options.Screenshot;
        } else if (word == QStringLiteral("--screenshot-on-signal")) {
            file = &options.SignalScreenshot;
        } else {
            return false;
        }
        if (i + 1 >= arguments.size()) {
            return false;
        }
        *file = QFileInfo(arguments[++i]).absoluteFilePath();
    }
    return true;
}

}  // namespace

}  // namespace kb::ui

int main(int argc, char** argv) {
    using namespace kb::platform;
    using namespace kb::ui;

    // Help needs no display, so it comes before Qt looks for one.
    // A FILE named "--help" is a file, not the option.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            std::fputs(Help, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--screenshot") == 0 ||
            std::strcmp(argv[i], "--screenshot-on-signal") == 0) {
            ++i;
        }
    }
    // Before any thread starts, Qt's own included, so that every thread
    // inherits the mask and the signals come only through the descriptor.
    StopSignals stopSignals({SIGUSR1});
    if (!stopSignals.IsOpen()) {
        std::perror("kestrelbound");
        return 1;
    }
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Kestrelbound"));
    // The window ends the program, not the last window closing.
    QApplication::setQuitOnLastWindowClosed(false);
    FrontEndOptions options;
    if (!ReadOptions(QApplication::arguments(), options)) {
        std::fputs(Usage, stderr);
        return 2;
    }

    FrontEnd frontEnd(options);
    QSocketNotifier stops(stopSignals.Descriptor(), QSocketNotifier::Read);
    QObject::connect(&stops, &QSocketNotifier::activated, [&] {
        const std::optional<int> taken = stopSignals.Take();
        if (taken == SIGUSR1) {
            frontEnd.WriteSignalPicture();
        } else if (taken) {
            frontEnd.RequestClose();
        }
    });
    QObject::connect(&frontEnd, &FrontEnd::ProgramEnded, &application, &QApplication::quit);
    frontEnd.Start();
    QApplication::exec();
    return frontEnd.ExitStatus();
}

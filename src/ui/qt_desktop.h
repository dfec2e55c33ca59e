// The desktop as Qt reaches it: folders go to the desktop's own handlers
// through QDesktopServices, pages to xdg-open as without Qt (its answer is
// heard), programs start detached in a session of their own, and the file
// and folder dialogs are Qt's (or the desktop's, where Qt uses them). Every
// hand-off but a page runs on the GUI thread; a caller on another thread
// waits for it there.
#pragma once

#include <functional>

#include "platform/desktop.h"

class QWidget;

namespace kb::ui {

using platform::Desktop;
using platform::FileDialogRequest;
using platform::LinuxDesktop;

class GuiThread;

class QtDesktop : public Desktop {
public:
    // parent gives the window over which the dialogs open.
    QtDesktop(GuiThread& gui, std::function<QWidget*()> parent);

    void ShowFolder(const std::string& path) override;
    [[nodiscard]] bool OpenInBrowser(const std::string& page) override;
    void ActivateBrowser() override;
    void StartProgram(const std::string& path) override;
    [[nodiscard]] std::optional<std::string> ChooseFile(const FileDialogRequest& request) override;
    [[nodiscard]] std::vector<std::string> ChooseFiles(const FileDialogRequest& request) override;

private:
    GuiThread& gui_;
    std::function<QWidget*()> parent_;
};

// A dialog's filter ("Name (*.ext)|*.ext|" pairs, patterns parted by ";") as
// Qt writes it ("Name (*.ext);;...", patterns parted by blanks).
std::string QtFileFilter(const std::string& filter);

}  // namespace kb::ui

#include "platform/pseudo_terminal.h"

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include "platform/serial_speed.h"

namespace kb::platform {

bool OpenPseudoTerminal(PseudoTerminal& terminal) {
    terminal = PseudoTerminal{};
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (master < 0) {
        return false;
    }
    char name[128];
    if (::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
        ::ptsname_r(master, name, sizeof name) != 0) {
        ::close(master);
        return false;
    }
    const int keeper = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (keeper < 0) {
        ::close(master);
        return false;
    }
    termios settings{};
    if (::tcgetattr(keeper, &settings) == 0) {
        ::cfmakeraw(&settings);
        ::tcsetattr(keeper, TCSANOW, &settings);
    }
    terminal.Master = master;
    terminal.SlaveKeeper = keeper;
    terminal.SlavePath = name;
    return true;
}

void ClosePseudoTerminal(PseudoTerminal& terminal) {
    if (terminal.SlaveKeeper >= 0) {
        ::close(terminal.SlaveKeeper);
    }
    if (terminal.Master >= 0) {
        ::close(terminal.Master);
    }
    terminal = PseudoTerminal{};
}

uint32_t PseudoTerminalSpeed(const PseudoTerminal& terminal) {
    termios settings{};
    // On the master side the terminal settings are the slave side's.
    if (terminal.Master < 0 || ::tcgetattr(terminal.Master, &settings) != 0) {
        return 0;
    }
    return BitsPerSecond(::cfgetospeed(&settings));
}

}  // namespace kb::platform

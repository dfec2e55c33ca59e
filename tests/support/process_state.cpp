#include "support/process_state.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

#include "support/child_process.h"
#include "support/temp_folder.h"

namespace kb::test {

EnvironmentValue::EnvironmentValue(const char* name, const std::string& value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    old_ = had_ ? old : "";
    ::setenv(name, value.c_str(), 1);
}

EnvironmentValue::~EnvironmentValue() {
    if (had_) {
        ::setenv(name_, old_.c_str(), 1);
    } else {
        ::unsetenv(name_);
    }
}

double ThreadCpuMs() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1000.0 + static_cast<double>(t.tv_nsec) / 1e6;
}

double ProcessCpuMs(pid_t pid) {
    // The name in the second field may hold blanks; the fields behind its
    // closing bracket are counted from the third on.
    const std::string stat = ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) {
        return -1;
    }
    unsigned long long user = 0;
    unsigned long long system = 0;
    if (std::sscanf(stat.c_str() + close + 1,
                    " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &user,
                    &system) != 2) {
        return -1;
    }
    return static_cast<double>(user + system) * 1000.0 /
           static_cast<double>(::sysconf(_SC_CLK_TCK));
}

long ProcessMemoryKb(pid_t pid, bool peak) {
    const std::string status = ReadWholeFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(peak ? "VmHWM:" : "VmRSS:");
    long kb = -1;  // as long as no number is read
    if (at != std::string::npos) {
        std::sscanf(status.c_str() + at + 6, "%ld", &kb);
    }
    return kb;
}

long ProcessDescriptors(pid_t pid) {
    std::error_code error;
    long count = 0;
    for (std::filesystem::directory_iterator at("/proc/" + std::to_string(pid) + "/fd", error);
         !error && at != std::filesystem::directory_iterator(); at.increment(error)) {
        ++count;
    }
    return error ? -1 : count;
}

std::string TextLock(pid_t pid) {
    char text[16];
    std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(pid));
    return text;
}

pid_t GonePid() {
    ChildProcess gone("/bin/true", {});
    gone.WaitForExit(std::chrono::seconds(10));
    return gone.Pid();
}

}  // namespace kb::test

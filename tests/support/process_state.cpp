#include "support/process_state.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

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

std::string TextLock(pid_t pid) {
    char text[16];
    std::snprintf(text, sizeof text, "%10d\n", static_cast<int>(pid));
    return text;
}

pid_t GonePid() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    return child;
}

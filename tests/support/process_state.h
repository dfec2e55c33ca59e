// What a test changes or reads of its own process and the programs it runs:
// an environment variable for the length of a check, the processor time its
// thread or a child has used, the memory a child holds, and process ids
// living and gone as port locks hold them.
#pragma once

#include <sys/types.h>

#include <string>

namespace kb::test {

// Sets an environment variable for the life of the object, then puts back
// what was there (or nothing).
class EnvironmentValue {
public:
    EnvironmentValue(const char* name, const std::string& value);
    ~EnvironmentValue();
    EnvironmentValue(const EnvironmentValue&) = delete;
    EnvironmentValue& operator=(const EnvironmentValue&) = delete;

private:
    const char* name_;
    bool had_ = false;
    std::string old_;
};

// Milliseconds of processor time the calling thread has used.
double ThreadCpuMs();
// Milliseconds of processor time a process of this machine has used, all its
// threads together, as /proc tells; -1 if it cannot be read.
double ProcessCpuMs(pid_t pid);

// Kilobytes of memory a process of this machine holds now (VmRSS), or held
// at its peak (VmHWM); -1 if it cannot be read.
long ProcessMemoryKb(pid_t pid, bool peak = false);
// The descriptors a process of this machine holds open now; -1 if they
// cannot be read.
long ProcessDescriptors(pid_t pid);

// A port lock's text for the process, as serial programs write it: the id in
// ten characters, right-aligned, and a newline.
std::string TextLock(pid_t pid);
// The id of a process that has exited and been reaped.
pid_t GonePid();

}  // namespace kb::test

// What a test changes or reads of its own process: an environment variable
// for the length of a check, and the processor time its thread has used.
#pragma once

#include <string>

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

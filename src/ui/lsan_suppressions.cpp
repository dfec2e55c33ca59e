// LeakSanitizer's suppressions for the desktop program, linked in only when
// the program is built with AddressSanitizer.
//
// On an X server Qt asks the session's message bus for the desktop's
// services (accessibility, the desktop's theme); where there is no bus, as on
// a bare virtual X server, the bus library keeps the text of the failure in a
// buffer it never frees. That is the library's, not ours: only what the bus
// library itself allocated is let through, every leak of the program's own
// code is still reported.

// The sanitizer's runtime looks these functions up by their names.
extern "C" const char* __lsan_default_suppressions();  // NOLINT(readability-identifier-naming)
extern "C" const char* __lsan_default_options();       // NOLINT(readability-identifier-naming)

extern "C" const char* __lsan_default_suppressions() {  // NOLINT(readability-identifier-naming)
    return "leak:libdbus-1.so\n";
}

// A suppression that was used is not worth a report: any report a sanitized
// run leaves behind fails it.
extern "C" const char* __lsan_default_options() {  // NOLINT(readability-identifier-naming)
    return "print_suppressions=0";
}

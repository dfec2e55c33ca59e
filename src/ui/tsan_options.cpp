// ThreadSanitizer's defaults for the desktop program, linked in only when the
// program is built with it.
//
// Qt's libraries are not built with ThreadSanitizer, so it cannot see the
// locks inside them; memory that Qt allocates on one thread and frees on
// another (a posted event, an image its thread pool converts) would be
// reported as a race although Qt's own locks order it. With this option the
// sanitizer leaves out what uninstrumented libraries do through its
// interceptors, and keeps checking every access of the program's own code,
// also in code that Qt calls. The option given in TSAN_OPTIONS still wins.

// The sanitizer's runtime looks this function up by its name.
extern "C" const char* __tsan_default_options();  // NOLINT(readability-identifier-naming)

extern "C" const char* __tsan_default_options() {  // NOLINT(readability-identifier-naming)
    return "ignore_noninstrumented_modules=1";
}

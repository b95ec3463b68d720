// Defaults of the sanitizer runtimes for every executable of a sanitized build; ASAN_OPTIONS and its like override
// them. Linked into executables only, since a library member that nothing refers to would be left out.

// The runtimes call these before anything is set up, so nothing here may be instrumented.
#define SANITIZER_DEFAULTS(runtime, options)                                                               \
    extern "C" __attribute__((used, visibility("default"), no_sanitize("address", "thread", "undefined"))) \
    const char* __##runtime##_default_options()                                                            \
    {                                                                                                      \
        return options;                                                                                    \
    }

// nthost takes page faults in a SIGSEGV handler of its own, on the stack of the faulting thread. The guards jump out of
// frames, which a fake stack would not survive.
SANITIZER_DEFAULTS(asan, "detect_leaks=1:detect_stack_use_after_return=0:allow_user_segv_handler=1")
SANITIZER_DEFAULTS(ubsan, "print_stacktrace=1")
// The fault handler calls the file system: safe because the fault is synchronous, which the runtime cannot know.
SANITIZER_DEFAULTS(tsan, "report_signal_unsafe=0:second_deadlock_stack=1")

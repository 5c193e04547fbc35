#include <gtest/gtest.h>

#include <cstdlib>

// Sanitizer settings of every test program. The assertion report ends the
// process by SIGSEGV on purpose: death tests expect that signal, so the
// sanitizers must leave it alone.
extern "C" const char* __asan_default_options() {
    return "handle_segv=0:detect_leaks=1";
}
extern "C" const char* __ubsan_default_options() {
    return "print_stacktrace=1:halt_on_error=1";
}
extern "C" const char* __tsan_default_options() {
    return "handle_segv=0:halt_on_error=1:second_deadlock_stack=1:"
           "suppressions=" CIMCORE_TSAN_SUPPRESSIONS;
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests re-execute the binary: safe with the threads the library
    // starts, and the child gets a clean sanitizer runtime. User-mode
    // emulation cannot execute a target binary from inside, so there the
    // environment's GTEST_DEATH_TEST_STYLE=fast keeps to fork.
    if (std::getenv("GTEST_DEATH_TEST_STYLE") == nullptr) {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    return RUN_ALL_TESTS();
}

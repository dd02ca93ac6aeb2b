#pragma once

// What the sanitizers ask a program for, by name; for the one source file of a program that has its main().

extern "C" {

// The sanitizers ask these functions for what else would be environment variables, so that a test behaves the
// same however it is started.
__attribute__((visibility("default"))) const char* __asan_default_options()
{
    return "detect_stack_use_after_return=1:check_initialization_order=1:strict_string_checks=1";
}

__attribute__((visibility("default"))) const char* __ubsan_default_options() { return "print_stacktrace=1"; }

__attribute__((visibility("default"))) const char* __tsan_default_options()
{
    return "halt_on_error=1:second_deadlock_stack=1";
}

} // extern "C"

// What ThreadSanitizer is not to report, each with its reason. It looks for this function by its name.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions();

const char* __tsan_default_suppressions()
{
    // A handler that starts a search from an intermediate call locks the new context's mutex under the
    // session's, against the usual order. It is the first to do so, before the search has a thread that could
    // do it the usual way round.
    return "deadlock:tavo::ldap::Session::asyncSearch\n";
}

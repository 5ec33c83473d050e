// An address sanitizer asks here for its options; without one nobody does. An allocation that is
// larger than it supports is to fail, as it does for the library's callers, and not to end the
// program: a hostile file asks for a terabyte.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the sanitizer's name.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

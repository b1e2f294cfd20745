/*
 * LeakSanitizer's view of the reliability programs in sanitizer builds. The
 * library keeps no leak on purpose, so nothing is suppressed: the hook stays
 * as the one place to name such a leak, exactly as in tests/valgrind.supp.
 */
extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_suppressions()
{
    return "";
}

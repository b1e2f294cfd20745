/*
 * LeakSanitizer's view of the reliability programs in sanitizer builds: the
 * leaks the library keeps on purpose (and documents) are named here, exactly
 * as in tests/valgrind.supp, so that everything else still fails the run.
 */
extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_suppressions()
{
    return
        /* init_privatekey's first, empty RSA object is never used nor released. */
        "leak:init_privatekey\n"
        /* init_publickey keeps its memory BIO when the key text does not read. */
        "leak:init_publickey\n";
}

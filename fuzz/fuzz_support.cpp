#include <cstdarg>
#include <cstdio>

#include "fuzz_support.h"

extern "C" __attribute__((visibility("default"))) int vtlDebugCheckLevelGetFrameAndChunk(unsigned int)
{
    return 1;
}

extern "C" __attribute__((visibility("default"))) void vtlDebugOutput0(const char *fmt, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
}

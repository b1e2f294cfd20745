#include <cstdarg>
#include <cstdio>

#include "fuzz_support.h"

namespace {

bool g_keep = false;
unsigned int g_level = 0;
std::vector<std::pair<bool, std::string>> g_lines;

}  // namespace

extern "C" __attribute__((visibility("default"))) int vtlDebugCheckLevelGetFrameAndChunk(unsigned int level)
{
    g_level = level;
    return 1;
}

extern "C" __attribute__((visibility("default"))) void vtlDebugOutput0(const char *fmt, ...)
{
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (g_keep)
        g_lines.emplace_back(g_level == 0x01BC03E8u, line);
}

namespace kxfuzz {

void keep_log(bool on)
{
    g_keep = on;
    g_lines.clear();
}

std::vector<std::pair<bool, std::string>> take_log()
{
    std::vector<std::pair<bool, std::string>> lines;
    lines.swap(g_lines);
    return lines;
}

}  // namespace kxfuzz

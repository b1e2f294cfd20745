#include "rel_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "alloc_interposer.h"

namespace {

std::mutex g_mutex;
std::vector<std::string> g_lines;
bool g_echo = std::getenv("KX_REL_ECHO") != nullptr;

}  // namespace

extern "C" __attribute__((visibility("default"))) int vtlDebugCheckLevelGetFrameAndChunk(unsigned int level)
{
    return level == 0x01BC03E8u || level == 0x01BC0FA0u;
}

extern "C" __attribute__((visibility("default"))) void vtlDebugOutput0(const char *fmt, ...)
{
    kxrel::Paused paused;
    char line[2048];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_echo)
        std::fprintf(stderr, "[log] %s\n", line);
    /* A sweep runs a call thousands of times: keep the last lines only. */
    if (g_lines.size() > 20000)
        g_lines.erase(g_lines.begin(), g_lines.begin() + 10000);
    g_lines.emplace_back(line);
}

namespace kxrel {

void log_clear()
{
    Paused paused;
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::vector<std::string> log_lines()
{
    Paused paused;
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

bool log_contains(const std::string &needle) { return log_count(needle) > 0; }

int log_count(const std::string &needle)
{
    Paused paused;
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const auto &l : g_lines)
        if (l.find(needle) != std::string::npos)
            ++n;
    return n;
}

void log_echo(bool on)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_echo = on;
}

}  // namespace kxrel

#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex g_mutex;
std::vector<kxtest::LogLine> g_lines;
bool g_echo = false;
bool g_error_on = true;
bool g_info_on = true;
thread_local unsigned int t_last_level = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) int vtlDebugCheckLevelGetFrameAndChunk(unsigned int level)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    t_last_level = level;
    if (level == kxtest::kError)
        return g_error_on;
    if (level == kxtest::kInfo)
        return g_info_on;
    return 0;
}

extern "C" __attribute__((visibility("default"))) void vtlDebugOutput0(const char *fmt, ...)
{
    char stack[4096];
    va_list ap;
    va_start(ap, fmt);
    int n = std::vsnprintf(stack, sizeof stack, fmt, ap);
    va_end(ap);
    std::string text;
    if (n >= static_cast<int>(sizeof stack)) {
        text.resize(static_cast<size_t>(n) + 1);
        va_start(ap, fmt);
        std::vsnprintf(&text[0], text.size(), fmt, ap);
        va_end(ap);
        text.resize(static_cast<size_t>(n));
    } else if (n > 0) {
        text.assign(stack, static_cast<size_t>(n));
    }
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_echo)
        std::fprintf(stderr, "[log] %s%s", text.c_str(), (!text.empty() && text.back() == '\n') ? "" : "\n");
    g_lines.push_back({t_last_level, std::move(text)});
}

namespace kxtest {

std::vector<LogLine> log_lines()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

void clear_log()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

std::vector<std::string> log_matching(const std::string &needle)
{
    std::vector<std::string> out;
    for (const auto &line : log_lines())
        if (line.text.find(needle) != std::string::npos)
            out.push_back(line.text);
    return out;
}

bool log_contains(const std::string &needle) { return !log_matching(needle).empty(); }

int log_count(const std::string &needle, unsigned int level)
{
    int n = 0;
    for (const auto &line : log_lines())
        if (line.level == level && line.text.find(needle) != std::string::npos)
            ++n;
    return n;
}

bool log_has(const std::string &call, const std::string &message, unsigned int level)
{
    const std::string head = call + "(): ";
    for (const auto &line : log_lines()) {
        const size_t at = line.text.find(head);
        if (line.level == level && at != std::string::npos && line.text.compare(at + head.size(), std::string::npos, message) == 0)
            return true;
    }
    return false;
}

void log_echo(bool on)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_echo = on;
}

void log_enable(unsigned int level, bool on)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (level == kError)
        g_error_on = on;
    if (level == kInfo)
        g_info_on = on;
}

}  // namespace kxtest

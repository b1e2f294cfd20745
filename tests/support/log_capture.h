/*
 * Captures the library's log lines. The test programs define the two debug-log
 * functions themselves (see log_capture.cpp); the dynamic linker binds the
 * library's calls to them instead of the platform stand-in.
 */
#ifndef KX_TEST_LOG_CAPTURE_H
#define KX_TEST_LOG_CAPTURE_H

#include <string>
#include <vector>

namespace kxtest {

struct LogLine {
    unsigned int level; /* 0x01BC03E8 error, 0x01BC0FA0 information */
    std::string text;   /* the whole formatted line, prefix included */
};

constexpr unsigned int kError = 0x01BC03E8u;
constexpr unsigned int kInfo = 0x01BC0FA0u;

std::vector<LogLine> log_lines();
void clear_log();
/* Lines containing `needle` (any class). */
std::vector<std::string> log_matching(const std::string &needle);
bool log_contains(const std::string &needle);
/* Number of lines containing `needle` in the given class. */
int log_count(const std::string &needle, unsigned int level);
/* A line of class `level` logged under the function `call` whose message,
 * after its "call(): " prefix, is exactly `message`. */
bool log_has(const std::string &call, const std::string &message, unsigned int level);
/* Echo every captured line to stderr too (for debugging a test). */
void log_echo(bool on);
/* Disable a class: lines of that level are then neither formatted nor stored. */
void log_enable(unsigned int level, bool on);

}  // namespace kxtest

#endif

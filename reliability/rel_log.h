/*
 * Log sink of the reliability programs. They define the platform's two
 * debug-log functions themselves (as every test program does), but step
 * aside from the allocation interposer while storing a line, so the sink's
 * own memory is never failed or counted against the call being checked.
 * Lines are kept from the last clear on; both classes are enabled.
 */
#ifndef KX_RELIABILITY_REL_LOG_H
#define KX_RELIABILITY_REL_LOG_H

#include <string>
#include <vector>

namespace kxrel {

void log_clear();
std::vector<std::string> log_lines();
bool log_contains(const std::string &needle);
int log_count(const std::string &needle);
/* Echo every line to stderr as it arrives (KX_REL_ECHO=1 sets it too). */
void log_echo(bool on);

}  // namespace kxrel

#endif

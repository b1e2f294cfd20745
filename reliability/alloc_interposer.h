/*
 * Allocation interposer for the reliability suites.
 *
 * The test program itself defines malloc, calloc, realloc and free, so every
 * heap request of the process (the library, libcurl, OpenSSL, libxml2, zlib,
 * cJSON, the C library's own fopen and friends) passes through here. Nothing
 * happens until a thread arms it: from then on that thread's allocations are
 * counted, the Nth can be made to fail, and every block it obtains is
 * remembered until freed (by any thread), so that what a call leaves behind
 * can be counted. Other threads (the test cloud's) are never affected.
 *
 * Sanitizer builds bring their own allocator; there the interposer is absent
 * and active() is false, and leak checking falls to LeakSanitizer.
 */
#ifndef KX_RELIABILITY_ALLOC_INTERPOSER_H
#define KX_RELIABILITY_ALLOC_INTERPOSER_H

#include <cstddef>
#include <cstdio>

namespace kxrel {

/* True when this program interposes the allocator. */
bool interposer_active();

/* Start counting this thread's allocations from zero and forget earlier
 * tracked blocks. fail_at > 0 makes that allocation (1-based) return null;
 * 0 never fails. */
void arm(long fail_at);
/* Change the failure point of an armed thread (0 = no more failures). */
void set_fail_at(long fail_at);
/* Stop counting; returns the number of allocations seen while armed. */
long disarm();

/* Allocations seen since arm(). */
long allocations();
/* Whether the planned failure was delivered. */
bool failure_delivered();
/* Planned failures moved to a later allocation because they fell on a known
 * fault of a dependency (see alloc_interposer.cpp). */
long failures_deferred();
/* Blocks obtained while armed and not freed yet, and their total size. */
long live_blocks();
std::size_t live_bytes();
/* The table of tracked blocks overflowed (live counts are then unreliable). */
bool tracking_overflowed();
/* Whether a planned failure that falls on a known fault of a dependency
 * moves on to the next allocation (on by default; see alloc_interposer.cpp). */
void defer_known_faults(bool on);

/* Record the call chain of every tracked block (slow; KX_REL_BACKTRACE=1
 * turns it on for the whole run). */
void set_backtraces(bool on);
/* Live blocks that the library is answerable for: with backtraces on, blocks
 * lost inside a dependency call that owns what it makes (libcurl's perform,
 * OpenSSL's digest) are set aside as the dependency's. */
long library_blocks();
/* Writes one line per block still live (size and the function that asked
 * for it); call it disarmed. */
void describe_live(std::FILE *out);

/* The heap the armed thread holds, by who asked for it: the first frame of
 * the asking call chain outside the C and C++ runtimes and this program's
 * allocator. So the FILE buffer of an answer file the library opened is the
 * library's, and a block OpenSSL made while libcurl ran the handshake is
 * OpenSSL's. Other covers libxml2, cJSON, zlib and the program itself.
 * Telling owners apart takes a backtrace per allocation: off unless asked
 * for; without it every block counts as Other. */
enum class Owner { Library, Curl, OpenSsl, Other };
constexpr int kOwners = 4;
const char *owner_name(Owner owner);
void count_owners(bool on);
struct HeapPeak {
    std::size_t total = 0;              /* the most held at once, all owners together */
    std::size_t owner[kOwners] = {};    /* the most each owner held at once */
};
/* The high-water marks since arm(). */
HeapPeak heap_peak();

/* Test machinery that runs on the armed thread in the middle of a call (the
 * log sink) steps aside with this guard: its allocations are neither counted,
 * failed nor tracked. */
class Paused {
public:
    Paused();
    ~Paused();
    Paused(const Paused &) = delete;
    Paused &operator=(const Paused &) = delete;

private:
    bool was_armed_;
};

}  // namespace kxrel

#endif

/*
 * The table of exported calls that the reliability suites run: the
 * allocation-failure sweep, the hostile-server matrix and the leak checks
 * under valgrind all walk it. A call joins the harness with one entry (most
 * with one line through a family helper in calls.cpp):
 *
 *   name     the exported call (plus "/http" for its plain-HTTP variant)
 *   family   "frame", "security", "verify", "transport", "account", ...
 *   path     the cloud path it talks to ("" = no network)
 *   answer   what the cloud answers there on a good day
 *   prepare  unarmed set-up of one run: routes, input files, the stream
 *   invoke   the call itself: the only part run with the allocator armed
 *   judge    reads the result and what the call left behind and says whether
 *            the run was a success, a documented failure, or a fault
 *   release  gives back what the call handed out (its URL, cipher text, the
 *            caller's stream); runs armed so those frees are seen
 */
#ifndef KX_RELIABILITY_CALLS_H
#define KX_RELIABILITY_CALLS_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"

namespace kxcloud {
class Cloud;
}

namespace kxrel {

enum class Answer {
    None,     /* no network */
    Raw,      /* plain text, the transport members */
    Json,     /* signed JSON in the cloud's envelope */
    Xml,      /* signed XML in the cloud's envelope */
    ServiceList, /* signed XML: the log service list with encrypted addresses */
    Policy,   /* unsigned XML carrying an encrypted, compressed log policy */
};

enum class Outcome { Success, Failure, Fault };
const char *outcome_name(Outcome o);

/* Everything one run of a call works with; fresh for every run. */
struct Run {
    kxcloud::Cloud *cloud = nullptr;
    bool plain = false;          /* the record's u32ChangeToHttp is 1 */
    std::string domain;          /* the domain the call is given */
    std::string base;            /* "https://127.0.0.1:PORT" or "http://127.0.0.1:80" */
    std::string target;          /* base + the call's path, made before the call */
    std::string file;            /* answer file the call writes, or the caller stream's file */
    FILE *stream = nullptr;      /* caller-opened stream */
    std::vector<char> buffer;    /* caller's result buffer, zeroed */
    std::unique_ptr<KX_SDK_DATA_BUF_S> record;
    std::vector<char> large_area;
    KX_SDK_LARGEDATA_S large{};
    char *out = nullptr;         /* memory the call hands out */
    unsigned char *uout = nullptr;
    uint32_t outlen = 0;
    KX_SDK_LINKLIST_S list{};
    KX_SDK_LINKLIST_S *plist = nullptr;
    std::string input;           /* prepared input */
    std::string expect;          /* what a successful run leaves */
    std::string why;             /* the judge's reason for a fault */

    uint32_t mode() const { return plain ? 1u : 0u; }
    std::string url(const std::string &path) const { return base + path; }
    std::string file_text() const;  /* current contents of `file` */
    Outcome fault(const std::string &reason)
    {
        why = reason;
        return Outcome::Fault;
    }
};

struct Call {
    std::string name;
    std::string family;
    std::string path;
    Answer answer = Answer::None;
    bool plain = false;   /* needs the port-80 listener */
    bool sweep = true;    /* false: the call documents an unchecked allocation */
    bool signed_answer = false; /* its verdict depends on the answer's signature */
    bool judges_status = true;  /* an HTTP error status fails the transfer */
    bool any_format = false;    /* verifies XML and JSON answers alike */
    std::string note;     /* why it is left out of the sweep */
    std::function<void(Run &)> prepare;
    std::function<int64_t(Run &)> invoke;
    std::function<Outcome(Run &, int64_t)> judge;
    std::function<void(Run &)> release;
    /* A leak the call documents and keeps (a path that does not release what
     * it made): true when this run took such a path. */
    std::function<bool(Run &)> documented_leak;
};

/* The whole table. */
const std::vector<Call> &calls();
const Call *find_call(const std::string &name);

/* The good answer of a kind (signed with the build's answer key). */
std::string good_answer(Answer kind);
/* The text a successful verification leaves (answer without its signature). */
std::string verified_text(Answer kind);

/* Process set-up shared by the suites: initialise the library against the
 * shared test cloud once; routes of a call's path back to the good answer. */
kxcloud::Cloud &cloud();
void ensure_initialised();
void route_good(const Call &call);

/* One run: fresh Run, prepare, invoke (armed when fail_at >= 0 and the
 * interposer is active), release, judge. */
struct RunReport {
    Outcome outcome = Outcome::Fault;
    int64_t result = 0;
    long allocations = 0;        /* seen while the call ran */
    long live_blocks = 0;        /* left behind after release */
    size_t live_bytes = 0;
    long library_blocks = 0;     /* of those, the library's (see alloc_interposer.h) */
    bool failure_delivered = false;
    long failures_deferred = 0;
    bool documented_leak = false;
    std::string why;
    std::string live_detail;     /* who asked for the blocks left behind */
    long record_used = -1;       /* bytes in the run's answer record, if it had one */
};
/* `tweak`, when given, runs after prepare and may point the run elsewhere
 * (another domain, another target). */
RunReport run_call(const Call &call, long fail_at, bool reroute = true,
                   const std::function<void(Run &)> &tweak = nullptr);

}  // namespace kxrel

#endif

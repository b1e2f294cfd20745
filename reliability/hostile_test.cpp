/*
 * Hostile servers against every call of the table that talks to the cloud:
 * refused connections, answers cut off, error statuses, answers one byte over
 * a sink's capacity, signatures missing, cut, altered or misplaced, answers
 * that do not parse, a certificate from an unrelated CA, and (once) a server
 * that stalls past the 20-second limit. Every case must end in the call's
 * documented failure result, leave no partial file where the call empties
 * it, and leave nothing behind on the heap (checked by the interposer where
 * it is active, by LeakSanitizer and valgrind otherwise).
 */
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "alloc_interposer.h"
#include "calls.h"
#include "rel_log.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace {

using kxrel::Answer;
using kxrel::Call;
using kxrel::Outcome;
using kxrel::RunReport;

bool http_ready() { return kxrel::cloud().http_ready(); }

std::vector<const Call *> network_calls()
{
    std::vector<const Call *> out;
    for (const auto &c : kxrel::calls())
        if (!c.path.empty() && (!c.plain || http_ready()))
            out.push_back(&c);
    return out;
}

/* Leak check of one hostile run: a block left twice in a row is a leak,
 * unless its call chain shows it was lost inside a dependency. */
void expect_nothing_left(const Call &call, RunReport report, const std::function<RunReport()> &again)
{
    if (!kxrel::interposer_active() || report.live_blocks == 0)
        return;
    kxrel::set_backtraces(true);
    report = again();
    kxrel::set_backtraces(false);
    EXPECT_EQ(report.library_blocks, 0) << call.name << ": " << report.live_bytes << " bytes left behind\n"
                                        << report.live_detail;
}

kxcloud::Reply reply_with(const std::string &body, const Call &call)
{
    kxcloud::Reply r;
    r.body = body;
    r.content_type = call.answer == Answer::Json ? "application/json" : "text/xml";
    return r;
}

/* One case applied to every call it concerns. `reply` makes the hostile
 * answer from the good one; `expect` is the documented outcome. */
void run_case(const char *what, const std::function<bool(const Call &)> &applies,
              const std::function<kxcloud::Reply(const Call &)> &reply,
              const std::function<Outcome(const Call &)> &expect)
{
    int covered = 0;
    for (const Call *call : network_calls()) {
        if (!applies(*call))
            continue;
        ++covered;
        auto once = [&] {
            kxrel::cloud().reply("*", call->path, reply(*call));
            return kxrel::run_call(*call, 0, false);
        };
        RunReport report = once();
        EXPECT_EQ(report.outcome, expect(*call))
            << what << ": " << call->name << " gave " << kxrel::outcome_name(report.outcome) << " (result "
            << report.result << ") " << report.why;
        expect_nothing_left(*call, report, once);
    }
    EXPECT_GT(covered, 0) << what << " reached no call";
}

bool verifies(const Call &c) { return c.signed_answer; }
bool parses(const Call &c) { return c.answer != Answer::None && c.answer != Answer::Raw; }
Outcome failure(const Call &) { return Outcome::Failure; }

/* ---- the connection --------------------------------------------------------- */

TEST(Hostile, RefusedConnectionIsAFailure)
{
    for (const Call *call : network_calls()) {
        auto once = [&] {
            return kxrel::run_call(*call, 0, true, [&](kxrel::Run &r) {
                /* Nothing listens on port 1, nor on 127.0.0.2:80. */
                r.domain = r.plain ? "127.0.0.2" : "127.0.0.1:1";
                r.base = r.plain ? "http://127.0.0.2:80" : "https://127.0.0.1:1";
                r.target = r.base + call->path;
            });
        };
        RunReport report = once();
        EXPECT_EQ(report.outcome, Outcome::Failure) << call->name << " (result " << report.result << ") " << report.why;
        expect_nothing_left(*call, report, once);
    }
}

TEST(Hostile, AnswerDroppedHalfwayIsAFailure)
{
    run_case("dropped", [](const Call &c) { return c.judges_status; },
             [](const Call &c) {
                 kxcloud::Reply r = reply_with(kxrel::good_answer(c.answer), c);
                 r.drop_after = static_cast<long>(r.body.size() / 2);
                 return r;
             },
             failure);
}

TEST(Hostile, ServerCertificateFromAnotherCaIsRefused)
{
    kxcloud::Options options;
    options.http80 = false;
    options.cert = "other_server";
    kxcloud::Cloud other(options);
    for (const Call *call : network_calls()) {
        if (call->plain || call->name.find("HTTP_") != std::string::npos ||
            call->name == "KX_SDK_GetDownloadFileLenth")
            continue;
        kxcloud::Reply good;
        good.body = kxrel::good_answer(call->answer);
        other.reply("*", call->path, good);
        auto once = [&] {
            return kxrel::run_call(*call, 0, true, [&](kxrel::Run &r) {
                r.domain = other.https_domain();
                r.base = "https://" + other.https_domain();
                r.target = r.base + call->path;
            });
        };
        RunReport report = once();
        EXPECT_EQ(report.outcome, Outcome::Failure) << call->name << " (result " << report.result << ") " << report.why;
        expect_nothing_left(*call, report, once);
    }
    EXPECT_TRUE(other.requests().empty()) << "a request reached a server whose certificate does not verify";
}

/* ---- statuses and sizes ----------------------------------------------------- */

TEST(Hostile, ErrorStatusesAreFailures)
{
    for (int status : {400, 403, 404, 500, 503}) {
        SCOPED_TRACE(status);
        run_case("status", [](const Call &c) { return c.judges_status; },
                 [status](const Call &c) {
                     /* Even a well-signed body does not count under an error status. */
                     kxcloud::Reply r = reply_with(kxrel::good_answer(c.answer), c);
                     r.status = status;
                     return r;
                 },
                 failure);
    }
}

/* The record sinks hold 102400 and 204800 bytes: exactly that fits, one byte
 * more aborts the transfer and the record keeps only what fitted. */
TEST(Hostile, RecordSinksTakeTheirCapacityAndNotOneByteMore)
{
    for (const Call *call : network_calls()) {
        bool large = call->name == "KX_SDK_HTTPS_GET_EXTERNAL_MARK1";
        if (call->name.find("EXTERNAL") == std::string::npos)
            continue;
        const size_t capacity = large ? KX_SDK_LARGEDATA_SIZE : KX_SDK_DATA_BUF_SIZE;
        for (size_t size : {capacity, capacity + 1}) {
            kxcloud::Reply r;
            r.body.assign(size, 'z');
            r.chunk_size = 4096;
            kxrel::cloud().reply("*", call->path, r);
            RunReport report = kxrel::run_call(*call, 0, false);
            if (size == capacity) {
                /* The body is not the good one, so the judge calls it a
                 * fault; what matters is the transfer's result. */
                EXPECT_EQ(report.result, 0) << call->name << " refused exactly " << size << " bytes";
                EXPECT_EQ(report.record_used, static_cast<long>(capacity)) << call->name;
            } else {
                EXPECT_EQ(report.result, -1) << call->name << " accepted " << size << " bytes";
                EXPECT_EQ(report.outcome, Outcome::Failure) << call->name << " " << report.why;
                /* The chunk that would overflow is refused whole: what was kept fits. */
                EXPECT_LE(report.record_used, static_cast<long>(capacity)) << call->name;
            }
        }
    }
}

/* ---- signatures ------------------------------------------------------------- */

std::string without_signature(const Call &c) { return kxrel::verified_text(c.answer); }

std::string cut_signature(const Call &c)
{
    std::string s = kxrel::good_answer(c.answer);
    const char *open = c.answer == Answer::Json ? "\"signatureServer\":\"" : "<signatureServer>";
    size_t at = s.find(open) + std::strlen(open);
    size_t end = s.find(c.answer == Answer::Json ? "\"" : "<", at);
    return s.erase(at + (end - at) / 2, (end - at) / 2);
}

std::string altered_payload(const Call &c)
{
    std::string s = kxrel::good_answer(c.answer);
    s[s.find("reliability")] = 'R';
    return s;
}

std::string misplaced_signature(const Call &c)
{
    std::string good = kxrel::good_answer(c.answer);
    if (c.answer == Answer::Json) {
        /* The signature member first instead of last. */
        size_t at = good.find(",\"signatureServer\"");
        std::string member = good.substr(at + 1, good.size() - at - 2);
        return "{" + member + "," + good.substr(1, at - 1) + "}";
    }
    /* The signature element inside <data>, in front of its text: removing it
     * also drops the text up to the next "<", so what is checked is not what
     * was signed. (Moved anywhere between elements it would still verify:
     * only the element itself is cut out.) */
    size_t at = good.find("<signatureServer>");
    size_t end = good.find("</signatureServer>") + std::strlen("</signatureServer>");
    std::string element = good.substr(at, end - at);
    std::string rest = good.substr(0, at) + good.substr(end);
    size_t data = rest.find("<data>") + std::strlen("<data>");
    return rest.substr(0, data) + element + rest.substr(data);
}

std::string signed_by_stranger(const Call &c)
{
    static kxtest::RsaPtr stranger = kxtest::generate_rsa(1024);
    std::string text = kxrel::verified_text(c.answer);
    std::string sig = kxtest::server_signature(text, stranger.get());
    if (c.answer == Answer::Json)
        return text.substr(0, text.size() - 1) + ",\"signatureServer\":\"" + sig + "\"}";
    size_t end = text.rfind("</response>");
    return text.substr(0, end) + "<signatureServer>" + sig + "</signatureServer>" + text.substr(end);
}

TEST(Hostile, BadSignaturesAreRefused)
{
    const std::pair<const char *, std::string (*)(const Call &)> cases[] = {
        {"missing", without_signature},     {"cut in half", cut_signature},
        {"payload altered", altered_payload}, {"misplaced", misplaced_signature},
        {"another key", signed_by_stranger},
    };
    for (const auto &kase : cases) {
        SCOPED_TRACE(kase.first);
        run_case(kase.first, verifies, [&](const Call &c) { return reply_with(kase.second(c), c); }, failure);
    }
}

/* The two calls whose answers are only parsed (authorisation information and
 * customer information) accept an unsigned answer: that is their documented
 * behaviour, and it must still leave nothing behind. */
TEST(Hostile, ParseOnlyCallsAcceptUnsignedAnswers)
{
    run_case("unsigned", [](const Call &c) { return parses(c) && !c.signed_answer; },
             [](const Call &c) { return reply_with(without_signature(c), c); },
             [](const Call &) { return Outcome::Success; });
}

TEST(Hostile, MalformedAnswersAreFailures)
{
    const std::pair<const char *, std::function<std::string(const Call &)>> cases[] = {
        {"cut short", [](const Call &c) {
             std::string s = kxrel::good_answer(c.answer);
             return s.substr(0, s.size() * 2 / 3);
         }},
        {"garbage", [](const Call &) { return std::string("\x01\xff<<{{\"\0]]", 10); }},
        {"empty", [](const Call &) { return std::string(); }},
        {"other format", [](const Call &c) {
             return kxrel::good_answer(c.answer == Answer::Json ? Answer::Xml : Answer::Json);
         }},
    };
    for (const auto &kase : cases) {
        SCOPED_TRACE(kase.first);
        /* A call that verifies either format takes the other format's good answer. */
        const bool other_format = std::strcmp(kase.first, "other format") == 0;
        run_case(kase.first, parses, [&](const Call &c) { return reply_with(kase.second(c), c); },
                 [&](const Call &c) { return other_format && c.any_format ? Outcome::Success : Outcome::Failure; });
    }
}

/* ---- time ------------------------------------------------------------------- */

/* One server that stops sending past the request family's 20-second limit:
 * the call gives up after about 20 seconds, not later, with its failure. */
TEST(Hostile, StalledServerIsAbandonedAfterTwentySeconds)
{
    const Call *call = kxrel::find_call("KX_SIGN_OUT");
    ASSERT_NE(call, nullptr);
    kxcloud::Reply r = reply_with(kxrel::good_answer(Answer::Json), *call);
    r.stall_after = 10;
    r.stall_ms = 40000;
    kxrel::cloud().reply("*", call->path, r);
    auto start = std::chrono::steady_clock::now();
    RunReport report = kxrel::run_call(*call, 0, false);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(report.outcome, Outcome::Failure) << report.why;
    EXPECT_GE(seconds, 19.0);
    EXPECT_LE(seconds, 26.0);
    EXPECT_TRUE(kxrel::log_contains("failed to verify json data!"));
    kxrel::route_good(*call);
}

}  // namespace

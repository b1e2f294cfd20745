/*
 * Every exported call of the table once against a good cloud, and the frame's
 * refusals before initialisation. Each good run must produce the call's
 * documented product and, where the allocator is interposed, leave no block
 * behind. This suite is also the subset the valgrind pass runs.
 */
#include <gtest/gtest.h>

#include "alloc_interposer.h"
#include "calls.h"
#include "rel_log.h"
#include "test_cloud.h"

namespace {

using kxrel::Call;
using kxrel::Outcome;

std::vector<std::string> call_names()
{
    std::vector<std::string> names;
    for (const auto &c : kxrel::calls())
        names.push_back(c.name);
    return names;
}

std::string test_name(const testing::TestParamInfo<std::string> &info)
{
    std::string n = info.param;
    for (auto &ch : n)
        if (!isalnum(static_cast<unsigned char>(ch)))
            ch = '_';
    return n;
}

class EveryCall : public testing::TestWithParam<std::string> {};

TEST_P(EveryCall, GoodAnswerGivesItsProductAndLeavesNothingBehind)
{
    const Call *call = kxrel::find_call(GetParam());
    ASSERT_NE(call, nullptr);
    if (call->plain && !kxrel::cloud().http_ready()) {
        GTEST_SKIP() << "port 80 is not listening (run inside scripts/in-netns.sh)";
    }
    /* The first run also brings up what the dependencies set up once per
     * process; the second is the one measured. */
    kxrel::run_call(*call, 0);
    kxrel::RunReport report = kxrel::run_call(*call, 0);
    EXPECT_EQ(report.outcome, Outcome::Success) << report.why << " (result " << report.result << ")";
    if (kxrel::interposer_active() && !report.documented_leak) {
        EXPECT_EQ(report.live_blocks, 0) << report.live_bytes << " bytes in " << report.live_blocks << " blocks left:\n" << report.live_detail;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, EveryCall, testing::ValuesIn(call_names()), test_name);

/* Account calls refuse to run before KX_GLOBAL_INIT, touching nothing. */
TEST(Frame, AccountCallsRefuseBeforeInitialisation)
{
    KX_GLOBAL_DEINIT();
    for (const auto &c : kxrel::calls()) {
        if (c.family != "account" || c.plain)
            continue;
        kxrel::Run r;
        r.domain = kxrel::cloud().https_domain();
        if (c.prepare)
            c.prepare(r);
        kxrel::log_clear();
        size_t before = kxrel::cloud().requests().size();
        EXPECT_EQ(c.invoke(r), -1) << c.name;
        EXPECT_TRUE(kxrel::log_contains("please firstly to call KX_GLOBAL_INIT()!")) << c.name;
        EXPECT_EQ(kxrel::cloud().requests().size(), before) << c.name << " reached the network";
        if (c.release)
            c.release(r);
    }
    kxrel::ensure_initialised();
}

}  // namespace

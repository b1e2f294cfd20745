/*
 * What the request-call suites share: their fixture over the local cloud, and
 * small text helpers (formatting an expected wire text, a caller's scratch
 * stream, a whole file's bytes, and a recorded request's route
 * ("https POST /aaa/sign_out")).
 */
#ifndef KX_TEST_SUITE_TEXT_H
#define KX_TEST_SUITE_TEXT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"

namespace kxtest {

/* A suite's fixture: the library initialised, and before each test (and at
 * each fresh()) the shared local cloud emptied and given the services
 * `Register` adds, and the log cleared. */
template <void (*Register)(kxcloud::Cloud &)>
class CloudSuite : public ::testing::Test {
protected:
    kxcloud::Cloud &cloud = kxcloud::Cloud::shared();
    std::string domain; /* the cloud's HTTPS domain */

    void SetUp() override
    {
        ASSERT_EQ(KX_GLOBAL_INIT("127.0.0.1"), 0);
        fresh();
        domain = cloud.https_domain();
    }
    void fresh()
    {
        cloud.reset();
        Register(cloud);
        clear_log();
    }
};

/* printf into a std::string of any length. */
std::string fmt(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Everything from the stream's start to its end; the position is left at the end. */
std::string stream_text(std::FILE *stream);

/* A scratch stream, as a caller opens one for an answer (or a file to read). */
struct Stream {
    std::FILE *f;
    explicit Stream(std::FILE *file = std::tmpfile()) : f(file) {}
    ~Stream()
    {
        if (f != nullptr)
            std::fclose(f);
    }
    Stream(const Stream &) = delete;
    Stream &operator=(const Stream &) = delete;
    std::string text() const { return f != nullptr ? stream_text(f) : ""; }
};

/* The whole file, "" when it cannot be opened. */
std::string file_text(const std::string &path);

/* "https POST /aaa/sign_out": scheme, method and path of a recorded request. */
std::string route(const kxcloud::Request &request);

/* A line of `call` whose message, after "call(): ", is exactly `message`. */
inline bool logged(const std::string &call, const std::string &message, unsigned int level = kError)
{
    return log_has(call, message, level);
}

}  // namespace kxtest

#endif

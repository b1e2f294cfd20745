/*
 * The resumable download and the length probe against the test cloud.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "kx_cloud_openapi.h"
#include "suite_text.h"

using kxcloud::Reply;
using kxtest::file_text;
using kxtest::log_contains;

namespace {

const char *kPath = "/tmp/kx_download_test.bin";
int32_t g_progress_offset = -2; /* what the progress callback was pointed at */

size_t to_stream(char *ptr, size_t size, size_t nmemb, void *stream) { return fwrite(ptr, size, nmemb, static_cast<FILE *>(stream)); }

int note_progress(void *clientp, double, double, double, double)
{
    g_progress_offset = *static_cast<int32_t *>(clientp);
    return 0;
}

class Download : public ::testing::Test {
protected:
    kxcloud::Cloud &cloud = kxcloud::Cloud::shared();
    Reply image;
    void SetUp() override
    {
        cloud.reset();
        kxtest::clear_log();
        unlink(kPath);
        for (int i = 0; i < 50000; ++i)
            image.body.push_back(static_cast<char>(i * 7 % 251));
        cloud.reply("GET", "/image", image);
    }
    std::string https(const std::string &path) { return "https://" + cloud.https_domain() + path; }
};

TEST_F(Download, RefusedArgumentsLeaveTheStreamToTheCallerAndACallFollowsARedirectClosesItAndResumes)
{
    FILE *f = fopen(kPath, "wb");
    int fd = fileno(f);
    const std::string old = https("/old");
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(nullptr, f, 0, to_stream, note_progress));
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(old.c_str(), nullptr, 0, to_stream, note_progress));
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(old.c_str(), f, 0, nullptr, note_progress));
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(old.c_str(), f, 0, to_stream, nullptr));
    EXPECT_EQ(4, kxtest::log_count("KX_SDK_DownloadFileByCurl_Mark(): invalid arg!\n", kxtest::kError));
    EXPECT_TRUE(cloud.requests().empty());
    EXPECT_NE(-1, fcntl(fd, F_GETFD)) << "still open, still the caller's";

    Reply moved;
    moved.redirect_to = https("/image");
    cloud.reply("GET", "/old", moved);
    EXPECT_EQ(0, KX_SDK_DownloadFileByCurl(old.c_str(), f, 0, to_stream, note_progress));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)); /* closed by the call */
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(image.body, file_text(kPath));
    EXPECT_EQ(0, g_progress_offset);
    EXPECT_EQ("/image", cloud.last().path);
    EXPECT_TRUE(log_contains("(): ps8Url:" + old + ", res = 0.\n"));

    /* The caller appends from what it holds; the progress callback sees the offset. */
    int mark = 1;
    fd = socket(AF_INET, SOCK_STREAM, 0);
    const bool may_mark = setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark) == 0;
    close(fd);
    ASSERT_EQ(0, truncate(kPath, 20000));
    EXPECT_EQ(0, KX_SDK_DownloadFileByCurl_Mark(https("/image").c_str(), fopen(kPath, "ab"), 20000, to_stream, note_progress,
                                                may_mark ? 100 : -1));
    EXPECT_EQ("bytes=20000-", cloud.last().header("Range"));
    EXPECT_EQ(20000, g_progress_offset);
    EXPECT_EQ(image.body, file_text(kPath));
    EXPECT_EQ(may_mark, log_contains("sockopt_callback(): Mark: 100\n"));
}

TEST_F(Download, ProbeGivesTheStatedLengthOrMinusOne)
{
    EXPECT_EQ(0, KX_SDK_GetDownloadFileLenth(nullptr));
    EXPECT_EQ(-1, KX_SDK_GetDownloadFileLenth("http://127.0.0.1:1/refused"));
    EXPECT_TRUE(log_contains("Failed to call curl_easy_perform, error code is 7.\n"));
    if (!cloud.http_ready())
        GTEST_SKIP() << "port 80 needs the network namespace";
    Reply chunked{200, "no length"};
    chunked.chunked = true;
    cloud.reply("GET", "/chunked", chunked);
    std::string plain = "http://" + cloud.http_domain() + ":80";
    EXPECT_EQ(50000, KX_SDK_GetDownloadFileLenth((plain + "/image").c_str()));
    EXPECT_EQ("HEAD", cloud.last().method);
    EXPECT_TRUE(log_contains("(): === getDownloadFileLenth downloadFileLenth = 50000.\n"));
    EXPECT_EQ(-1, KX_SDK_GetDownloadFileLenth((plain + "/chunked").c_str()));
}

TEST_F(Download, StallEndsWithTheTimeoutCode)
{
    image.stall_after = 1000;
    image.stall_ms = 75000; /* longer than the 60 s stall limit */
    cloud.reply("GET", "/stall", image);
    EXPECT_EQ(CURLE_OPERATION_TIMEDOUT,
              KX_SDK_DownloadFileByCurl_Mark(https("/stall").c_str(), fopen(kPath, "wb"), 0, to_stream, note_progress, -1));
    EXPECT_EQ(image.body.substr(0, 1000), file_text(kPath));
    EXPECT_TRUE(log_contains("Failed to call curl_easy_perform, error code is 28.\n"));
}

}  // namespace

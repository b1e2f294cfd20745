/*
 * The resumable download and the length probe against the test cloud.
 */
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_cloud.h"

using kxcloud::Cloud;
using kxcloud::Reply;

namespace {

const char *kPath = "/tmp/kx_download_test.bin";
int32_t g_progress_offset = -2; /* what the progress callback was pointed at */

size_t to_stream(char *ptr, size_t size, size_t nmemb, void *stream)
{
    return fwrite(ptr, size, nmemb, static_cast<FILE *>(stream));
}

int note_progress(void *clientp, double, double, double, double)
{
    g_progress_offset = *static_cast<int32_t *>(clientp);
    return 0;
}

std::string slurp(const char *path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

std::string resource()
{
    std::string body;
    for (int i = 0; i < 50000; ++i)
        body.push_back(static_cast<char>(i * 7 % 251));
    return body;
}

class Download : public ::testing::Test {
protected:
    Cloud &cloud = Cloud::shared();
    void SetUp() override
    {
        cloud.reset();
        kxtest::clear_log();
        unlink(kPath);
        g_progress_offset = -2;
    }
    std::string https(const std::string &path) { return "https://" + cloud.https_domain() + path; }
    std::string http(const std::string &path) { return "http://" + cloud.http_domain() + ":80" + path; }
    int32_t download(const std::string &url, const char *mode, int32_t offset, int32_t mark = -1)
    {
        FILE *f = fopen(kPath, mode);
        return KX_SDK_DownloadFileByCurl_Mark(url.c_str(), f, offset, to_stream, note_progress, mark);
    }
};

TEST_F(Download, FetchesTheWholeResourceAndClosesTheStream)
{
    Reply r;
    r.body = resource();
    cloud.reply("GET", "/image", r);
    FILE *f = fopen(kPath, "wb");
    int fd = fileno(f);
    EXPECT_EQ(0, KX_SDK_DownloadFileByCurl(https("/image").c_str(), f, 0, to_stream, note_progress));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)); /* closed by the call */
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(r.body, slurp(kPath));
    EXPECT_EQ(0, g_progress_offset);
    EXPECT_TRUE(kxtest::log_contains("(): ps8Url:" + https("/image") + ", res = 0.\n"));
    EXPECT_FALSE(cloud.last().has_header("Range"));
}

TEST_F(Download, ResumesAHalfWrittenFile)
{
    Reply r;
    r.body = resource();
    cloud.reply("GET", "/image", r);
    std::ofstream(kPath, std::ios::binary) << r.body.substr(0, 20000);
    EXPECT_EQ(0, download(https("/image"), "ab", 20000));
    EXPECT_EQ("bytes=20000-", cloud.last().header("Range"));
    EXPECT_EQ(20000, g_progress_offset);
    EXPECT_EQ(r.body, slurp(kPath));
}

TEST_F(Download, FollowsARedirect)
{
    Reply moved, r;
    moved.redirect_to = https("/new");
    r.body = "moved here";
    cloud.reply("GET", "/old", moved);
    cloud.reply("GET", "/new", r);
    EXPECT_EQ(0, download(https("/old"), "wb", 0));
    EXPECT_EQ("moved here", slurp(kPath));
    EXPECT_EQ("/new", cloud.last().path);
}

TEST_F(Download, MarksTheSocketWhenAsked)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0), mark = 1;
    bool permitted = setsockopt(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark) == 0;
    close(fd);
    if (!permitted)
        GTEST_SKIP() << "SO_MARK needs the network namespace";
    cloud.reply("GET", "/image", Reply{});
    EXPECT_EQ(0, download(https("/image"), "wb", 0, 100));
    EXPECT_TRUE(kxtest::log_contains("sockopt_callback(): Mark: 100\n"));
}

TEST_F(Download, RefusedArgumentsLeaveTheStreamToTheCaller)
{
    FILE *f = fopen(kPath, "wb");
    std::string url = https("/image");
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(nullptr, f, 0, to_stream, note_progress));
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(url.c_str(), nullptr, 0, to_stream, note_progress));
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(url.c_str(), f, 0, nullptr, note_progress));
    EXPECT_EQ(-1, KX_SDK_DownloadFileByCurl(url.c_str(), f, 0, to_stream, nullptr));
    EXPECT_EQ(4, kxtest::log_count("KX_SDK_DownloadFileByCurl_Mark(): invalid arg!\n", kxtest::kError));
    EXPECT_EQ(1, fputs("x", f) > 0 ? 1 : 0); /* still open */
    EXPECT_EQ(0, fclose(f));
    EXPECT_TRUE(cloud.requests().empty());
}

TEST_F(Download, ProbeGivesTheStatedLengthOrMinusOne)
{
    EXPECT_EQ(0, KX_SDK_GetDownloadFileLenth(nullptr));
    EXPECT_EQ(-1, KX_SDK_GetDownloadFileLenth("http://127.0.0.1:1/refused"));
    EXPECT_TRUE(kxtest::log_contains("Failed to call curl_easy_perform, error code is 7.\n"));
    if (!cloud.http_ready())
        GTEST_SKIP() << "port 80 needs the network namespace";
    Reply sized, chunked;
    sized.body = resource();
    chunked.body = "no length";
    chunked.chunked = true;
    cloud.reply("GET", "/sized", sized);
    cloud.reply("GET", "/chunked", chunked);
    EXPECT_EQ(50000, KX_SDK_GetDownloadFileLenth(http("/sized").c_str()));
    EXPECT_EQ("HEAD", cloud.last().method);
    EXPECT_TRUE(kxtest::log_contains("(): === getDownloadFileLenth downloadFileLenth = 50000.\n"));
    EXPECT_EQ(-1, KX_SDK_GetDownloadFileLenth(http("/chunked").c_str()));
}

TEST_F(Download, StallEndsWithTheTimeoutCode)
{
    Reply r;
    r.body = resource();
    r.stall_after = 1000;
    r.stall_ms = 75000; /* longer than the 60 s stall limit */
    cloud.reply("GET", "/stall", r);
    EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, download(https("/stall"), "wb", 0));
    EXPECT_EQ(r.body.substr(0, 1000), slurp(kPath));
    EXPECT_TRUE(kxtest::log_contains("Failed to call curl_easy_perform, error code is 28.\n"));
}

}  // namespace

// Verification of signed answers: the signed text each rule rebuilds, the
// state of the answer file afterwards, the texts handed to the caller, the
// tag readers, and the log lines that report each outcome.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_crypto.h"

namespace {

using kxtest::log_contains;
using kxtest::server_signature;

// A real answer file under /tmp, opened "w+" like the request calls open
// theirs, and filled with an answer as the transport's file sink would.
class AnswerFile {
public:
    explicit AnswerFile(const std::string &content = "")
    {
        char name[] = "/tmp/kx_verify_XXXXXX";
        int fd = mkstemp(name);
        path_ = name;
        close(fd);
        stream_ = std::fopen(path_.c_str(), "w+");
        std::fwrite(content.data(), 1, content.size(), stream_);
        std::fflush(stream_);
    }
    ~AnswerFile()
    {
        std::fclose(stream_);
        unlink(path_.c_str());
    }
    FILE *stream() const { return stream_; }
    // What is on disk now, read through a separate descriptor.
    std::string on_disk() const
    {
        std::string text;
        FILE *f = std::fopen(path_.c_str(), "rb");
        char chunk[4096];
        size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0)
            text.append(chunk, got);
        std::fclose(f);
        return text;
    }
    long size_on_disk() const
    {
        struct stat st;
        stat(path_.c_str(), &st);
        return static_cast<long>(st.st_size);
    }

private:
    std::string path_;
    FILE *stream_ = nullptr;
};

KX_SDK_DATA_BUF_S *record_of(const std::string &answer)
{
    auto *record = static_cast<KX_SDK_DATA_BUF_S *>(std::calloc(1, sizeof(KX_SDK_DATA_BUF_S)));
    std::memcpy(record->data, answer.data(), answer.size());
    record->used = static_cast<uint32_t>(answer.size());
    return record;
}

// A JSON answer whose signatureServer member carries a signature over `signed_text`,
// however the rest of the answer is written.
std::string json_with_signature_over(const std::string &head, const std::string &signed_text)
{
    return head + "\"signatureServer\":\"" + server_signature(signed_text) + "\"}";
}

const char kXmlBody[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<response><resultCode>0</resultCode><token>t-123</token></response>";
const char kJsonBody[] = "{\"resultCode\":0,\"data\":{\"token\":\"t-123\",\"expires\":7200}}";

class Verify : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(0, KX_INIT_PUBLICKEY()); }
    void SetUp() override { kxtest::clear_log(); }
};

// ---- XML -------------------------------------------------------------------

TEST_F(Verify, XmlAnswerVerifiesAndFileHoldsOnlyTheSignedText)
{
    AnswerFile file(kxtest::signed_xml(kXmlBody));
    ASSERT_EQ(0, KX_SDK_XML_VERIFY(file.stream()));
    EXPECT_EQ(kXmlBody, file.on_disk());
    EXPECT_EQ(static_cast<long>(std::strlen(kXmlBody)), file.size_on_disk());
    EXPECT_TRUE(log_contains("KX_SDK_XML_VERIFY(): SignatureServer veryfy is ok!\n"));
    EXPECT_TRUE(log_contains("s8VeryfyXML is: " + std::string(kXmlBody) + "\n"));
}

TEST_F(Verify, XmlSignatureFollowedByLineBreakIsVerifiedWithoutIt)
{
    // prefix, signature element, a line break, a further element: the server
    // signed the prefix directly followed by that element.
    const std::string prefix = "<?xml version=\"1.0\"?>\n<r><a>1</a>";
    const std::string tail = "<b>2</b></r>";
    const std::string sig = server_signature(prefix + tail);
    AnswerFile file(prefix + "<signatureServer>" + sig + "</signatureServer>\n" + tail);
    ASSERT_EQ(0, KX_SDK_XML_VERIFY(file.stream()));
    EXPECT_EQ(prefix + tail, file.on_disk());

    // A signature over the text with the line break kept does not match.
    const std::string sig_with_break = server_signature(prefix + "\n" + tail);
    AnswerFile kept(prefix + "<signatureServer>" + sig_with_break + "</signatureServer>\n" + tail);
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY(kept.stream()));
}

TEST_F(Verify, XmlFailuresLeaveTheFileInTheirDocumentedState)
{
    const std::string good = kxtest::signed_xml(kXmlBody);
    std::string tampered = good;
    tampered[tampered.find("t-123")] = 'T';
    const std::string sig = server_signature(kXmlBody);
    auto other_key = kxtest::generate_rsa(1024);

    struct Case {
        const char *name;
        std::string answer;
        const char *message;
        bool file_kept;
    } cases[] = {
        {"unsigned", kXmlBody, "Token is not available!\n", true},
        {"empty file", "", "Token is not available!\n", true},
        {"one byte changed", tampered, "SignatureServer veryfy is false!\n", false},
        {"other key", kxtest::signed_xml(kXmlBody, other_key.get()), "SignatureServer veryfy is false!\n", false},
        {"no closing tag", "<r><a>1</a><signatureServer>" + sig + "</r>", "Not find </signatureServer>!\n", false},
        {"nothing after the element", "<r><a>1</a><signatureServer>" + sig + "</signatureServer>", "Not find <!\n",
         false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        kxtest::clear_log();
        AnswerFile file(c.answer);
        EXPECT_EQ(-1, KX_SDK_XML_VERIFY(file.stream()));
        EXPECT_EQ(1, kxtest::log_count(c.message, kxtest::kError));
        EXPECT_EQ(c.file_kept ? c.answer : std::string(), file.on_disk());
    }
}

TEST_F(Verify, XmlHeapHandsOutTheSignedTextOnlyOnSuccess)
{
    KX_SDK_DATA_BUF_S *record = record_of(kxtest::signed_xml(kXmlBody));
    char *out = nullptr;
    ASSERT_EQ(0, KX_SDK_XML_VERIFY_HEAP(record, &out));
    ASSERT_NE(nullptr, out);
    EXPECT_STREQ(kXmlBody, out);
    EXPECT_EQ(0, KX_SDK_FREE(out));

    record->data[std::string(record->data).find("t-123")] = 'T';
    char sentinel = 'x';
    out = &sentinel;
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY_HEAP(record, &out));
    EXPECT_EQ(&sentinel, out);
    std::free(record);
}

// ---- JSON ------------------------------------------------------------------

TEST_F(Verify, JsonAnswerVerifiesIntoOutAndLeavesTheFile)
{
    const std::string answer = kxtest::signed_json(kJsonBody);
    AnswerFile file(answer);
    std::vector<char> out(answer.size(), '#');
    ASSERT_EQ(0, KX_SDK_JSON_VERIFY(file.stream(), out.data()));
    EXPECT_STREQ(kJsonBody, out.data());
    // n - 1 bytes copied: the rest of the signed-text buffer is its zero fill.
    EXPECT_EQ('\0', out[answer.size() - 2]);
    EXPECT_EQ('#', out[answer.size() - 1]);
    EXPECT_EQ(answer, file.on_disk());

    const std::string n = std::to_string(answer.size());
    EXPECT_TRUE(log_contains("s32ReadSize = " + n + ",  s32FileSize = " + n + " \n"));
    EXPECT_TRUE(log_contains("s32FileSize: " + n + " s32FileOffsetSeekEnd: " + n + " s32FileOffsetSeekSet :0\n"));
    EXPECT_TRUE(log_contains("reture json : [" + answer + "][0x22] [0x7d] [0x00] \n"));
    EXPECT_TRUE(log_contains("after delete signatureserver json: " + std::string(kJsonBody) + "\n"));
    EXPECT_TRUE(log_contains("KX_SDK_JSON_VERIFY(): SignatureServer veryfy is ok!\n"));
}

// Where the cut falls: the two characters before the first "signatureServer"
// are replaced by "}", whatever they are.
TEST_F(Verify, JsonSignedTextIsCutBeforeTheFirstOccurrenceOfTheKey)
{
    struct Case {
        const char *name;
        std::string answer;
        std::string signed_text; // expected cut, and whether it verifies
        bool verifies;
    } cases[] = {
        {"blank after the comma, server signed the object",
         json_with_signature_over("{\"a\":1, ", "{\"a\":1}"), "{\"a\":1,}", false},
        {"blank after the comma, server signed the cut text",
         json_with_signature_over("{\"a\":1, ", "{\"a\":1,}"), "{\"a\":1,}", true},
        {"key text inside an earlier value",
         json_with_signature_over("{\"note\":\"see signatureServer\",\"a\":1,", "{\"note\":\"se}"),
         "{\"note\":\"se}", true},
        {"key text inside an earlier value, object signed",
         kxtest::signed_json("{\"note\":\"see signatureServer\",\"a\":1}"), "{\"note\":\"se}", false},
        {"signature is the only member", json_with_signature_over("{", "}"), "}", true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        kxtest::clear_log();
        AnswerFile file(c.answer);
        std::vector<char> out(c.answer.size() + 1, '\0');
        EXPECT_EQ(c.verifies ? 0 : -1, KX_SDK_JSON_VERIFY(file.stream(), out.data()));
        EXPECT_TRUE(log_contains("after delete signatureserver json: " + c.signed_text + "\n"));
        EXPECT_EQ(c.verifies ? c.signed_text : std::string(), std::string(out.data()));
        EXPECT_EQ(c.verifies ? c.answer : std::string(), file.on_disk());
    }
}

TEST_F(Verify, JsonFailuresEmptyTheFileAndSayWhy)
{
    std::string tampered = kxtest::signed_json(kJsonBody);
    tampered[tampered.find("7200")] = '8';
    const std::string sig = server_signature(kJsonBody);

    struct Case {
        const char *name;
        std::string answer;
        const char *message;
    } cases[] = {
        {"unsigned", kJsonBody, "Not find signatureServer\n"},
        {"one byte changed", tampered, "SignatureServer veryfy is false!\n"},
        {"not well-formed", "{\"resultCode\":0,", "reture json is null \n"},
        {"empty file", "", "reture json is null \n"},
        {"key written with an escape", "{\"a\":1,\"signature\\u0053erver\":\"" + sig + "\"}",
         "Token is not available!\n"},
        {"signature is not a text", "{\"a\":1,\"signatureServer\":5}", "Not find signatureServer\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        kxtest::clear_log();
        AnswerFile file(c.answer);
        std::vector<char> out(c.answer.size() + 8, '#');
        EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(file.stream(), out.data()));
        EXPECT_EQ(1, kxtest::log_count(c.message, kxtest::kError));
        EXPECT_EQ(0L, file.size_on_disk());
        EXPECT_EQ('#', out[0]);
    }
}

TEST_F(Verify, ShortAnswersLogTheirMissingLastBytesAsZero)
{
    AnswerFile empty("");
    char out[8] = {};
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(empty.stream(), out));
    EXPECT_TRUE(log_contains("reture json : [][0x00] [0x00] [0x00] \n"));

    AnswerFile one("7");
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(one.stream(), out));
    EXPECT_TRUE(log_contains("reture json : [7][0x00] [0x37] [0x00] \n"));
}

TEST_F(Verify, JsonHeapHandsOutACallocedTextOnlyOnSuccess)
{
    KX_SDK_DATA_BUF_S *record = record_of(kxtest::signed_json(kJsonBody));
    char *out = nullptr;
    ASSERT_EQ(0, KX_SDK_JSON_VERIFY_HEAP(record, &out));
    ASSERT_NE(nullptr, out);
    EXPECT_STREQ(kJsonBody, out);
    std::free(out);
    const std::string n = std::to_string(record->used);
    EXPECT_TRUE(log_contains("KX_SDK_JSON_VERIFY_HEAP(): s32FileSize: " + n +
                             " s32FileOffsetSeekEnd: 0 s32FileOffsetSeekSet :0\n"));
    EXPECT_TRUE(log_contains("kx_sdk_common_verify.cpp:"));
    EXPECT_TRUE(log_contains(":KX_SDK_JSON_VERIFY_HEAP(): SignatureServer veryfy is ok!\n"));

    record->data[std::string(record->data).find("7200")] = '8';
    char sentinel = 'x';
    out = &sentinel;
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY_HEAP(record, &out));
    EXPECT_EQ(&sentinel, out);
    std::free(record);
}

TEST_F(Verify, HeapVerifiersReadOnlyTheRecordsCount)
{
    // The record holds more than `used` says: only the counted bytes are the answer.
    const std::string answer = kxtest::signed_json(kJsonBody);
    KX_SDK_DATA_BUF_S *record = record_of(answer + "garbage");
    record->used = static_cast<uint32_t>(answer.size());
    char *out = nullptr;
    ASSERT_EQ(0, KX_SDK_JSON_VERIFY_HEAP(record, &out));
    EXPECT_STREQ(kJsonBody, out);
    KX_SDK_FREE(out);

    // A full record carries no terminator of its own.
    std::memset(record->data, '{', sizeof(record->data));
    record->used = sizeof(record->data);
    out = nullptr;
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY_HEAP(record, &out));
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY_HEAP(record, &out));
    EXPECT_EQ(nullptr, out);
    std::free(record);
}

TEST_F(Verify, JsonVerify1CopiesTheIndentedReprintWithoutASignature)
{
    AnswerFile file("{\"a\":1,\"b\":[1,2],\"c\":{\"d\":\"x\"}}");
    char out[256];
    std::memset(out, '#', sizeof out);
    ASSERT_EQ(0, KX_SDK_JSON_VERIFY1(file.stream(), out));
    EXPECT_STREQ("{\n\t\"a\":\t1,\n\t\"b\":\t[1, 2],\n\t\"c\":\t{\n\t\t\"d\":\t\"x\"\n\t}\n}", out);
    EXPECT_EQ(0, kxtest::log_count("veryfy", kxtest::kInfo) + kxtest::log_count("veryfy", kxtest::kError));

    AnswerFile broken("{\"a\":");
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY1(broken.stream(), out));
    EXPECT_TRUE(log_contains("KX_SDK_JSON_VERIFY1(): reture json is null \n"));
    EXPECT_EQ(0L, broken.size_on_disk());
}

TEST_F(Verify, NullArgumentsAreRefused)
{
    AnswerFile file(kxtest::signed_json(kJsonBody));
    KX_SDK_DATA_BUF_S *record = record_of("{}");
    char out[64];
    char *text = nullptr;
    uint32_t len = sizeof out;
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY(nullptr));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(nullptr, out));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(file.stream(), nullptr));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY1(file.stream(), nullptr));
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY_HEAP(nullptr, &text));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY_HEAP(record, nullptr));
    EXPECT_EQ(-1, XML_GET_TAG_LENGTH(file.stream(), nullptr, &len));
    EXPECT_EQ(-1, XML_GET_TAG_CONTENT(file.stream(), "a", out, nullptr));
    EXPECT_EQ(8, kxtest::log_count("invalid arg!\n", kxtest::kError));
    // Refused before anything was read: the answer file is untouched.
    EXPECT_EQ(kxtest::signed_json(kJsonBody).size(), file.on_disk().size());
    std::free(record);
}

// ---- Tag readers -----------------------------------------------------------

TEST_F(Verify, TagContentNeedsARoomForItsTerminator)
{
    AnswerFile file("<?xml version=\"1.0\"?>\n<response>\n  <resultCode>0</resultCode>\n"
                    "  <message>accepted</message>\n  <data><inner>deep</inner></data>\n</response>");
    struct Case {
        const char *tag;
        uint32_t capacity;
        int32_t result;
        const char *content;
    } cases[] = {
        {"resultCode", 1, -1, nullptr}, {"resultCode", 2, 0, "0"},   {"message", 8, -1, nullptr},
        {"message", 9, 0, "accepted"},  {"inner", 64, -1, nullptr}, {"missing", 64, -1, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.tag) + " in " + std::to_string(c.capacity));
        char out[64];
        std::memset(out, '#', sizeof out);
        uint32_t len = c.capacity;
        EXPECT_EQ(c.result, XML_GET_TAG_CONTENT(file.stream(), c.tag, out, &len));
        if (c.content != nullptr) {
            EXPECT_STREQ(c.content, out);
            EXPECT_EQ(std::strlen(c.content), len);
        } else {
            EXPECT_EQ('#', out[0]);
            EXPECT_EQ(c.capacity, len);
        }
    }
    uint32_t len = 0;
    EXPECT_EQ(0, XML_GET_TAG_LENGTH(file.stream(), "message", &len));
    EXPECT_EQ(8u, len);
    EXPECT_EQ(0, XML_GET_TAG_LENGTH(file.stream(), "data", &len));
    EXPECT_EQ(4u, len);  // the element's whole text content
    EXPECT_EQ(-1, XML_GET_TAG_LENGTH(file.stream(), "inner", &len));
}

TEST_F(Verify, TagReadersTakeTheDocumentAsGb2312)
{
    // "\xD6\xD0\xCE\xC4" is two Chinese characters in GB2312; the content
    // comes back as their six UTF-8 bytes.
    AnswerFile file("<r><name>\xD6\xD0\xCE\xC4</name></r>");
    uint32_t len = 0;
    ASSERT_EQ(0, XML_GET_TAG_LENGTH(file.stream(), "name", &len));
    EXPECT_EQ(6u, len);
    char out[16] = {};
    len = sizeof out;
    ASSERT_EQ(0, XML_GET_TAG_CONTENT(file.stream(), "name", out, &len));
    EXPECT_STREQ("\xE4\xB8\xAD\xE6\x96\x87", out);
}

TEST_F(Verify, TagReadersReportUnparsableFiles)
{
    for (const char *text : {"", "not xml at all", "<r><a>1</a>"}) {
        SCOPED_TRACE(text);
        kxtest::clear_log();
        AnswerFile file(text);
        uint32_t len = 0;
        EXPECT_EQ(-1, XML_GET_TAG_LENGTH(file.stream(), "a", &len));
        EXPECT_TRUE(log_contains("XML_GET_TAG_LENGTH(): Failed to call xmlReadFd().\n"));
    }
}

TEST_F(Verify, TagReadersSeeTheVerifiedFile)
{
    // The file as a request call leaves it after verification: parsed from
    // its start, without the signature.
    AnswerFile file(kxtest::signed_xml(kXmlBody));
    ASSERT_EQ(0, KX_SDK_XML_VERIFY(file.stream()));
    char out[16] = {};
    uint32_t len = sizeof out;
    ASSERT_EQ(0, XML_GET_TAG_CONTENT(file.stream(), "token", out, &len));
    EXPECT_STREQ("t-123", out);
    EXPECT_EQ(-1, XML_GET_TAG_LENGTH(file.stream(), "signatureServer", &len));
}

}  // namespace

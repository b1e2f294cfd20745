// Verification of signed answers: the signed text each rule rebuilds, the
// state of the answer file afterwards, the texts handed to the caller, the
// tag readers, and the log lines that report each outcome.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kx_cloud_openapi.h"
#include "suite_text.h"
#include "test_crypto.h"

namespace {

using kxtest::log_contains;
using kxtest::server_signature;

// A scratch file opened "w+", as request calls open their answer files,
// holding an answer as the transport's file sink leaves it.
struct AnswerFile : kxtest::Stream {
    explicit AnswerFile(const std::string &content)
    {
        std::fwrite(content.data(), 1, content.size(), f);
        std::fflush(f);
    }
};

// Answers written `head` + signature member (JSON) or around the signature element (XML), signed over `signed_text`.
std::string json_signed_over(const std::string &head, const std::string &signed_text)
{
    return head + "\"signatureServer\":\"" + server_signature(signed_text) + "\"}";
}
std::string xml_signed_over(const std::string &before, const std::string &after, const std::string &signed_text)
{
    return before + "<signatureServer>" + server_signature(signed_text) + "</signatureServer>" + after;
}

const std::string kXml = "<?xml version=\"1.0\"?>\n<response><resultCode>0</resultCode><token>t-123</token></response>";
const std::string kJson = "{\"resultCode\":0,\"data\":{\"token\":\"t-123\",\"expires\":7200}}";

class Verify : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(0, KX_INIT_PUBLICKEY()); }
    void SetUp() override { kxtest::clear_log(); }
};

TEST_F(Verify, XmlOutcomesAndTheFileTheyLeave)
{
    const std::string head = "<?xml version=\"1.0\"?>\n<r><a>1</a>", tail = "<b>2</b></r>";
    struct { const char *name; std::string answer; int32_t result; const char *message; std::string file_after; } cases[] = {
        {"well-formed", kxtest::signed_xml(kXml), 0, "SignatureServer veryfy is ok!\n", kXml},
        {"line break after the element is not signed", xml_signed_over(head, "\n" + tail, head + tail), 0,
         "SignatureServer veryfy is ok!\n", head + tail},
        {"line break signed", xml_signed_over(head, "\n" + tail, head + "\n" + tail), -1,
         "SignatureServer veryfy is false!\n", ""},
        {"unsigned", kXml, -1, "Token is not available!\n", kXml},
        {"no closing tag", head + "<signatureServer>abc</r>", -1, "Not find </signatureServer>!\n", ""},
        {"nothing after the element", xml_signed_over(head, "", head), -1, "Not find <!\n", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        kxtest::clear_log();
        AnswerFile file(c.answer);
        EXPECT_EQ(c.result, KX_SDK_XML_VERIFY(file.f));
        EXPECT_TRUE(log_contains("KX_SDK_XML_VERIFY(): " + std::string(c.message)));
        EXPECT_EQ(c.file_after, file.text());  // also its length: truncated, not overwritten
    }
}

TEST_F(Verify, JsonOutcomesTheCutAndTheFileTheyLeave)
{
    // signed_text: "" where no cut is made
    struct { const char *name; std::string answer; int32_t result; const char *message; std::string signed_text; } cases[] = {
        {"well-formed", kxtest::signed_json(kJson), 0, "SignatureServer veryfy is ok!\n", kJson},
        // The two characters before the key become "}", a blank among them.
        {"blank after the comma", json_signed_over("{\"a\":1, ", "{\"a\":1}"), -1,
         "SignatureServer veryfy is false!\n", "{\"a\":1,}"},
        {"blank after the comma, cut text signed", json_signed_over("{\"a\":1, ", "{\"a\":1,}"), 0,
         "SignatureServer veryfy is ok!\n", "{\"a\":1,}"},
        {"key text first inside an earlier value", json_signed_over("{\"n\":\"see signatureServer\",", "{\"n\":\"se}"),
         0, "SignatureServer veryfy is ok!\n", "{\"n\":\"se}"},
        {"signature as the only member", json_signed_over("{", "}"), 0, "SignatureServer veryfy is ok!\n", "}"},
        {"unsigned", kJson, -1, "Not find signatureServer\n", ""},
        {"signature not a text", "{\"a\":1,\"signatureServer\":5}", -1, "Not find signatureServer\n", ""},
        {"key written with an escape", "{\"a\":1,\"signature\\u0053erver\":\"" + server_signature(kJson) + "\"}", -1,
         "Token is not available!\n", ""},
        {"not well-formed", "{\"resultCode\":0,", -1, "reture json is null \n", ""},
        {"one byte", "7", -1, "Not find signatureServer\n", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        kxtest::clear_log();
        AnswerFile file(c.answer);
        std::vector<char> out(c.answer.size() + 1, '#');
        EXPECT_EQ(c.result, KX_SDK_JSON_VERIFY(file.f, out.data()));
        EXPECT_TRUE(log_contains("KX_SDK_JSON_VERIFY(): " + std::string(c.message)));
        // The read, with the last two bytes (zero before a one-byte answer) and the terminator.
        const size_t n = c.answer.size();
        EXPECT_TRUE(log_contains(kxtest::fmt("s32FileSize: %zu s32FileOffsetSeekEnd: %zu s32FileOffsetSeekSet :0\n", n, n)));
        EXPECT_TRUE(log_contains(kxtest::fmt("s32ReadSize = %zu,  s32FileSize = %zu \n", n, n)));
        EXPECT_TRUE(log_contains(kxtest::fmt("reture json : [%s][0x%02x] [0x%02x] [0x00] \n", c.answer.c_str(),
                                             n > 1 ? c.answer[n - 2] : 0, c.answer[n - 1])));
        EXPECT_TRUE(&c != &cases[0] || log_contains("buf1: {\n\t\"resultCode\":\t0,\n\t\"data\":\t{\n"));
        EXPECT_TRUE(c.signed_text.empty() || log_contains("after delete signatureserver json: " + c.signed_text + "\n"));
        // On success n - 1 bytes are copied, the signed text and its zero fill; on failure none.
        const std::string image = c.result != 0 ? std::string(out.size(), '#')
                                                : c.signed_text + std::string(c.answer.size() - 1 - c.signed_text.size(), '\0') + "##";
        EXPECT_EQ(image, std::string(out.begin(), out.end()));
        EXPECT_EQ(c.result == 0 ? c.answer : "", file.text());
    }
    // KX_SDK_JSON_VERIFY1 looks for no signature: it copies the indented reprint.
    AnswerFile file("{\"a\":1,\"b\":[1,2],\"c\":{\"d\":\"x\"}}");
    char out[128];
    ASSERT_EQ(0, KX_SDK_JSON_VERIFY1(file.f, out));
    EXPECT_STREQ("{\n\t\"a\":\t1,\n\t\"b\":\t[1, 2],\n\t\"c\":\t{\n\t\t\"d\":\t\"x\"\n\t}\n}", out);
}

TEST_F(Verify, HeapVariantsHandOutACallocedTextOnlyOnSuccess)
{
    auto record = std::make_unique<KX_SDK_DATA_BUF_S>();
    const std::string answer = kxtest::signed_json(kJson), held = answer + "trailing bytes beyond the count";
    std::memcpy(record->data, held.data(), held.size());
    record->used = static_cast<uint32_t>(answer.size());  // what lies beyond the count is not the answer's
    char *out = nullptr;
    ASSERT_EQ(0, KX_SDK_JSON_VERIFY_HEAP(record.get(), &out));
    EXPECT_EQ(kJson, out);
    EXPECT_EQ(0, KX_SDK_FREE(out));
    EXPECT_TRUE(log_contains("KX_SDK_JSON_VERIFY_HEAP(): s32FileSize: " + std::to_string(record->used) +
                             " s32FileOffsetSeekEnd: 0 s32FileOffsetSeekSet :0\n"));

    // A full record has no terminator of its own; a count beyond the data
    // area is held to the area. A failure leaves the caller's pointer alone.
    char sentinel = 'x';
    out = &sentinel;
    std::memset(record->data, '{', sizeof(record->data));
    for (uint32_t used : {102400u, 102400u + 4096u}) {
        kxtest::clear_log();
        record->used = used;
        EXPECT_EQ(-1, KX_SDK_JSON_VERIFY_HEAP(record.get(), &out));
        EXPECT_EQ(-1, KX_SDK_XML_VERIFY_HEAP(record.get(), &out));
        EXPECT_TRUE(log_contains("KX_SDK_JSON_VERIFY_HEAP(): s32FileSize: 102400 s32FileOffsetSeekEnd: 0"));
        EXPECT_TRUE(log_contains("KX_SDK_XML_VERIFY_HEAP(): KxSDK2.0 s32FileSize: 102400\n"));
    }
    EXPECT_EQ(&sentinel, out);
}

TEST_F(Verify, NullArgumentsAreRefusedBeforeTheFileIsTouched)
{
    const std::string answer = kxtest::signed_json(kJson);
    AnswerFile file(answer);
    KX_SDK_DATA_BUF_S record = {};
    char out[64], *text = nullptr;
    uint32_t len = sizeof out;
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY(nullptr));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(nullptr, out));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY(file.f, nullptr));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY1(file.f, nullptr));
    EXPECT_EQ(-1, KX_SDK_XML_VERIFY_HEAP(nullptr, &text));
    EXPECT_EQ(-1, KX_SDK_JSON_VERIFY_HEAP(&record, nullptr));
    EXPECT_EQ(-1, XML_GET_TAG_LENGTH(file.f, nullptr, &len));
    EXPECT_EQ(-1, XML_GET_TAG_CONTENT(file.f, "a", out, nullptr));
    EXPECT_EQ(8, kxtest::log_count("invalid arg!\n", kxtest::kError));
    EXPECT_EQ(answer, file.text());
}

TEST_F(Verify, TagReadersTakeDirectChildrenAndKeepRoomForTheTerminator)
{
    AnswerFile file("<?xml version=\"1.0\"?>\n<response>\n  <resultCode>0</resultCode>\n"
                    "  <message>accepted</message>\n  <data><inner>deep</inner></data>\n"
                    "  <name>\xD6\xD0\xCE\xC4</name>\n</response>");
    // content null: no such direct child
    struct { const char *tag; uint32_t capacity; int32_t result; const char *content; } cases[] = {
        {"message", 8, -1, "accepted"}, {"message", 9, 0, "accepted"}, {"data", 5, 0, "deep"},
        {"inner", 64, -1, nullptr},
        // Read as GB2312: two characters come back as their six UTF-8 bytes.
        {"name", 7, 0, "\xE4\xB8\xAD\xE6\x96\x87"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.tag) + " in " + std::to_string(c.capacity));
        char out[64];
        std::memset(out, '#', sizeof out);
        uint32_t len = c.capacity, length = 0;
        EXPECT_EQ(c.result, XML_GET_TAG_CONTENT(file.f, c.tag, out, &len));
        EXPECT_EQ(c.content ? 0 : -1, XML_GET_TAG_LENGTH(file.f, c.tag, &length));
        EXPECT_EQ(c.content ? std::strlen(c.content) : 0u, length);
        // Copied with its terminator and its length; refused: nothing written, the capacity kept.
        EXPECT_EQ(c.result == 0 ? std::string(c.content) + '\0' : "#", std::string(out, c.result == 0 ? length + 1 : 1));
        EXPECT_EQ(c.result == 0 ? length : c.capacity, len);
    }
    AnswerFile cut("<r><a>1</a>");
    uint32_t len = 0;
    EXPECT_EQ(-1, XML_GET_TAG_LENGTH(cut.f, "a", &len));
    EXPECT_TRUE(log_contains("XML_GET_TAG_LENGTH(): Failed to call xmlReadFd().\n"));
}

}  // namespace

/*
 * The exported calls as the reliability suites see them. Each family helper
 * below knows how a call of its kind is prepared and judged; a call joins with
 * one entry in calls().
 *
 * Judging rules shared by every family:
 *  - a success must carry the documented product (the verified text, the URL,
 *    the decoded bytes ...), not merely a 0;
 *  - a failure must be the call's documented failure result;
 *  - answer files that the call documents as emptied on failure must be empty
 *    or untouched (when the failure came before the file was opened), never
 *    partial.
 */
#include "calls.h"

#include <libxml/xmlerror.h>
#include <openssl/err.h>
#include <curl/curl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "alloc_interposer.h"
#include "rel_log.h"
#include "test_cloud.h"
#include "test_crypto.h"

namespace kxrel {

namespace {

/* What a stale answer file holds before a run: a failure that comes before
 * the call opens its file must leave exactly this. */
const char kStale[] = "stale answer of an earlier run";

const char kJsonObject[] = "{\"resultCode\":\"0\",\"data\":\"reliability\"}";
const char kXmlDoc[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><response><resultCode>0</resultCode>"
    "<data>reliability</data></response>";
const char kRawBody[] = "reliability answer body";

/* Device identity used by every request record: 24 characters of prefix and
 * the serial behind them. */
const char kDeviceId[] = "861003009000001000000000SERIAL0001";
const char kSerial[] = "SERIAL0001";

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

std::string stream_text(FILE *f)
{
    std::string text;
    if (f == nullptr)
        return text;
    fflush(f);
    long at = ftell(f);
    fseek(f, 0, SEEK_SET);
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0)
        text.append(chunk, n);
    clearerr(f);
    fseek(f, at, SEEK_SET);
    return text;
}

void close_stream(Run &r)
{
    if (r.stream != nullptr) {
        fclose(r.stream);
        r.stream = nullptr;
    }
}

/* A stream opened the way callers open their answer streams. */
void open_stream(Run &r, const std::string &path, const std::string &content = "")
{
    r.file = path;
    write_file(path, content);
    r.stream = fopen(path.c_str(), "w+");
    if (!content.empty()) {
        fwrite(content.data(), 1, content.size(), r.stream);
        fflush(r.stream);
        rewind(r.stream);
    }
}

bool is_failure(int64_t result) { return result == -1; }

Outcome judge_plain(Run &r, int64_t result)
{
    if (result == 0)
        return Outcome::Success;
    if (is_failure(result))
        return Outcome::Failure;
    return r.fault("result " + std::to_string(result) + " is neither 0 nor -1");
}

/* ---- account calls --------------------------------------------------------- */

/* Request calls that write their raw answer into a fixed /tmp file and copy
 * the verified JSON into the caller's buffer. */
Call json_account(const char *name, const char *path, const char *file, bool plain,
                  std::function<int32_t(Run &)> fn, bool signature_checked = true)
{
    Call c;
    c.name = std::string(name) + (plain ? "/http" : "");
    c.family = "account";
    c.path = path;
    c.answer = Answer::Json;
    c.plain = plain;
    c.signed_answer = signature_checked;
    std::string f = file;
    c.prepare = [f](Run &r) {
        r.file = f;
        write_file(f, kStale);
        r.buffer.assign(256 * 1024, '\0');
    };
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [signature_checked](Run &r, int64_t result) {
        std::string left = r.file_text();
        if (result == 0) {
            if (std::strstr(r.buffer.data(), "reliability") == nullptr)
                return r.fault("0 but the buffer lacks the answer");
            if (signature_checked && std::strstr(r.buffer.data(), "signatureServer") != nullptr)
                return r.fault("0 but the buffer still holds the signature");
            return Outcome::Success;
        }
        if (!is_failure(result))
            return r.fault("result " + std::to_string(result));
        if (!left.empty() && left != kStale)
            return r.fault("failed but left a partial answer file (" + std::to_string(left.size()) + " bytes)");
        return Outcome::Failure;
    };
    return c;
}

/* Sign-in and device serial: the signed XML answer goes into the caller's
 * stream, which verification rewrites without the signature. */
Call xml_account(const char *name, const char *path, bool plain, std::function<int32_t(Run &)> fn)
{
    Call c;
    c.name = std::string(name) + (plain ? "/http" : "");
    c.family = "account";
    c.path = path;
    c.answer = Answer::Xml;
    c.plain = plain;
    c.signed_answer = true;
    /* A stream of its own per call, so calls can run side by side. */
    std::string stream_path = "/tmp/kxrel_stream_" + std::string(name) + (plain ? "_http" : "") + ".xml";
    c.prepare = [stream_path](Run &r) { open_stream(r, stream_path); };
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [](Run &r, int64_t result) {
        std::string left = stream_text(r.stream);
        if (result == 0) {
            if (left != verified_text(Answer::Xml))
                return r.fault("0 but the stream holds \"" + left.substr(0, 80) + "\"");
            return Outcome::Success;
        }
        if (!is_failure(result))
            return r.fault("result " + std::to_string(result));
        /* Emptied, or left as it was when it carries no signature element. */
        if (!left.empty() && left.find("<signatureServer>") != std::string::npos)
            return r.fault("failed but left a signed answer in the stream");
        return Outcome::Failure;
    };
    c.release = close_stream;
    return c;
}

void add_account(std::vector<Call> &t, bool plain)
{
    t.push_back(xml_account("KX_AUTH_AUTHENTICATE", "/aaa/sign_in", plain, [](Run &r) {
        KX_AUTH_AUTHENTICATE_S rec = {r.mode(), 0, 1, kDeviceId, "appkey-rel", "app-secret-rel"};
        return KX_AUTH_AUTHENTICATE(&rec, r.domain.c_str(), &r.stream);
    }));
    t.push_back(xml_account("KX_GET_DEV_SERIAL", "/aaa/get_dev_serial", plain, [](Run &r) {
        KX_DEV_SERIAL_S rec = {r.mode(), "feature-rel", "flag-rel", "original-rel", "token-rel"};
        return KX_GET_DEV_SERIAL(&rec, r.domain.c_str(), &r.stream);
    }));
    t.push_back(json_account("KX_GET_AUTHORIZATION_INFO", "/aaa/get_authorizationinfo",
                             "/tmp/authorizationinfo.json", plain, [](Run &r) {
        KX_AUTHORIZATION_INFO_S rec = {r.mode(), 1, "client-rel", 1, "token-rel", kSerial};
        return KX_GET_AUTHORIZATION_INFO(&rec, r.domain.c_str(), r.buffer.data());
    }, false));
    t.push_back(json_account("KX_REFRESH_TOKEN", "/aaa/sign_in_refreshtoken", "/tmp/refreshtoken.json", plain,
                             [](Run &r) {
        KX_REFRESH_TOKEN_S rec = {r.mode(), "refresh-rel", "appkey-rel", "app-secret-rel", 0, kSerial, kDeviceId};
        return KX_REFRESH_TOKEN(&rec, r.domain.c_str(), r.buffer.data());
    }));
    t.push_back(json_account("KX_SIGN_OUT", "/aaa/sign_out", "/tmp/signout.json", plain, [](Run &r) {
        KX_TOKEN_DEVICE_S rec = {r.mode(), "token-rel", kSerial, kDeviceId};
        return KX_SIGN_OUT(&rec, r.domain.c_str(), r.buffer.data());
    }));
    t.push_back(json_account("KX_GET_CODE_AUTH_URL", "/voiceservice/get_codeauth_url", "/tmp/getauthurl.json", plain,
                             [](Run &r) {
        KX_CODE_AUTH_URL_S rec = {r.mode(), "stat-rel", "brand-rel", "vs-rel", 0, "appkey-rel", "app-secret-rel",
                                  "token-rel", kSerial, kDeviceId};
        return KX_GET_CODE_AUTH_URL(&rec, r.domain.c_str(), r.buffer.data());
    }));
    t.push_back(json_account("KX_SIGN_INFO_BY_CODE", "/aaa/get_signinfo_by_code", "/tmp/signinfo.json", plain,
                             [](Run &r) {
        KX_TOKEN_DEVICE_S rec = {r.mode(), "token-rel", kSerial, kDeviceId};
        return KX_SIGN_INFO_BY_CODE(&rec, r.domain.c_str(), r.buffer.data());
    }));
    t.push_back(json_account("KX_GET_CUSTOMER_INFO", "/cam/user/get_customer_info", "/tmp/customerinfo.json", plain,
                             [](Run &r) {
        KX_CUSTOMER_INFO_S rec = {r.mode(), "query-rel", "token-rel", kSerial, kDeviceId};
        return KX_GET_CUSTOMER_INFO(&rec, r.domain.c_str(), r.buffer.data());
    }, false));
    t.push_back(json_account("KX_GET_SYS_CONFIG_INFO", "/message/get_msg_configs", "/tmp/sysconfigs.json", plain,
                             [](Run &r) {
        KX_TOKEN_DEVICE_S rec = {r.mode(), "token-rel", kSerial, kDeviceId};
        return KX_GET_SYS_CONFIG_INFO(&rec, r.domain.c_str(), r.buffer.data());
    }));
    t.push_back(json_account("KX_GET_MSG_INFO", "/message/get_msg", "/tmp/sysmsginfo.json", plain, [](Run &r) {
        KX_MSG_INFO_S rec = {r.mode(), 20, 0, "list-rel", "token-rel", kSerial, kDeviceId};
        return KX_GET_MSG_INFO(&rec, r.domain.c_str(), r.buffer.data());
    }));
    t.push_back(json_account("KX_GET_MSG_CHANNEL_INFO", "/message/get_msg_channel", "/tmp/sysmsgchannel.json", plain,
                             [](Run &r) {
        KX_TOKEN_DEVICE_S rec = {r.mode(), "token-rel", kSerial, kDeviceId};
        return KX_GET_MSG_CHANNEL_INFO(&rec, r.domain.c_str(), r.buffer.data());
    }));
}

/* ---- transport members ------------------------------------------------------ */

const char kEchoPath[] = "/reliability/echo";

/* Members that write into the caller's FILE ** stream. */
Call stream_member(const char *name, bool plain, std::function<int32_t(Run &)> fn)
{
    Call c;
    c.name = name;
    c.family = "transport";
    c.path = kEchoPath;
    c.answer = Answer::Raw;
    c.plain = plain;
    std::string stream_path = "/tmp/kxrel_stream_" + std::string(name);
    c.prepare = [stream_path](Run &r) { open_stream(r, stream_path); };
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [](Run &r, int64_t result) {
        if (result == 0 && stream_text(r.stream) != kRawBody)
            return r.fault("0 but the stream holds \"" + stream_text(r.stream).substr(0, 80) + "\"");
        return judge_plain(r, result);
    };
    c.release = close_stream;
    return c;
}

/* Members that write into a KX_SDK_DATA_BUF_S record, with two caller headers. */
Call record_member(const char *name, bool plain,
                   std::function<int32_t(Run &, const KX_SDK_HTTP_HEADER_S *, int32_t)> fn)
{
    Call c;
    c.name = name;
    c.family = "transport";
    c.path = kEchoPath;
    c.answer = Answer::Raw;
    c.plain = plain;
    c.prepare = [](Run &r) {
        r.record.reset(new KX_SDK_DATA_BUF_S);
        std::memset(r.record.get(), 0, sizeof *r.record);
    };
    c.invoke = [fn](Run &r) -> int64_t {
        static const KX_SDK_HTTP_HEADER_S headers[2] = {{"X-Rel-One", "1"}, {"X-Rel-Two", "two"}};
        return fn(r, headers, 2);
    };
    c.judge = [](Run &r, int64_t result) {
        if (result == 0 && std::string(r.record->data, r.record->used) != kRawBody)
            return r.fault("0 but the record holds " + std::to_string(r.record->used) + " other bytes");
        return judge_plain(r, result);
    };
    return c;
}

size_t write_to_stream(char *data, size_t size, size_t n, void *stream)
{
    return fwrite(data, size, n, static_cast<FILE *>(stream));
}

int progress_ok(void *, double, double, double, double) { return 0; }

Call download(const char *name, std::function<int32_t(Run &)> fn)
{
    Call c;
    c.name = name;
    c.family = "transport";
    c.path = kEchoPath;
    c.answer = Answer::Raw;
    c.judges_status = false; /* the download writes whatever the server sends */
    std::string path = "/tmp/kxrel_download_" + std::string(name);
    c.prepare = [path](Run &r) { open_stream(r, path); };
    c.invoke = [fn](Run &r) -> int64_t {
        int64_t result = fn(r);
        r.stream = nullptr; /* the download closes the stream in every case */
        return result;
    };
    c.judge = [](Run &r, int64_t result) {
        if (result == 0) {
            if (read_file(r.file) != kRawBody)
                return r.fault("0 but the file holds other bytes");
            return Outcome::Success;
        }
        return Outcome::Failure; /* libcurl's code, or -1 */
    };
    return c;
}

void add_transport(std::vector<Call> &t)
{
    /* Plain members need the port-80 listener. */
    t.push_back(stream_member("KX_SDK_HTTP_POST_MARK", true, [](Run &r) {
        return KX_SDK_HTTP_POST_MARK(r.target.c_str(), "a=1&b=2", 7, &r.stream, 5);
    }));
    t.push_back(stream_member("KX_SDK_HTTP_POST", true, [](Run &r) {
        return KX_SDK_HTTP_POST(r.target.c_str(), "a=1&b=2", 7, &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTPS_POST_MARK", false, [](Run &r) {
        return KX_SDK_HTTPS_POST_MARK(r.target.c_str(), "a=1&b=2", 7, &r.stream, 5);
    }));
    t.push_back(stream_member("KX_SDK_HTTPS_POST", false, [](Run &r) {
        return KX_SDK_HTTPS_POST(r.target.c_str(), "a=1&b=2", 7, &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTP_POST_EX", true, [](Run &r) {
        return KX_SDK_HTTP_POST_EX(r.target.c_str(), "{\"a\":1}", 7, &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTP_POST_BINARY", true, [](Run &r) {
        return KX_SDK_HTTP_POST_BINARY(r.target.c_str(), "\x01\x02\x03", 3, &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTPS_POST_EX", false, [](Run &r) {
        return KX_SDK_HTTPS_POST_EX(r.target.c_str(), "{\"a\":1}", 7, &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTPS_POST_BINARY", false, [](Run &r) {
        return KX_SDK_HTTPS_POST_BINARY(r.target.c_str(), "\x01\x02\x03", 3, &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTP_GET", true, [](Run &r) {
        return KX_SDK_HTTP_GET(r.target.c_str(), &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTPS_GET", false, [](Run &r) {
        return KX_SDK_HTTPS_GET(r.target.c_str(), &r.stream);
    }));
    t.push_back(stream_member("KX_SDK_HTTPS_GET_WITH_TIMEOUT", false, [](Run &r) {
        return KX_SDK_HTTPS_GET_WITH_TIMEOUT(r.target.c_str(), &r.stream, 20);
    }));
    {
        Call c = stream_member("KX_SDK_HTTP_GET_BACK", false, [](Run &r) {
            return KX_SDK_HTTP_GET_BACK(r.target.c_str(), &r.stream);
        });
        c.sweep = false;
        c.note = "it has no total time-out, and libcurl 7.88 spins for ever when one allocation near the end of "
                 "a transfer fails (the other members give up after their 20 seconds there)";
        t.push_back(c);
    }
    t.push_back(record_member("KX_SDK_HTTP_POST_EXTERNAL_MARK", true, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTP_POST_EXTERNAL_MARK(r.target.c_str(), "x=1", 3, r.record.get(), h, n, 5);
    }));
    t.push_back(record_member("KX_SDK_HTTP_POST_EXTERNAL", true, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTP_POST_EXTERNAL(r.target.c_str(), "x=1", 3, r.record.get(), h, n);
    }));
    t.push_back(record_member("KX_SDK_HTTPS_POST_EXTERNAL_MARK", false, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTPS_POST_EXTERNAL_MARK(r.target.c_str(), "x=1", 3, r.record.get(), h, n, 5);
    }));
    t.push_back(record_member("KX_SDK_HTTPS_POST_EXTERNAL", false, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTPS_POST_EXTERNAL(r.target.c_str(), "x=1", 3, r.record.get(), h, n);
    }));
    t.push_back(record_member("KX_SDK_HTTP_GET_EXTERNAL_MARK", true, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTP_GET_EXTERNAL_MARK(r.target.c_str(), r.record.get(), h, n, 5);
    }));
    t.push_back(record_member("KX_SDK_HTTP_GET_EXTERNAL", true, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTP_GET_EXTERNAL(r.target.c_str(), r.record.get(), h, n);
    }));
    t.push_back(record_member("KX_SDK_HTTPS_GET_EXTERNAL_MARK", false, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTPS_GET_EXTERNAL_MARK(r.target.c_str(), r.record.get(), h, n, 5);
    }));
    t.push_back(record_member("KX_SDK_HTTPS_GET_EXTERNAL", false, [](Run &r, const KX_SDK_HTTP_HEADER_S *h, int32_t n) {
        return KX_SDK_HTTPS_GET_EXTERNAL(r.target.c_str(), r.record.get(), h, n);
    }));
    {
        Call c;
        c.name = "KX_SDK_HTTPS_GET_EXTERNAL_MARK1";
        c.family = "transport";
        c.path = kEchoPath;
        c.answer = Answer::Raw;
        c.prepare = [](Run &r) {
            r.large_area.assign(KX_SDK_LARGEDATA_SIZE, '\0');
            r.large.buffer = r.large_area.data();
            r.large.used = 0;
        };
        c.invoke = [](Run &r) -> int64_t {
            KX_SDK_HTTP_HEADER_S h = {"X-Rel-One", "1"};
            return KX_SDK_HTTPS_GET_EXTERNAL_MARK1(r.target.c_str(), &r.large, &h, 1, 5);
        };
        c.judge = [](Run &r, int64_t result) {
            if (result == 0 && std::string(r.large.buffer, r.large.used) != kRawBody)
                return r.fault("0 but the record holds other bytes");
            return judge_plain(r, result);
        };
        t.push_back(c);
    }
    {
        Call c;
        c.name = "KX_SDK_GetDownloadFileLenth";
        c.family = "transport";
        c.judges_status = false;
        c.path = kEchoPath;
        c.answer = Answer::Raw;
        c.plain = true;
        c.invoke = [](Run &r) -> int64_t { return KX_SDK_GetDownloadFileLenth(r.target.c_str()); };
        c.judge = [](Run &r, int64_t result) {
            if (result == static_cast<int64_t>(sizeof kRawBody - 1))
                return Outcome::Success;
            /* -1 for an unknown length or a failed transfer, 1 when no handle could be made. */
            if (result == -1 || result == 1)
                return Outcome::Failure;
            return r.fault("length " + std::to_string(result));
        };
        t.push_back(c);
    }
    t.push_back(download("KX_SDK_DownloadFileByCurl", [](Run &r) {
        return KX_SDK_DownloadFileByCurl(r.target.c_str(), r.stream, 0, write_to_stream, progress_ok);
    }));
    t.push_back(download("KX_SDK_DownloadFileByCurl_Mark", [](Run &r) {
        return KX_SDK_DownloadFileByCurl_Mark(r.target.c_str(), r.stream, 0, write_to_stream, progress_ok, 5);
    }));
}

/* ---- verification ------------------------------------------------------------ */

Call file_verifier(const char *name, Answer kind, std::function<int32_t(Run &)> fn,
                   std::function<Outcome(Run &)> success)
{
    Call c;
    c.name = name;
    c.family = "verify";
    std::string path = "/tmp/kxrel_answer_" + std::string(name);
    c.prepare = [kind, path](Run &r) {
        open_stream(r, path, good_answer(kind));
        r.buffer.assign(64 * 1024, '\0');
    };
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [success](Run &r, int64_t result) {
        if (result == 0)
            return success(r);
        if (!is_failure(result))
            return r.fault("result " + std::to_string(result));
        if (!stream_text(r.stream).empty())
            return r.fault("failed but did not empty the answer file");
        return Outcome::Failure;
    };
    c.release = close_stream;
    return c;
}

Call heap_verifier(const char *name, Answer kind, std::function<int32_t(Run &)> fn)
{
    Call c;
    c.name = name;
    c.family = "verify";
    c.prepare = [kind](Run &r) {
        std::string answer = good_answer(kind);
        r.record.reset(new KX_SDK_DATA_BUF_S);
        std::memset(r.record.get(), 0, sizeof *r.record);
        std::memcpy(r.record->data, answer.data(), answer.size());
        r.record->used = static_cast<uint32_t>(answer.size());
        r.expect = verified_text(kind);
    };
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [](Run &r, int64_t result) {
        if (result == 0) {
            if (r.out == nullptr || r.expect != r.out)
                return r.fault("0 but the handed-out text differs");
            return Outcome::Success;
        }
        if (r.out != nullptr)
            return r.fault("failed but handed out a text");
        return judge_plain(r, result);
    };
    c.release = [](Run &r) {
        free(r.out);
        r.out = nullptr;
    };
    return c;
}

void add_verify(std::vector<Call> &t)
{
    t.push_back(file_verifier("KX_SDK_XML_VERIFY", Answer::Xml, [](Run &r) { return KX_SDK_XML_VERIFY(r.stream); },
                              [](Run &r) {
                                  if (stream_text(r.stream) != verified_text(Answer::Xml))
                                      return r.fault("0 but the file was not rewritten without the signature");
                                  return Outcome::Success;
                              }));
    t.push_back(file_verifier("KX_SDK_JSON_VERIFY", Answer::Json,
                              [](Run &r) { return KX_SDK_JSON_VERIFY(r.stream, r.buffer.data()); },
                              [](Run &r) {
                                  if (verified_text(Answer::Json) != r.buffer.data())
                                      return r.fault("0 but the buffer holds \"" + std::string(r.buffer.data()).substr(0, 80) + "\"");
                                  return Outcome::Success;
                              }));
    t.push_back(file_verifier("KX_SDK_JSON_VERIFY1", Answer::Json,
                              [](Run &r) { return KX_SDK_JSON_VERIFY1(r.stream, r.buffer.data()); },
                              [](Run &r) {
                                  if (std::strstr(r.buffer.data(), "reliability") == nullptr)
                                      return r.fault("0 but the buffer lacks the answer");
                                  return Outcome::Success;
                              }));
    t.push_back(heap_verifier("KX_SDK_XML_VERIFY_HEAP", Answer::Xml,
                              [](Run &r) { return KX_SDK_XML_VERIFY_HEAP(r.record.get(), &r.out); }));
    t.push_back(heap_verifier("KX_SDK_JSON_VERIFY_HEAP", Answer::Json,
                              [](Run &r) { return KX_SDK_JSON_VERIFY_HEAP(r.record.get(), &r.out); }));
    for (int content = 0; content < 2; ++content) {
        Call c;
        c.name = content ? "XML_GET_TAG_CONTENT" : "XML_GET_TAG_LENGTH";
        c.family = "verify";
        std::string path = "/tmp/kxrel_answer_" + c.name;
        c.prepare = [path](Run &r) {
            open_stream(r, path, kXmlDoc);
            r.buffer.assign(256, '\0');
        };
        c.invoke = [content](Run &r) -> int64_t {
            r.outlen = 256;
            return content ? XML_GET_TAG_CONTENT(r.stream, "data", r.buffer.data(), &r.outlen)
                           : XML_GET_TAG_LENGTH(r.stream, "data", &r.outlen);
        };
        c.judge = [content](Run &r, int64_t result) {
            if (result == 0 && (r.outlen != 11 || (content && std::string(r.buffer.data()) != "reliability")))
                return r.fault("0 but the tag came back as " + std::to_string(r.outlen) + " bytes");
            return judge_plain(r, result);
        };
        c.release = close_stream;
        t.push_back(c);
    }
}

/* ---- security and encodings -------------------------------------------------- */

Call simple(const char *name, const char *family, std::function<int64_t(Run &)> fn,
            std::function<Outcome(Run &, int64_t)> judge = judge_plain,
            std::function<void(Run &)> release = nullptr)
{
    Call c;
    c.name = name;
    c.family = family;
    /* The caller's buffers exist before the call (so the call's own
     * allocations are the only ones counted). */
    c.prepare = [](Run &r) {
        r.buffer.assign(4096, '\0');
        r.outlen = 4096;
        r.input = "accessToken=token-rel&format=1&randStr=0123&version=7.0";
    };
    c.invoke = std::move(fn);
    c.judge = std::move(judge);
    c.release = std::move(release);
    return c;
}

/* KX_UNINIT_PUBLICKEY leaves gpKey pointing at the released key; the harness
 * clears it so that the next run reloads the key. */
void unload_key(Run &)
{
    KX_UNINIT_PUBLICKEY();
    gpKey = nullptr;
}

/* A key load that fails must leave gpKey null: a later KX_GLOBAL_DEINIT
 * releases whatever gpKey holds, and every verification reads it. */
Outcome judge_key_load(Run &r, int64_t result)
{
    if (log_contains("Init public key faild!") && gpKey != nullptr) {
        gpKey = nullptr; /* the harness's own release must not free it again */
        return r.fault("the key failed to load but gpKey still holds the released key");
    }
    if (result == 0 && gpKey == nullptr)
        return r.fault("0 but gpKey is null");
    return judge_plain(r, result);
}

std::string gz_of_text()
{
    return kxcloud::gzip_bytes(std::string(300, 'k') + kRawBody);
}

void add_security(std::vector<Call> &t)
{
    {
        Call c = simple("KX_INIT_PUBLICKEY", "security", [](Run &) -> int64_t { return KX_INIT_PUBLICKEY(); },
                        judge_key_load, unload_key);
        /* The loaded key is the process's: released before (gpKey then
         * still holds the released address, as after KX_GLOBAL_DEINIT), and
         * after the run (see run_call, which reloads it). */
        c.prepare = [](Run &) { KX_UNINIT_PUBLICKEY(); };
        t.push_back(c);
    }
    {
        Call c = simple("init_publickey", "security", [](Run &r) -> int64_t {
            RSA *key = init_publickey(r.input.c_str());
            r.out = reinterpret_cast<char *>(key);
            return key ? 0 : -1;
        }, judge_plain, [](Run &r) { destroy_key(reinterpret_cast<RSA *>(r.out)); r.out = nullptr; });
        c.prepare = [](Run &r) { r.input = read_file(kxtest::credentials_dir() + "/answer_signing_pub.pem"); };
        t.push_back(c);
    }
    {
        Call c = simple("init_privatekey", "security", [](Run &r) -> int64_t {
            RSA *key = init_privatekey(r.input.c_str());
            r.out = reinterpret_cast<char *>(key);
            return key ? 0 : -1;
        }, judge_plain, [](Run &r) { destroy_key(reinterpret_cast<RSA *>(r.out)); r.out = nullptr; });
        c.prepare = [](Run &r) { r.input = kxtest::credentials_dir() + "/answer_signing.pem"; };
        /* OpenSSL 3's private-key decoder leaves a few of its own blocks behind
         * when one of its allocations fails part-way (their call chains end in
         * libcrypto's unnamed internals); the call's own objects are released. */
        c.documented_leak = [](Run &) { return true; };
        t.push_back(c);
    }
    t.push_back(simple("signsize", "security", [](Run &) -> int64_t { return signsize(gpKey); },
                       [](Run &r, int64_t result) {
                           return result > 0 ? Outcome::Success : r.fault("signsize " + std::to_string(result));
                       }));
    {
        Call c = simple("kxtvsign", "security", [](Run &r) -> int64_t {
            return kxtvsign(r.input.data(), static_cast<uint32_t>(r.input.size()), r.buffer.data(), 512, gpKey);
        }, [](Run &r, int64_t result) {
            std::string sign = r.buffer.data();
            std::string encoded;
            for (char ch : sign)
                encoded += ch == '+' ? "%2B" : ch == '/' ? "%2F" : ch == '=' ? "%3D" : std::string(1, ch);
            if (result == 0 && kxtest::open_request_signature(encoded) != kxtest::md5_raw(r.input))
                return r.fault("0 but the signature does not open to the MD5 of the text");
            return judge_plain(r, result);
        });
        t.push_back(c);
    }
    t.push_back(simple("kxtvsign_soundbar", "security", [](Run &r) -> int64_t {
        return kxtvsign_soundbar("a=1&sign=xyz", 13, r.buffer.data(), 64);
    }, [](Run &r, int64_t result) {
        if (result == 0 && std::strlen(r.buffer.data()) != 24)
            return r.fault("0 but the digest is not 24 characters");
        return judge_plain(r, result);
    }));
    {
        Call c = simple("kxtvverify", "security", [](Run &r) -> int64_t {
            return kxtvverify(r.input.data(), static_cast<uint32_t>(r.input.size()), r.expect.c_str(),
                              static_cast<uint32_t>(r.expect.size()), gpKey);
        });
        c.prepare = [](Run &r) {
            r.input = "<response><data>reliability</data></response>";
            r.expect = kxtest::server_signature(r.input);
        };
        t.push_back(c);
    }
    t.push_back(simple("kx_base64_decode", "security", [](Run &r) -> int64_t {
        return kx_base64_decode("cmVsaWFiaWxpdHk=", r.buffer.data());
    }, [](Run &r, int64_t result) {
        if (result == 11 && std::string(r.buffer.data(), 11) == "reliability")
            return Outcome::Success;
        return result == -1 ? Outcome::Failure : r.fault("decoded " + std::to_string(result));
    }));
    t.push_back(simple("KX_SDK_SIGN_CREATE", "security", [](Run &r) -> int64_t {
        return static_cast<int32_t>(KX_SDK_SIGN_CREATE("format=1&randStr=0123&version=7.0", r.buffer.data()));
    }, [](Run &r, int64_t result) {
        if (result == 0 && kxtest::open_request_signature(r.buffer.data()) !=
                               kxtest::md5_raw("format=1&randStr=0123&version=7.0"))
            return r.fault("0 but the signature does not open to the MD5 of the text");
        return judge_plain(r, result);
    }));
    t.push_back(simple("KX_SDK_SIGN_CREATE_SOUNDBAR", "security", [](Run &r) -> int64_t {
        return static_cast<int32_t>(KX_SDK_SIGN_CREATE_SOUNDBAR("a=1&sign=xyz", r.buffer.data()));
    }, [](Run &r, int64_t result) {
        if (result == 0 && std::strlen(r.buffer.data()) != 24)
            return r.fault("0 but the digest is not 24 characters");
        return judge_plain(r, result);
    }));
    t.push_back(simple("KX_SDK_AES_ENCRYPT", "security", [](Run &r) -> int64_t {
        return KX_SDK_AES_ENCRYPT("sixteen byte txt", 16, &r.uout, &r.outlen);
    }, [](Run &r, int64_t result) {
        if (result == 0 && (r.uout == nullptr || r.outlen != 32))
            return r.fault("0 but no 32-byte cipher text");
        if (result == -1 && r.uout != nullptr)
            return r.fault("-1 but a cipher text was handed out");
        return judge_plain(r, result);
    }, [](Run &r) { free(r.uout); r.uout = nullptr; }));
    t.push_back(simple("KX_SDK_GZCOMPRESS", "security", [](Run &r) -> int64_t {
        static const std::string text = std::string(300, 'k') + kRawBody;
        return KX_SDK_GZCOMPRESS(text.data(), static_cast<uint32_t>(text.size()), r.buffer.data(), &r.outlen);
    }, [](Run &r, int64_t result) {
        if (result == 0) {
            if (r.outlen < 18 || static_cast<unsigned char>(r.buffer[0]) != 0x1F)
                return r.fault("0 but no gzip stream");
            return Outcome::Success;
        }
        return judge_plain(r, result);
    }));
    t.push_back(simple("KX_SDK_GZDECOMPRESS", "security", [](Run &r) -> int64_t {
        static const std::string gz = gz_of_text();
        return KX_SDK_GZDECOMPRESS(gz.data(), static_cast<uint32_t>(gz.size()), r.buffer.data(), &r.outlen);
    }, [](Run &r, int64_t result) {
        if (result == 0) {
            if (std::string(r.buffer.data(), r.outlen) != std::string(300, 'k') + kRawBody)
                return r.fault("0 but the text differs");
            return Outcome::Success;
        }
        /* zlib's own negative codes (Z_MEM_ERROR above all). */
        return result < 0 ? Outcome::Failure : r.fault("result " + std::to_string(result));
    }));
}

/* ---- frame: initialisation, domain, URL, lists ------------------------------ */

void add_frame(std::vector<Call> &t)
{
    {
        Call c = simple("KX_GLOBAL_INIT", "frame", [](Run &r) -> int64_t { return KX_GLOBAL_INIT(r.input.c_str()); },
                        [](Run &r, int64_t result) {
                            if (result == 0 && bGlobalInited != 1)
                                return r.fault("0 but not initialised");
                            if (result == -1 && bGlobalInited != 0)
                                return r.fault("-1 but initialised");
                            if (log_contains("Init public key faild!") && gpKey != nullptr) {
                                gpKey = nullptr;
                                return r.fault("the key failed to load but gpKey still holds the released key");
                            }
                            return judge_plain(r, result);
                        },
                        [](Run &) { KX_GLOBAL_DEINIT(); });
        c.prepare = [](Run &r) {
            KX_GLOBAL_DEINIT();
            r.input = "127.0.0.1";
        };
        t.push_back(c);
    }
    {
        Call c = simple("KX_GLOBAL_DEINIT", "frame", [](Run &) -> int64_t { return KX_GLOBAL_DEINIT(); },
                        [](Run &r, int64_t result) {
                            if (bGlobalInited != 0)
                                return r.fault("still initialised");
                            return judge_plain(r, result);
                        });
        t.push_back(c);
    }
    t.push_back(simple("KX_SDK_SET_DOMAIN", "frame", [](Run &) -> int64_t { return KX_SDK_SET_DOMAIN("127.0.0.1"); }));
    t.push_back(simple("KX_SDK_GET_DOMAIN", "frame", [](Run &) -> int64_t {
        return std::strcmp(KX_SDK_GET_DOMAIN(), "127.0.0.1") == 0 ? 0 : -1;
    }, [](Run &r, int64_t result) { return result == 0 ? Outcome::Success : r.fault("domain changed"); }));
    t.push_back(simple("KX_SDK_CREATE_URL", "frame", [](Run &r) -> int64_t {
        return KX_SDK_CREATE_URL("http://", "127.0.0.1", "/aaa/sign_in", &r.out);
    }, [](Run &r, int64_t result) {
        if (result == 0 && (r.out == nullptr || std::string(r.out) != "http://127.0.0.1:80/aaa/sign_in"))
            return r.fault("0 but the URL is wrong");
        if (result == -1 && r.out != nullptr)
            return r.fault("-1 but a URL was handed out");
        return judge_plain(r, result);
    }, [](Run &r) { free(r.out); r.out = nullptr; }));
    {
        /* The list calls as one sequence, the way a caller uses them. */
        Call c = simple("KX_SDK_ADDNODE", "frame", [](Run &r) -> int64_t {
            KX_SDK_INIT_LINKEDLIST(&r.list);
            for (int i = 0; i < 3; ++i) {
                char *item = static_cast<char *>(calloc(8, 1));
                if (item == nullptr)
                    return -1;
                std::strcpy(item, "item");
                KX_SDK_ADDNODE(&r.list, item);
            }
            KX_PRINTF_LINKLIST(&r.list);
            return KX_SDK_FREE_LINKLIST(&r.list);
        });
        c.sweep = false;
        c.note = "the node allocation of KX_SDK_ADDNODE is documented as unchecked";
        t.push_back(c);
    }
    {
        Call c = simple("KX_SDK_FIND_ALL_TIDS", "frame", [](Run &r) -> int64_t {
            r.plist = KX_SDK_FIND_ALL_TIDS(static_cast<uint32_t>(getpid()));
            return r.plist ? 0 : -1;
        }, judge_plain, [](Run &r) {
            if (r.plist != nullptr) {
                KX_SDK_FREE_LINKLIST(r.plist);
                KX_SDK_FREE(r.plist);
                r.plist = nullptr;
            }
        });
        t.push_back(c);
    }
    {
        Call c = simple("KX_SDK_FREE", "frame", [](Run &r) -> int64_t {
            int32_t result = KX_SDK_FREE(r.out);
            r.out = nullptr;
            return result;
        }, [](Run &r, int64_t result) { return result == 0 ? Outcome::Success : r.fault("not freed"); });
        c.prepare = [](Run &r) { r.out = static_cast<char *>(calloc(1, 16)); };
        t.push_back(c);
    }
}


/* ---- routines that allocate nothing: in the table so that every exported
 * call runs under valgrind and the sanitizers, with its product checked ---- */

Outcome expect_text(Run &r, const std::string &text)
{
    if (std::string(r.buffer.data()) != text)
        return r.fault("wrote \"" + std::string(r.buffer.data()).substr(0, 80) + "\", not \"" + text + "\"");
    return Outcome::Success;
}

void add_plain_routines(std::vector<Call> &t)
{
    t.push_back(simple("kx_base64_encode", "security", [](Run &r) -> int64_t {
        kx_base64_encode("reliability", r.buffer.data(), 11);
        return 0;
    }, [](Run &r, int64_t) { return expect_text(r, "cmVsaWFiaWxpdHk="); }));
    t.push_back(simple("ChangeToByte", "security", [](Run &r) -> int64_t {
        return ChangeToByte("0A1BFF", r.buffer.data());
    }, [](Run &r, int64_t result) {
        return result == 3 && std::memcmp(r.buffer.data(), "\x0A\x1B\xFF", 3) == 0 ? Outcome::Success
                                                                                   : r.fault("wrong bytes");
    }));
    t.push_back(simple("KX_CREATE_RAND_STRING", "security", [](Run &r) -> int64_t {
        KX_CREATE_RAND_STRING(reinterpret_cast<unsigned char *>(r.buffer.data()), 32);
        return 0;
    }, [](Run &r, int64_t) {
        std::string s = r.buffer.data();
        return s.size() == 32 && s.find_first_not_of("0123456789") == std::string::npos ? Outcome::Success
                                                                                        : r.fault("not 32 digits");
    }));
    t.push_back(simple("KX_SDK_ENCRYPT_TO_STRING", "security", [](Run &r) -> int64_t {
        KX_SDK_ENCRYPT_TO_STRING("\x00\xff", 2, r.buffer.data());
        return 0;
    }, [](Run &r, int64_t) { return expect_text(r, "00FF"); }));
    t.push_back(simple("KX_SDK_ENCRYPT_TO_HEXSTRING", "security", [](Run &r) -> int64_t {
        KX_SDK_ENCRYPT_TO_HEXSTRING("\x12\xab", 2, r.buffer.data());
        return 0;
    }, [](Run &r, int64_t) { return expect_text(r, "12AB"); }));
    t.push_back(simple("KX_SDK_HEXSTRING_TO_ENCRYPT", "security", [](Run &r) -> int64_t {
        KX_SDK_HEXSTRING_TO_ENCRYPT("ABC", r.buffer.data());
        return 0;
    }, [](Run &r, int64_t) {
        return r.buffer[0] == '\xAB' && r.buffer[1] == 0 ? Outcome::Success : r.fault("wrong bytes");
    }));
    t.push_back(simple("KX_SDK_URLEncode", "security", [](Run &r) -> int64_t {
        return KX_SDK_URLEncode("a b~", 4, r.buffer.data(), 64);
    }, [](Run &r, int64_t result) { return result == 6 ? expect_text(r, "a+b%7E") : r.fault("length"); }));
    {
        /* Round trip through pair A: a padded block out and back. */
        Call c = simple("KX_SDK_AES_ENCRYPTION", "security", [](Run &r) -> int64_t {
            return KX_SDK_AES_ENCRYPTION("fifteen chars!!\x01", r.buffer.data(), 16);
        }, [](Run &r, int64_t result) {
            uint32_t n = 0;
            char plain[32] = {0};
            if (result == 0 && (KX_SDK_AES_DECRYPT(r.buffer.data(), 16, plain, &n) != 0 || n != 15 ||
                                std::string(plain) != "fifteen chars!!"))
                return r.fault("the cipher text does not decrypt back");
            return judge_plain(r, result);
        });
        t.push_back(c);
    }
    t.push_back(simple("KX_SDK_AES_DECRYPT", "security", [](Run &r) -> int64_t {
        char cipher[16];
        KX_SDK_AES_ENCRYPTION("abc\x0d\x0d\x0d\x0d\x0d\x0d\x0d\x0d\x0d\x0d\x0d\x0d\x0d", cipher, 16);
        return KX_SDK_AES_DECRYPT(cipher, 16, r.buffer.data(), &r.outlen);
    }, [](Run &r, int64_t result) {
        if (result == 0 && (r.outlen != 3 || std::string(r.buffer.data()) != "abc"))
            return r.fault("wrong plain text");
        return judge_plain(r, result);
    }));
    t.push_back(simple("KX_SDK_JUDGE_XML_FORM", "transport", [](Run &) -> int64_t {
        return KX_SDK_JUDGE_XML_FORM(" \n<?xml version=\"1.0\"?><a/>") == 1 && KX_SDK_JUDGE_XML_FORM("<?xmL?>") == 0 &&
                       KX_SDK_JUDGE_XML_FORM(nullptr) == 0
                   ? 0
                   : -1;
    }, [](Run &r, int64_t result) { return result == 0 ? Outcome::Success : r.fault("misjudged"); }));
    {
        Call c = simple("WRITE_DATA", "transport", [](Run &r) -> int64_t {
            char chunk[] = "chunk";
            return static_cast<int64_t>(WRITE_DATA(chunk, 1, 5, &r.stream));
        }, [](Run &r, int64_t result) {
            return result == 5 && stream_text(r.stream) == "earlier chunk" ? Outcome::Success : r.fault("not appended");
        }, close_stream);
        c.prepare = [](Run &r) { open_stream(r, "/tmp/kxrel_stream_WRITE_DATA", "earlier "); };
        t.push_back(c);
    }
    {
        /* The inline record's bound is inclusive: two bytes fill it, a third is refused whole. */
        Call c = simple("WRITE_DATA1", "transport", [](Run &r) -> int64_t {
            char chunk[] = "abc";
            size_t fits = WRITE_DATA1(chunk, 1, 2, r.record.get());
            size_t over = WRITE_DATA1(chunk, 1, 1, r.record.get());
            return fits == 2 && over == 0 ? 0 : -1;
        }, [](Run &r, int64_t result) {
            if (result != 0 || r.record->used != KX_SDK_DATA_BUF_SIZE ||
                std::memcmp(r.record->data + KX_SDK_DATA_BUF_SIZE - 2, "ab", 2) != 0)
                return r.fault("the record's bound is not exact");
            return Outcome::Success;
        });
        c.prepare = [](Run &r) {
            r.record.reset(new KX_SDK_DATA_BUF_S);
            std::memset(r.record.get(), 0, sizeof *r.record);
            r.record->used = KX_SDK_DATA_BUF_SIZE - 2;
        };
        t.push_back(c);
    }
    {
        Call c = simple("WRITE_LARGEDATA", "transport", [](Run &r) -> int64_t {
            char chunk[] = "abcdefgh";
            size_t fits = WRITE_LARGEDATA(chunk, 1, 2, &r.large);
            size_t over = WRITE_LARGEDATA(chunk, 1, 3, &r.large);
            return fits == 2 && over == 0 ? 0 : -1;
        }, [](Run &r, int64_t result) {
            if (result != 0 || r.large.used != KX_SDK_LARGEDATA_SIZE)
                return r.fault("the large record's bound is not exact");
            if (!log_contains("OOM: size=[1] totalsize=[3] offset=[204800]"))
                return r.fault("the refusal was not logged");
            return Outcome::Success;
        });
        c.prepare = [](Run &r) {
            r.large_area.assign(KX_SDK_LARGEDATA_SIZE, '\0');
            r.large.buffer = r.large_area.data();
            r.large.used = KX_SDK_LARGEDATA_SIZE - 2;
        };
        t.push_back(c);
    }
    {
        Call c = simple("sockopt_callback", "transport", [](Run &r) -> int64_t {
            int mark = 5;
            return sockopt_callback(&mark, static_cast<curl_socket_t>(r.outlen), CURLSOCKTYPE_IPCXN);
        }, [](Run &r, int64_t result) {
            /* Setting a mark needs the network-administration privilege. */
            int64_t expected = geteuid() == 0 ? 0 : 1;
            return result == expected ? Outcome::Success : r.fault("result " + std::to_string(result));
        }, [](Run &r) { close(static_cast<int>(r.outlen)); });
        c.prepare = [](Run &r) { r.outlen = static_cast<uint32_t>(socket(AF_INET, SOCK_STREAM, 0)); };
        t.push_back(c);
    }
    {
        Call c = simple("KX_SDK_CURL_SLIST_FREE", "transport", [](Run &r) -> int64_t {
            return KX_SDK_CURL_SLIST_FREE(reinterpret_cast<curl_slist *>(r.out)) == 0 && KX_SDK_CURL_SLIST_FREE(nullptr) == -1
                       ? 0
                       : -1;
        });
        c.prepare = [](Run &r) { r.out = reinterpret_cast<char *>(curl_slist_append(nullptr, "X-Rel: 1")); };
        t.push_back(c);
    }
    {
        Call c = simple("KX_SDK_CURL_EASY_CLEANUP", "transport", [](Run &r) -> int64_t {
            return KX_SDK_CURL_EASY_CLEANUP(reinterpret_cast<CURL *>(r.out)) == 0 && KX_SDK_CURL_EASY_CLEANUP(nullptr) == -1
                       ? 0
                       : -1;
        });
        c.prepare = [](Run &r) { r.out = reinterpret_cast<char *>(curl_easy_init()); };
        t.push_back(c);
    }
    {
        Call c = simple("destroy_key", "security", [](Run &r) -> int64_t {
            return destroy_key(reinterpret_cast<RSA *>(r.out));
        });
        c.prepare = [](Run &r) {
            std::string pem = read_file(kxtest::credentials_dir() + "/answer_signing_pub.pem");
            r.out = reinterpret_cast<char *>(init_publickey(pem.c_str()));
        };
        t.push_back(c);
    }
    {
        Call c = simple("KX_UNINIT_PUBLICKEY", "security", [](Run &) -> int64_t { return KX_UNINIT_PUBLICKEY(); },
                        judge_plain, [](Run &) { gpKey = nullptr; /* reloaded by run_call */ });
        c.prepare = nullptr;
        t.push_back(c);
    }
    /* The list routines one by one, on a list built before the call. */
    {
        Call c = simple("KX_SDK_INIT_LINKEDLIST", "frame", [](Run &r) -> int64_t {
            r.list.first = reinterpret_cast<KX_SDK_LIST_NODE_S *>(&r);
            r.list.count = 7;
            KX_SDK_INIT_LINKEDLIST(&r.list);
            return r.list.first == nullptr && r.list.last == nullptr && r.list.count == 0 ? 0 : -1;
        });
        t.push_back(c);
    }
    for (int printing = 0; printing < 2; ++printing) {
        Call c = simple(printing ? "KX_PRINTF_LINKLIST" : "KX_SDK_FREE_LINKLIST", "frame", [printing](Run &r) -> int64_t {
            return printing ? KX_PRINTF_LINKLIST(&r.list) : KX_SDK_FREE_LINKLIST(&r.list);
        }, [printing](Run &r, int64_t result) {
            if (printing && log_count("second item") != 1)
                return r.fault("the items were not logged");
            return judge_plain(r, result);
        }, [printing](Run &r) {
            if (printing)
                KX_SDK_FREE_LINKLIST(&r.list);
        });
        c.prepare = [](Run &r) {
            KX_SDK_INIT_LINKEDLIST(&r.list);
            KX_SDK_ADDNODE(&r.list, strdup("first item"));
            KX_SDK_ADDNODE(&r.list, strdup("second item"));
        };
        t.push_back(c);
    }
}

/* ---- voice calls --------------------------------------------------------- */

void add_voice(std::vector<Call> &t, bool plain)
{
    (void)t;
    (void)plain;
}

/* ---- log service, upgrade-event report ------------------------------------- */

void add_log(std::vector<Call> &t)
{
    (void)t;
}

/* ---- upgrade checks and advertising ----------------------------------------- */

void add_upgrade_ad(std::vector<Call> &t)
{
    (void)t;
}

/* ---- push channel ------------------------------------------------------------ */

void add_push(std::vector<Call> &t)
{
    (void)t;
}

/* ---- signed external fetch ---------------------------------------------------- */

void add_external(std::vector<Call> &t)
{
    (void)t;
}

std::vector<Call> build_table()
{
    std::vector<Call> t;
    add_frame(t);
    add_security(t);
    add_verify(t);
    add_transport(t);
    add_plain_routines(t);
    add_account(t, false);
    add_account(t, true);
    add_voice(t, false);
    add_voice(t, true);
    add_log(t);
    add_upgrade_ad(t);
    add_push(t);
    add_external(t);
    return t;
}

}  // namespace

const char *outcome_name(Outcome o)
{
    switch (o) {
    case Outcome::Success: return "success";
    case Outcome::Failure: return "failure";
    default: return "FAULT";
    }
}

std::string Run::file_text() const { return read_file(file); }

const std::vector<Call> &calls()
{
    static const std::vector<Call> table = build_table();
    return table;
}

const Call *find_call(const std::string &name)
{
    for (const auto &c : calls())
        if (c.name == name)
            return &c;
    return nullptr;
}

std::string good_answer(Answer kind)
{
    switch (kind) {
    case Answer::Json: {
        static const std::string s = kxtest::signed_json(kJsonObject);
        return s;
    }
    case Answer::Xml: {
        static const std::string s = kxtest::signed_xml(kXmlDoc);
        return s;
    }
    case Answer::Raw: return kRawBody;
    default: return "";
    }
}

std::string verified_text(Answer kind)
{
    switch (kind) {
    case Answer::Json: return kJsonObject;
    case Answer::Xml: return kXmlDoc;
    case Answer::Raw: return kRawBody;
    default: return "";
    }
}

kxcloud::Cloud &cloud() { return kxcloud::Cloud::shared(); }

void ensure_initialised()
{
    pthread_mutex_lock(&sGlobalInitMutex);
    bool inited = bGlobalInited != 0;
    pthread_mutex_unlock(&sGlobalInitMutex);
    if (!inited)
        KX_GLOBAL_INIT("127.0.0.1");
    if (gpKey == nullptr)
        KX_INIT_PUBLICKEY();
}

void route_good(const Call &call)
{
    if (call.path.empty())
        return;
    kxcloud::Reply reply;
    reply.body = good_answer(call.answer);
    if (call.answer == Answer::Json)
        reply.content_type = "application/json";
    else if (call.answer == Answer::Xml)
        reply.content_type = "text/xml";
    cloud().reply("*", call.path, reply);
}

/* A TLS session with the cloud in the library's share. */
static void prime_session()
{
    const char path[] = "/reliability/prime";
    cloud().reply("GET", path, kxcloud::Reply{200, "primed"});
    std::unique_ptr<KX_SDK_DATA_BUF_S> record(new KX_SDK_DATA_BUF_S());
    KX_SDK_HTTPS_GET_EXTERNAL(("https://" + cloud().https_domain() + path).c_str(), record.get(), nullptr, 0);
}

RunReport run_call(const Call &call, long fail_at, bool reroute, const std::function<void(Run &)> &tweak)
{
    RunReport report;
    ensure_initialised();
    if (reroute)
        route_good(call);
    Run r;
    r.cloud = &cloud();
    r.plain = call.plain;
    r.domain = call.plain ? cloud().http_domain() : cloud().https_domain();
    r.base = call.plain ? "http://" + cloud().http_domain() + ":80" : "https://" + cloud().https_domain();
    r.target = r.url(call.path);
    if (call.prepare)
        call.prepare(r);
    if (tweak)
        tweak(r);
    bool armed = fail_at >= 0 && interposer_active();
    /* A counted run starts from a fresh share (see below); a TLS call finds a
     * session there, as every call after a process's first one does. */
    if (armed && !call.path.empty() && !call.plain)
        prime_session();
    log_clear();

    if (armed)
        arm(fail_at);
    report.result = call.invoke(r);
    if (armed) {
        report.failure_delivered = failure_delivered();
        report.failures_deferred = failures_deferred();
        set_fail_at(0);
    }
    /* The judge looks before release closes the stream or frees the output;
     * its own allocations must not count. */
    {
        Paused paused;
        report.outcome = call.judge ? call.judge(r, report.result) : judge_plain(r, report.result);
        report.why = r.why;
        report.documented_leak = call.documented_leak && call.documented_leak(r);
        if (r.record)
            report.record_used = r.record->used;
        else if (r.large.buffer != nullptr)
            report.record_used = r.large.used;
    }
    if (call.release)
        call.release(r);
    /* Entries that libcurl, OpenSSL or the call left in this thread's
     * OpenSSL error queue hold copies of their source names until the slot
     * is reused: clear the queue before counting (its slots' text buffers
     * are per-thread state, set aside by the interposer). libxml2 likewise
     * keeps a copy of the thread's last error until the next one. */
    ERR_clear_error();
    xmlResetLastError();
    if (armed) {
        report.allocations = disarm();
        /* TLS sessions and DNS answers that a network call left in the
         * library's share are the process's, kept for the next call, not the
         * call's leak: they go with the share (freed blocks are untracked
         * whether armed or not), and the share is made anew below. */
        if (!call.path.empty())
            KX_GLOBAL_DEINIT();
        report.live_blocks = live_blocks();
        report.live_bytes = live_bytes();
        report.library_blocks = report.live_blocks > 0 ? library_blocks() : 0;
        if (report.live_blocks > 0) {
            char *text = nullptr;
            size_t size = 0;
            if (FILE *mem = open_memstream(&text, &size)) {
                describe_live(mem);
                fclose(mem);
                report.live_detail = text;
                free(text);
            }
        }
    }
    close_stream(r);
    /* Restore process state that some calls take down on purpose. */
    ensure_initialised();
    return report;
}

}  // namespace kxrel

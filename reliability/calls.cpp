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

#include <cjson/cJSON.h>
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
#include "log_services.h"
#include "test_cloud.h"
#include "test_crypto.h"
#include "wss_server.h"

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

/* Voice calls answer like the account calls that fill a buffer: the raw
 * answer in their fixed file, the verified JSON in the caller's buffer. */
template <typename R>
struct VoiceEntry {
    const char *name, *path, *file;
    int32_t (*fn)(const R *, const char *, char *);
};

/* The calls of one record type, each made from the same record (every
 * optional value present, free texts that need encoding). */
template <typename R>
void add_voice_calls(std::vector<Call> &t, bool plain, R (*record)(uint32_t mode),
                     std::initializer_list<VoiceEntry<R>> entries)
{
    for (const VoiceEntry<R> &e : entries) {
        auto fn = e.fn;
        Call c = json_account(e.name, e.path, e.file, plain, [fn, record](Run &r) {
            const R rec = record(r.mode());
            return fn(&rec, r.domain.c_str(), r.buffer.data());
        });
        c.family = "voice";
        t.push_back(c);
    }
}

void add_voice(std::vector<Call> &t, bool plain)
{
    add_voice_calls<KX_VOICE_DEVICES_INFO_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_DEVICES_INFO_S{m, "Living Room & Kitchen", "1", "0", "appkey-rel", "mac-rel",
                                       "[\"app-rel\"]", "[{\"id\":\"HDMI 1\"}]", "stat-rel", "brand-rel", "cap-rel",
                                       "feat-rel", "ext-rel", "hsv-rel", "serial-rel", "client-rel", "product-rel",
                                       "alexa", "token-rel", "7.0", 1, 1};
    }, {
        {"KX_REPLACE_VOICE_DEV_INFO", "/voiceservice/replacedevinfo", "/tmp/replacedevinfo.json",
         KX_REPLACE_VOICE_DEV_INFO},
        {"KX_REPORT_VOICE_DEVICES_INFO", "/voiceservice/reportdeviceinfo", "/tmp/reportdeviceinfo.json",
         KX_REPORT_VOICE_DEVICES_INFO},
        {"KX_GET_VOICE_DEVICES_INFO", "/voiceservice/getdeviceinfo", "/tmp/getdeviceinfo.json",
         KX_GET_VOICE_DEVICES_INFO},
    });
    add_voice_calls<KX_VOICE_DEV_INFO_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_DEV_INFO_S{m, "Living Room & Kitchen", "1", "0", "appkey-rel", "mac-rel", "[\"app-rel\"]",
                                   "stat-rel", "brand-rel", "cap-rel", "feat-rel", "ext-rel", nullptr, "alexa",
                                   "token-rel", "7.0", 1, 1};
    }, {
        {"KX_PUSH_VOICE_DEV_INFO", "/voiceservice/reportdevinfo", "/tmp/pushdevinfo.json", KX_PUSH_VOICE_DEV_INFO},
        {"KX_GET_VOICE_DEV_INFO", "/voiceservice/getdevinfo", "/tmp/getdevinfo.json", KX_GET_VOICE_DEV_INFO},
        {"KX_DELETE_VOICE_DEV_INFO", "/voiceservice/deletedevinfo", "/tmp/deletedevinfo.json",
         KX_DELETE_VOICE_DEV_INFO},
    });
    add_voice_calls<KX_VOICE_CFG_INFO_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_CFG_INFO_S{m, "appkey-rel", "stat-rel", "brand-rel", "alexa", nullptr, "token-rel", "7.0", 1, 1};
    }, {
        {"KX_GET_VOICE_CFG_INFO", "/voiceservice/get_deviceportal_url", "/tmp/getconfig.json", KX_GET_VOICE_CFG_INFO},
    });
    /* Enable and reset share their answer file; the table runs them one after the other. */
    add_voice_calls<KX_VOICE_SKILL_INFO_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_SKILL_INFO_S{m, "lwa-rel", "stat-rel", "brand-rel", "ext-rel", "appkey-rel", "hsv-rel",
                                     "feat-rel", "cap-rel", "token-rel", "7.0", 1, 1};
    }, {
        {"KX_ENABLE_VOICE_SKILL", "/voiceservice/enableskill", "/tmp/getSkill.json", KX_ENABLE_VOICE_SKILL},
        {"KX_RESET_VOICE_SKILL", "/voiceservice/resetskillenablement", "/tmp/getSkill.json", KX_RESET_VOICE_SKILL},
    });
    add_voice_calls<KX_VOICE_DEV_STATE_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_DEV_STATE_S{m, "stat-rel", "brand-rel", "appkey-rel", "lwa-rel", "{\"power\":\"on\"}",
                                    "token-rel", "7.0", 1, 1};
    }, {
        {"KX_REPORT_VOICE_DEV_STATE", "/voiceservice/reportstate", "/tmp/reportstate.json", KX_REPORT_VOICE_DEV_STATE},
    });
    add_voice_calls<KX_VOICE_TRAIT_STATE_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_TRAIT_STATE_S{m, "stat-rel", "brand-rel", "appkey-rel", "{\"power\":\"on\"}", "token-rel",
                                      "7.0", 1, 1};
    }, {
        {"KX_REPORT_VOICE_TRAIT_STATE", "/voiceservice/reporttraitstate", "/tmp/reporttraitstate.json",
         KX_REPORT_VOICE_TRAIT_STATE},
    });
    add_voice_calls<KX_VOICE_ACTION_INFO_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_ACTION_INFO_S{m, "appkey-rel", "brand-rel", "stat-rel", "cap-rel", "feat-rel", "token-rel",
                                      "7.0", 1, 1};
    }, {
        {"KX_PUSH_ACTION_INFO", "/voiceservice/get_action_info", "/tmp/getactioninfo.json", KX_PUSH_ACTION_INFO},
        {"KX_GET_SALES_INFO", "/voiceservice/get_sales_info", "/tmp/get_sales_info.json", KX_GET_SALES_INFO},
    });
    add_voice_calls<KX_VOICE_PHRASES_INFO_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_PHRASES_INFO_S{m, "appkey-rel", "brand-rel", "stat-rel", "cap-rel", "feat-rel", 2,
                                       "token-rel", "7.0", 1, 1};
    }, {
        {"KX_PUSH_SIMPLE_PHRASES_INFO", "/voiceservice/get_sample_phrases", "/tmp/get_sample_phrases.json",
         KX_PUSH_SIMPLE_PHRASES_INFO},
    });
    add_voice_calls<KX_VOICE_QUERY_S>(t, plain, [](uint32_t m) {
        return KX_VOICE_QUERY_S{m, "appkey-rel", "stat-rel", "brand-rel", "0", 1, 2, "cap-rel", "feat-rel",
                                "hsv-rel", "token-rel", "7.0", 1, 1};
    }, {
        {"KX_GET_ALEXA_LANGUAGE", "/voiceservice/get_alexa_language", "/tmp/getAlexaLan.json", KX_GET_ALEXA_LANGUAGE},
        {"KX_GET_ALEXA_LOCAL", "/voiceservice/get_alexa_locale", "/tmp/getAlexaLocal.json", KX_GET_ALEXA_LOCAL},
        {"KX_GET_ALEXA_ENDPOINT", "/voiceservice/get_alexa_endpoint_url", "/tmp/getAvsEndPoint.json",
         KX_GET_ALEXA_ENDPOINT},
        {"KX_GET_ALEXA_SALE_INFO", "/voiceservice/get_sales_support_info", "/tmp/getSalsSupportInfo.json",
         KX_GET_ALEXA_SALE_INFO},
        {"KX_GET_SKILL_INFO", "/voiceservice/get_skill_info", "/tmp/getSkillInfo.json", KX_GET_SKILL_INFO},
        {"KX_GET_SAMPLE_UTTERANCE", "/voiceservice/get_sample_utterance", "/tmp/getSampleInfo.json",
         KX_GET_SAMPLE_UTTERANCE},
    });
    /* The language query needs its stamp; the locale query runs without one, the time standing in. */
    add_voice_calls<KX_GOOGLE_QUERY_S>(t, plain, [](uint32_t m) {
        return KX_GOOGLE_QUERY_S{m, "appkey-rel", "brand-rel", "stat-rel", "cap-rel", "feat-rel", "0", "token-rel",
                                 "7.0", 1, 1};
    }, {
        {"KX_GET_GOOGLE_LANGUAGE_INFO", "/voiceservice/get_google_language", "/tmp/get_google_language.json",
         KX_GET_GOOGLE_LANGUAGE_INFO},
    });
    add_voice_calls<KX_GOOGLE_QUERY_S>(t, plain, [](uint32_t m) {
        return KX_GOOGLE_QUERY_S{m, "appkey-rel", "brand-rel", "stat-rel", "cap-rel", "feat-rel", nullptr,
                                 "token-rel", "7.0", 1, 1};
    }, {
        {"KX_GET_GOOGLE_LOCALE_INFO", "/voiceservice/get_google_locale", "/tmp/get_google_locale.json",
         KX_GET_GOOGLE_LOCALE_INFO},
    });
    add_voice_calls<KX_WEB_PORTAL_QUERY_S>(t, plain, [](uint32_t m) {
        return KX_WEB_PORTAL_QUERY_S{m, "brand-rel", "stat-rel", "de-DE", "token-rel", "7.0", 1, 1};
    }, {
        {"KX_GET_WEB_PORTAL_LANGUAGE_INFO", "/voiceservice/get_web_portal_language",
         "/tmp/get_web_portal_language.json", KX_GET_WEB_PORTAL_LANGUAGE_INFO},
        {"KX_GET_WEB_PORTAL_LOCALE_INFO", "/voiceservice/get_web_portal_locale", "/tmp/get_web_portal_locale.json",
         KX_GET_WEB_PORTAL_LOCALE_INFO},
    });
}

/* ---- log service, upgrade-event report ------------------------------------- */

/* The service list's addresses; the answer also carries <data>reliability</data>
 * for the hostile matrix's edits. */
const std::vector<std::string> kLogPolicyServices = {"policy-a.rel.example", "policy-b.rel.example"};
const std::vector<std::string> kLogUploadServices = {"https://upload.rel.example/log"};
/* The plain policy; it cannot be mistaken for the start of an answer. */
const char kLogPolicyXml[] = "<?xml version=\"1.0\"?><policy><data>reliability</data><dot module=\"rel\"/></policy>";
const char kLogText[] = "reliability log line: tuner lock lost, retrying\n";

std::string log_service_list_text()
{
    static const std::string text = [] {
        std::vector<std::string> policy, upload;
        for (const std::string &a : kLogPolicyServices)
            policy.push_back(kxcloud::log_service_address(a));
        for (const std::string &a : kLogUploadServices)
            upload.push_back(kxcloud::log_service_address(a));
        std::string list = kxcloud::log_service_list(policy, upload);
        const std::string code = "<resultCode>0</resultCode>";
        return list.insert(list.find(code) + code.size(), "<data>reliability</data>");
    }();
    return text;
}

std::string log_policy_answer()
{
    static const std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><response><resultCode>0</resultCode>"
                                    "<data>reliability</data><policyContent>" +
                                    kxcloud::log_policy_content(kLogPolicyXml) + "</policyContent></response>";
    return text;
}

/* The slots hold, in order, some of the expected addresses (an address is
 * skipped when memory runs out while it is read), and nothing else. */
bool slots_hold(const char (*slots)[KX_LOG_SERVICE_ADDRESS_SIZE], uint32_t count,
                const std::vector<std::string> &expected)
{
    if (count > expected.size())
        return false;
    size_t next = 0;
    for (uint32_t i = 0; i < KX_LOG_SERVICE_SLOTS; ++i) {
        if (i >= count) {
            if (slots[i][0] != '\0')
                return false;
            continue;
        }
        while (next < expected.size() && expected[next] != slots[i])
            ++next;
        if (next++ == expected.size())
            return false;
    }
    return true;
}

/* A log call that answers into a stream of its own. On success the stream
 * holds `expect`; a failure is the call's -1, and what a failed transfer
 * received stays in the stream, as these calls document. */
Call log_call(const std::string &name, const char *path, Answer answer, bool plain, std::function<int32_t(Run &)> fn,
              const std::string &expect = "")
{
    Call c;
    c.name = name + (plain ? "/http" : "");
    c.family = "log";
    c.path = path;
    c.answer = answer;
    c.plain = plain;
    std::string file = c.name;
    for (char &ch : file)
        ch = ch == '/' ? '_' : ch;
    const std::string stream_path = "/tmp/kxrel_stream_" + file;
    c.prepare = [stream_path](Run &r) { open_stream(r, stream_path); };
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [expect](Run &r, int64_t result) {
        const std::string left = stream_text(r.stream);
        if (result == 0 && left != expect)
            return r.fault("0 but the stream holds \"" + left.substr(0, 80) + "\"");
        return judge_plain(r, result);
    };
    c.release = close_stream;
    return c;
}

/* An upload: on success the cloud received the log (decoded back, where the
 * form allows) and its answer is in the stream. */
Call upload_call(const std::string &name, bool plain, bool decodes, std::function<int32_t(Run &)> fn)
{
    Call c = log_call(name, "/log/upload", Answer::Raw, plain, std::move(fn), kRawBody);
    auto answered = c.judge;
    c.judge = [decodes, answered](Run &r, int64_t result) {
        const Outcome outcome = answered(r, result);
        if (outcome != Outcome::Success)
            return outcome;
        const std::string body = r.cloud->last().body;
        if (decodes ? kxcloud::decoded_log_upload(body) != kLogText : body.compare(0, 11, "{\"logmsg\":\"") != 0)
            return r.fault("0 but the cloud received \"" + body.substr(0, 60) + "\"");
        return Outcome::Success;
    };
    return c;
}

void add_log(std::vector<Call> &t)
{
    for (bool plain : {false, true}) {
        Call list = log_call("KX_LOG_GET_SERVICELIST", "/pds/getAppServiceList", Answer::ServiceList, plain, [](Run &r) {
            KX_LOG_SERVICE_REQ_S rec = {r.mode(), 1, "1.0", "appkey-rel", "token-rel"};
            return KX_LOG_GET_SERVICELIST(&rec, r.domain.c_str(),
                                          reinterpret_cast<KX_LOG_SERVICE_LIST_S *>(r.buffer.data()), &r.stream);
        }, verified_text(Answer::ServiceList));
        list.signed_answer = true;
        auto open = list.prepare;
        list.prepare = [open](Run &r) {
            open(r);
            r.buffer.assign(sizeof(KX_LOG_SERVICE_LIST_S), '\x5A'); /* the caller's list, not yet zeroed */
        };
        auto verified = list.judge;
        list.judge = [verified](Run &r, int64_t result) {
            const Outcome outcome = verified(r, result);
            const auto *l = reinterpret_cast<const KX_LOG_SERVICE_LIST_S *>(r.buffer.data());
            if (outcome == Outcome::Success &&
                (!slots_hold(l->as8PolicyService, l->u32PolicyServiceNum, kLogPolicyServices) ||
                 !slots_hold(l->as8UploadService, l->u32UploadServiceNum, kLogUploadServices)))
                return r.fault("0 but the slots hold other addresses");
            return outcome;
        };
        t.push_back(list);

        Call policy = log_call("KX_LOG_QUERY_POLICY", "/log/get_strategy", Answer::Xml, plain, [](Run &r) {
            KX_LOG_POLICY_REQ_S rec = {r.mode(), 0, 3, 1, 0, 0, 0, 0, "token-rel"};
            return KX_LOG_QUERY_POLICY(&rec, r.domain.c_str(), &r.stream);
        }, verified_text(Answer::Xml));
        policy.signed_answer = true;
        t.push_back(policy);

        Call all = log_call("KX_LOG_QUERY_ALL_POLICY", "/log/get_dotexception_strategy", Answer::Policy, plain,
                            [](Run &r) {
            KX_LOG_ALL_POLICY_REQ_S rec = {r.mode(), 0, 0, 0, 77, 0, "DE", "BR", 0, kDeviceId, "3", "cap", "9.0"};
            return KX_LOG_QUERY_ALL_POLICY(&rec, r.domain.c_str(), &r.stream);
        });
        all.judge = [](Run &r, int64_t result) {
            const std::string left = stream_text(r.stream);
            const std::string policy = kLogPolicyXml;
            if (result == 0) {
                if (left != policy || ftell(r.stream) != 0)
                    return r.fault("0 but the stream holds \"" + left.substr(0, 80) + "\"");
                return Outcome::Success;
            }
            if (!is_failure(result))
                return r.fault("result " + std::to_string(result));
            /* The answer as received, or emptied: never part of a policy. */
            if (!left.empty() && policy.compare(0, left.size(), left) == 0)
                return r.fault("failed but left " + std::to_string(left.size()) + " bytes of the policy");
            return Outcome::Failure;
        };
        t.push_back(all);

        t.push_back(upload_call("KX_LOG_UPLOAD", plain, true, [](Run &r) {
            KX_LOG_UPLOAD_S rec = {r.mode(), 0, 0, 0, 0, "rel", sizeof kLogText - 1, kLogText, r.target.c_str()};
            return KX_LOG_UPLOAD(&rec, &r.stream);
        }));
        t.push_back(upload_call("KX_LOG_UPLOAD_EX", plain, true, [](Run &r) {
            KX_LOG_UPLOAD_EX_S rec = {r.mode(), 0, KX_LOG_FORM_EVENT, 0, 0, kDeviceId, "E1", "0", "rel.log", 0, "rel",
                                      sizeof kLogText - 1, kLogText, r.target.c_str()};
            return KX_LOG_UPLOAD_EX(&rec, &r.stream);
        }));
        t.push_back(upload_call("KX_LOG_UPLOAD_EX/log-form", plain, false, [](Run &r) {
            KX_LOG_UPLOAD_EX_S rec = {r.mode(), KX_LOG_COMPRESS_RAW, 0, 0, 0, nullptr, nullptr, nullptr, nullptr, 0,
                                      "rel", sizeof kLogText - 1, kLogText, r.target.c_str()};
            return KX_LOG_UPLOAD_EX(&rec, &r.stream);
        }));

        Call event = log_call("KX_REPORT_UPGRADE_EVENT", "/upgrade/report_upgrade_event", Answer::Xml, plain, [](Run &r) {
            KX_UPGRADE_EVENT_S rec = {"ext-rel", r.mode(), 1, 1, "1.0", "token-rel", "E-rel"};
            return KX_REPORT_UPGRADE_EVENT(&rec, r.domain.c_str(), &r.stream);
        }, verified_text(Answer::Xml));
        event.signed_answer = true;
        t.push_back(event);
    }
}

/* ---- upgrade checks and advertising ----------------------------------------- */

/* Calls whose signed XML answer goes into the caller's stream and that stop
 * at a failed transfer with their own line, verifying nothing: what arrived
 * before the failure stays in the stream, whatever it was. Past the transfer
 * the sign-in rules hold (emptied, or an unsigned answer left as it came). */
Call stream_xml_call(const char *name, const char *path, bool plain, const char *transfer_failure,
                     std::function<int32_t(Run &)> fn)
{
    Call c = xml_account(name, path, plain, std::move(fn));
    c.family = "upgrade_ad";
    const auto verifier_rules = c.judge;
    const std::string failure = transfer_failure;
    c.judge = [verifier_rules, failure](Run &r, int64_t result) {
        if (result == 0 || !log_contains(failure))
            return verifier_rules(r, result);
        if (!is_failure(result))
            return r.fault("result " + std::to_string(result));
        if (log_contains("s32FileSize"))
            return r.fault("verified an answer after its transfer failed");
        return Outcome::Failure;
    };
    return c;
}

void add_upgrade_ad(std::vector<Call> &t)
{
    for (bool plain : {false, true}) {
        t.push_back(stream_xml_call("KX_UPGRADE_CHECK_VERSION", "/upgrade/check_version", plain,
                                    "Failed to call KX_SDK_HTTP_POST.", [](Run &r) {
            KX_UPGRADE_CHECK_S rec = {r.mode(), 1, "version-rel", "token-rel", "reserve-rel", "stat-rel", "post-rel",
                                      "brand-rel", "mac-rel"};
            return KX_UPGRADE_CHECK_VERSION(&rec, r.domain.c_str(), &r.stream);
        }));
        t.push_back(stream_xml_call("KX_APP_UPGRADE_CHECK_VERSION", "/upgrade/check_app_version", plain,
                                    "Failed to call KX_SDK_HTTPS_POST.", [](Run &r) {
            KX_APP_UPGRADE_CHECK_S rec = {r.mode(), 1, "version-rel", "token-rel", "package-rel", "stat-rel",
                                          "post-rel"};
            return KX_APP_UPGRADE_CHECK_VERSION(&rec, r.domain.c_str(), &r.stream);
        }));
    }
    /* The guide has one scheme only: plain HTTP on port 80 (through the
     * secure GET member), so these run on the plain listener and their names
     * carry no variant. */
    Call strategy = stream_xml_call("KX_AD_GET_STRATEGY", "/cgi-bin/epg_index.fcgi", true, "Get AD strategy faild!",
                                    [](Run &r) {
        KX_AD_STRATEGY_S rec = {"slot-rel", "token-rel", -1, "mode-rel", "os-rel", -2, "zip-rel", "country-rel"};
        return KX_AD_GET_STRATEGY(&rec, r.domain.c_str(), &r.stream);
    });
    strategy.name = "KX_AD_GET_STRATEGY";
    t.push_back(strategy);
    Call linkinfo = stream_xml_call("KX_AD_GET_LINKINFO", "/cgi-bin/epg_index.fcgi", true, "Get AD linkinfo faild!",
                                    [](Run &r) {
        KX_AD_LINKINFO_S rec = {"link-rel", "code-rel", "7", "token-rel", 1, "mode-rel", "os-rel", 2, "zip-rel",
                                "country-rel"};
        return KX_AD_GET_LINKINFO(&rec, r.domain.c_str(), &r.stream);
    });
    linkinfo.name = "KX_AD_GET_LINKINFO";
    t.push_back(linkinfo);
}

/* ---- push channel ------------------------------------------------------------ */

/* The application's side of one push run: its channel record (first, so the
 * callbacks find the rest), the handle, and what the callbacks saw. Made and
 * freed outside the armed part of a run. */
struct PushRun {
    lws_channel_t channel;
    lws_client_t *client;
    int established;           /* atomic */
    int messages;              /* atomic */
    char address[16];          /* the library keeps the pointer */
};

PushRun &push_run(Run &r) { return *reinterpret_cast<PushRun *>(r.out); }

int push_established(struct lws *, lws_channel_t *channel, void *, size_t, int)
{
    __atomic_add_fetch(&reinterpret_cast<PushRun *>(channel)->established, 1, __ATOMIC_SEQ_CST);
    return 0;
}

int push_message(struct lws *, lws_channel_t *channel, void *, size_t, int)
{
    __atomic_add_fetch(&reinterpret_cast<PushRun *>(channel)->messages, 1, __ATOMIC_SEQ_CST);
    return 0;
}

/* One WSS endpoint for every push run of the program. */
kxcloud::WssServer &push_server()
{
    static kxcloud::WssServer server;
    return server;
}

/* Waits for the server's events and, in small steps, for the callbacks'. */
bool push_wait(const std::function<bool()> &pred)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!push_server().wait_for(pred, std::chrono::milliseconds(10)))
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

const char kPushText[] = "{\"msgType\":\"reliability\"}";
const char kPushAck12[] = "{\n\t\"msgType\":\t\"ack\",\n\t\"id\":\t12\n}";

void push_prepare(Run &r)
{
    auto *p = static_cast<PushRun *>(std::calloc(1, sizeof(PushRun)));
    std::strcpy(p->address, "127.0.0.1");
    p->channel.on_established = push_established;
    p->channel.on_message = push_message;
    r.out = reinterpret_cast<char *>(p);
    push_server().clear_frames();
}

/* The run's record plus an open connection. */
void push_prepare_connected(Run &r)
{
    push_prepare(r);
    PushRun &p = push_run(r);
    p.client = lws_connect(p.address, "/reliability/push", static_cast<uint32_t>(push_server().port()), &p.channel, 50);
    push_wait([&] {
        return __atomic_load_n(&p.established, __ATOMIC_SEQ_CST) == 1 && push_server().open_connections() == 1;
    });
}

/* The same plus a text frame from malloc in r.uout, for a queuing call. */
void push_prepare_text(Run &r, bool connected)
{
    if (connected)
        push_prepare_connected(r);
    else
        push_prepare(r);
    r.uout = static_cast<unsigned char *>(std::malloc(sizeof kPushText));
    std::memcpy(r.uout, kPushText, sizeof kPushText);
}

void push_release(Run &r)
{
    if (r.out == nullptr)
        return;
    PushRun &p = push_run(r);
    if (p.client != nullptr)
        lws_disconnect(p.client);
    push_wait([] { return push_server().open_connections() == 0; });
    std::free(r.out);
    r.out = nullptr;
    std::free(r.uout); /* a text the queuing call refused */
    r.uout = nullptr;
}

Call push_call(const char *name, std::function<void(Run &)> prepare, std::function<int64_t(Run &)> fn,
               std::function<Outcome(Run &, int64_t)> judge)
{
    Call c;
    c.name = name;
    c.family = "push";
    c.prepare = std::move(prepare);
    c.invoke = std::move(fn);
    c.judge = std::move(judge);
    c.release = push_release;
    return c;
}

/* A record without a connection: the queuing core and the callback work on
 * the slot alone (a null connection asks libwebsockets for nothing). */
std::string slot_of(Run &r)
{
    const lws_channel_t &ch = push_run(r).channel;
    return std::string(reinterpret_cast<const char *>(ch.payload), ch.payload_len);
}

void add_push(std::vector<Call> &t)
{
    /* Connecting: the handle, its loop flag and thread id, the thread start.
     * 0 = handle with a thread, 1 = handle whose thread could not start,
     * -1 = no handle. */
    t.push_back(push_call("lws_connect", push_prepare, [](Run &r) -> int64_t {
        PushRun &p = push_run(r);
        p.client = lws_connect(p.address, "/reliability/push", static_cast<uint32_t>(push_server().port()),
                               &p.channel, 50);
        return p.client == nullptr ? -1 : p.client->service_thread == nullptr ? 1 : 0;
    }, [](Run &r, int64_t result) {
        PushRun &p = push_run(r);
        if (result == -1)
            return log_contains("out of memory.") ? Outcome::Failure : r.fault("null without \"out of memory.\"");
        if (result == 1)
            return log_contains("ret: ") ? Outcome::Failure : r.fault("no thread and no \"ret:\" line");
        if (!push_wait([&] { return __atomic_load_n(&p.established, __ATOMIC_SEQ_CST) == 1; }))
            return r.fault("the connection never opened");
        return Outcome::Success;
    }));
    t.push_back(push_call("lws_disconnect", push_prepare_connected, [](Run &r) -> int64_t {
        PushRun &p = push_run(r);
        r.outlen = p.channel.service_tid;
        lws_disconnect(p.client);
        p.client = nullptr;
        return 0;
    }, [](Run &r, int64_t) {
        /* Joined: gone from the task list at once natively, within moments
         * under qemu-arm (the emulator tells the joiner before its own host
         * thread has quite ended). */
        const std::string task = "/proc/self/task/" + std::to_string(r.outlen);
        if (!push_wait([&] {
                struct stat st;
                return stat(task.c_str(), &st) != 0;
            }))
            return r.fault("the service thread outlived lws_disconnect");
        if (!push_wait([] { return push_server().open_connections() == 0; }))
            return r.fault("the connection stayed open");
        return Outcome::Success;
    }));
    t.push_back(push_call("fire_writable_out", [](Run &r) { push_prepare_text(r, true); }, [](Run &r) -> int64_t {
        int32_t result = fire_writable_out(push_run(r).client, r.uout, sizeof kPushText - 1, LWS_WRITE_TEXT, 1);
        if (result == 0)
            r.uout = nullptr; /* the library's now */
        return result;
    }, [](Run &r, int64_t result) {
        if (result != 0)
            return r.fault("result " + std::to_string(result));
        if (!push_wait([] { return push_server().count(kxcloud::kWsText) == 1; }) ||
            push_server().frames(kxcloud::kWsText)[0].payload != kPushText)
            return r.fault("the frame never reached the server");
        return Outcome::Success;
    }));
    t.push_back(push_call("fire_writable_in", push_prepare, [](Run &r) -> int64_t {
        static const char ping[] = "heartbeat";
        return fire_writable_in(nullptr, &push_run(r).channel, const_cast<char *>(ping), 9, LWS_WRITE_PING);
    }, [](Run &r, int64_t result) {
        if (result != 0 || slot_of(r) != "heartbeat" || push_run(r).channel.write_protocol != LWS_WRITE_PING)
            return r.fault("the ping is not in the slot");
        return Outcome::Success;
    }));
    t.push_back(push_call("fire_writable", [](Run &r) { push_prepare_text(r, false); }, [](Run &r) -> int64_t {
        int32_t result = fire_writable(nullptr, &push_run(r).channel, r.uout, sizeof kPushText - 1, LWS_WRITE_TEXT, 0);
        if (result == 0)
            r.uout = nullptr;
        return result;
    }, [](Run &r, int64_t result) {
        if (result != 0 || slot_of(r) != kPushText)
            return r.fault("the text is not in the slot");
        return Outcome::Success;
    }));
    t.push_back(push_call("writ_callback_send_buf", push_prepare, [](Run &r) -> int64_t {
        /* An empty slot writes nothing: any connection will do. */
        return writ_callback_send_buf(reinterpret_cast<struct lws *>(&r), &push_run(r).channel);
    }, [](Run &r, int64_t result) {
        if (result != 0 || !log_contains("clean up"))
            return r.fault("an empty slot gave " + std::to_string(result));
        return Outcome::Success;
    }));
    t.push_back(push_call("decodeMessage", push_prepare, [](Run &) -> int64_t {
        int32_t id = 0;
        int32_t result = decodeMessage("{\"msgType\":\"notice\",\"id\":12}", &id);
        return result == 0 ? id : result;
    }, [](Run &r, int64_t result) {
        if (result == 12)
            return Outcome::Success;
        if (result == -1 && log_contains("cJSON_Parse failed!"))
            return Outcome::Failure;
        return r.fault("result " + std::to_string(result));
    }));
    /* A received message: decoded, acknowledged into the slot, delivered.
     * Short of memory, the acknowledgement is dropped whole, the message
     * still delivered. */
    t.push_back(push_call("lws_protocol_0_callback", push_prepare, [](Run &r) -> int64_t {
        char text[] = "{\"msgType\":\"notice\",\"id\":12}";
        return lws_protocol_0_callback(nullptr, LWS_CALLBACK_CLIENT_RECEIVE, &push_run(r).channel, text,
                                       sizeof text - 1);
    }, [](Run &r, int64_t result) {
        if (result != 0 || push_run(r).messages != 1)
            return r.fault("the message was not delivered");
        if (slot_of(r) == kPushAck12)
            return Outcome::Success;
        if (slot_of(r).empty())
            return Outcome::Failure;
        return r.fault("the slot holds \"" + slot_of(r) + "\"");
    }));
}

/* ---- signed external fetch ---------------------------------------------------- */

const char kFetchPath[] = "/reliability/fetch";
/* A string header and a number that goes out as its inner digits ("24"). */
const char kFetchHeaders[] = "{\"X-Rel-One\":\"one\",\"X-Rel-Two\":4242}";
/* The GET query carries its own "?": the URL is the run's target as it
 * stands, so a hostile run may point it elsewhere and nothing is built while
 * the allocator is armed. */
const char kFetchQuery[] = "?rel=fetch&page=1";
const char kFetchForm[] = "rel=fetch&page=1";
const char kFetchSignBody[] = "page=1&rel=fetch";

/* A fetch hands out a heap text on 0 and nothing otherwise; its failures are
 * 1 (no signature), 3 (transfer), 4 (verification) and 5 (memory). -1 is a
 * refusal, which a good request on an initialised library never meets. */
Call fetch_call(const char *name, Answer kind, bool plain, bool any_format, std::function<int32_t(Run &)> fn)
{
    Call c;
    c.name = std::string(name) + (plain ? "/http" : "");
    c.family = "external";
    c.path = kFetchPath;
    c.answer = kind;
    c.plain = plain;
    c.signed_answer = kind != Answer::Raw;
    c.any_format = any_format;
    c.invoke = [fn](Run &r) -> int64_t { return fn(r); };
    c.judge = [kind, any_format](Run &r, int64_t result) {
        if (result == 0) {
            if (r.out == nullptr)
                return r.fault("0 but no answer handed out");
            const std::string got = r.out;
            const Answer other = kind == Answer::Xml ? Answer::Json : Answer::Xml;
            if (got != verified_text(kind) && !(any_format && got == verified_text(other)))
                return r.fault("0 but handed out \"" + got.substr(0, 80) + "\"");
            return Outcome::Success;
        }
        if (result != 1 && result != 3 && result != 4 && result != 5)
            return r.fault("result " + std::to_string(result) + " is not a fetch failure");
        if (r.out != nullptr)
            return r.fault("failed but handed out a text");
        return Outcome::Failure;
    };
    c.release = [](Run &r) {
        if (r.out != nullptr)
            KX_SDK_FREE(r.out);
        r.out = nullptr;
    };
    return c;
}

KX_SDK_FETCH_REQ_V31_S v31_request(Run &r, int32_t mark, bool get, int32_t mode)
{
    return KX_SDK_FETCH_REQ_V31_S{mark, r.plain ? 1 : 0, get ? 1 : 0, mode, "reliability", r.target.c_str(),
                                  kFetchSignBody, get ? kFetchQuery : kFetchForm, kFetchHeaders, 0};
}

void add_external(std::vector<Call> &t)
{
    for (bool plain : {false, true}) {
        /* Secure: a signed GET; plain: a signed POST. */
        t.push_back(fetch_call("KX_SDK_FETCH_DATA", Answer::Json, plain, false, [](Run &r) {
            KX_SDK_FETCH_REQ_S rec = {r.plain ? 1 : 0, r.plain ? 0 : 1, 1, "reliability", r.target.c_str(),
                                      kFetchSignBody, r.plain ? kFetchForm : kFetchQuery, kFetchHeaders};
            return KX_SDK_FETCH_DATA(&rec, &r.out);
        }));
        /* Secure: a marked POST with the header signature and an XML answer;
         * plain: a GET with the body signature. */
        t.push_back(fetch_call("KX_SDK_FETCH_DATA_V31", plain ? Answer::Json : Answer::Xml, plain, true, [](Run &r) {
            KX_SDK_FETCH_REQ_V31_S rec = r.plain ? v31_request(r, -1, true, 1) : v31_request(r, 5, false, 2);
            return KX_SDK_FETCH_DATA_V31(&rec, &r.out);
        }));
        /* Secure: the large GET; plain: a POST into the call's own record. */
        t.push_back(fetch_call("KX_SDK_FETCH_DATA_3rdUrl", Answer::Raw, plain, false, [](Run &r) {
            KX_SDK_FETCH_REQ_V31_S rec = r.plain ? v31_request(r, -1, false, 0) : v31_request(r, 5, true, 1);
            return KX_SDK_FETCH_DATA_3rdUrl(&rec, &r.out);
        }));
    }
    t.push_back(fetch_call("KX_SDK_FETCH_DATA_V30", Answer::Json, false, true, [](Run &r) {
        KX_SDK_FETCH_REQ_S rec = {0, 1, 1, "reliability", r.target.c_str(), kFetchSignBody, kFetchQuery, kFetchHeaders};
        return KX_SDK_FETCH_DATA_V30(&rec, &r.out);
    }));
    {
        /* The object is parsed before the call; only the conversion runs armed. */
        Call c = simple("KX_SDK_GET_HTTP_HEADER", "external", [](Run &r) -> int64_t {
            return KX_SDK_GET_HTTP_HEADER(reinterpret_cast<cJSON *>(r.out),
                                          reinterpret_cast<KX_SDK_HTTP_HEADER_S *>(r.buffer.data()));
        }, [](Run &r, int64_t result) {
            const auto *h = reinterpret_cast<const KX_SDK_HTTP_HEADER_S *>(r.buffer.data());
            const char *expected[][2] = {{"X-Rel-One", "one"}, {"X-Rel-Two", "24"}};
            for (int64_t i = 0; i < result && i < 2; ++i)
                if (std::strcmp(h[i].name, expected[i][0]) != 0 || std::strcmp(h[i].value, expected[i][1]) != 0)
                    return r.fault("record " + std::to_string(i) + " is " + h[i].name + ":" + h[i].value);
            if (result == 2)
                return Outcome::Success;
            /* A member the printer cannot print for want of memory is skipped. */
            return result >= 0 && result < 2 ? Outcome::Failure : r.fault("count " + std::to_string(result));
        }, [](Run &r) {
            cJSON_Delete(reinterpret_cast<cJSON *>(r.out));
            r.out = nullptr;
        });
        c.prepare = [](Run &r) {
            r.buffer.assign(sizeof(KX_SDK_HTTP_HEADER_S) * KX_SDK_FETCH_MAX_HEADERS, '\0');
            r.out = reinterpret_cast<char *>(cJSON_Parse(kFetchHeaders));
        };
        t.push_back(c);
    }
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
    case Answer::ServiceList: {
        static const std::string s = kxtest::signed_xml(log_service_list_text());
        return s;
    }
    case Answer::Policy: return log_policy_answer();
    case Answer::Raw: return kRawBody;
    default: return "";
    }
}

std::string verified_text(Answer kind)
{
    switch (kind) {
    case Answer::Json: return kJsonObject;
    case Answer::Xml: return kXmlDoc;
    case Answer::ServiceList: return log_service_list_text();
    case Answer::Policy: return log_policy_answer();
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
    else if (call.answer != Answer::Raw)
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

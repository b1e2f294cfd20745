#include "log_services.h"

#include <map>
#include <stdexcept>

#include "test_crypto.h"

namespace kxcloud {

const char *const kLogPolicy =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<policy seq=\"7\"><dot module=\"player\" level=\"error\"/>"
    "<dot module=\"network\" level=\"warn\"/><exception type=\"crash\" upload=\"1\" maxSize=\"65536\"/></policy>";

namespace {

const char kXmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

Reply xml_reply(const std::string &text)
{
    Reply reply;
    reply.content_type = "application/xml";
    reply.body = text;
    return reply;
}

/* "scheme://host" of the listener a request arrived on. */
std::string own_base(const Cloud &cloud, const Request &request)
{
    return request.tls ? "https://" + cloud.https_domain() : "http://" + cloud.http_domain() + ":80";
}

/* The string value of a JSON member as the library prints it (the values it
 * sends hold no escapes); "" when absent. */
std::string json_member(const std::string &json, const std::string &key)
{
    size_t at = json.find("\"" + key + "\":");
    if (at == std::string::npos)
        return "";
    size_t open = json.find('"', at + key.size() + 3);
    size_t close = open == std::string::npos ? open : json.find('"', open + 1);
    return close == std::string::npos ? "" : json.substr(open + 1, close - open - 1);
}

std::string unseal(const std::string &base64)
{
    return gunzip_bytes(kxtest::aes_decrypt('B', kxtest::base64_decode(base64)));
}

}  // namespace

std::string log_service_address(const std::string &address)
{
    return kxtest::hex_encode(kxtest::aes_encrypt('A', address));
}

std::string log_policy_content(const std::string &policy_xml)
{
    return kxtest::hex_encode(kxtest::aes_encrypt('A', kxtest::base64_encode(gzip_bytes(policy_xml))));
}

std::string log_service_list(const std::vector<std::string> &policy, const std::vector<std::string> &upload)
{
    auto kind = [](const char *type, const std::vector<std::string> &addresses) {
        std::string text = std::string("<addressInfo><addressType>") + type + "</addressType><addressList>";
        for (const std::string &address : addresses)
            text += "<address>" + address + "</address>";
        return text + "</addressList></addressInfo>";
    };
    return std::string(kXmlHead) + "<response><resultCode>0</resultCode><appServiceList>" +
           kind("strategy_all", policy) + kind("dasurl", upload) + "</appServiceList></response>";
}

std::string log_strategy_answer()
{
    return std::string(kXmlHead) + "<response><resultCode>0</resultCode><logLevel>3</logLevel>"
                                   "<uploadInterval>3600</uploadInterval><maxLogSize>1048576</maxLogSize></response>";
}

std::string decoded_log_upload(const std::string &body)
{
    /* The log form of the extended upload carries raw cipher bytes, which
     * need not be percent-encoding at all. */
    std::string log;
    try {
        log = unseal(kxtest::url_decode(json_member(body, "logmsg")));
    } catch (const std::exception &) {
    }
    return log.empty() ? unseal(json_member(body, "message")) : log;
}

void register_log_services(Cloud &cloud)
{
    Cloud *self = &cloud;
    cloud.route("GET", "/pds/getAppServiceList", [self](const Request &request) {
        const std::string base = own_base(*self, request);
        const std::string domain = base.substr(base.find("//") + 2);
        return xml_reply(signed_xml(log_service_list(
            {log_service_address(domain), log_service_address("logpolicy2.example.invalid")},
            {log_service_address(base + "/log/upload"),
             log_service_address("https://logupload2.example.invalid/log/upload")})));
    });
    cloud.route("GET", "/log/get_strategy", [](const Request &) { return xml_reply(signed_xml(log_strategy_answer())); });
    cloud.route("GET", "/log/get_dotexception_strategy", [](const Request &request) {
        return xml_reply(std::string(kXmlHead) + "<response><resultCode>0</resultCode><policySeq>" +
                         request.query_form()["policySeq"] + "</policySeq><policyContent>" +
                         log_policy_content(kLogPolicy) + "</policyContent></response>");
    });
    cloud.route("POST", "/log/upload", [](const Request &request) {
        const std::string log = decoded_log_upload(request.body);
        return Reply(200, log.empty() ? "{\"resultCode\":1,\"errorDesc\":\"log does not decode\"}"
                                      : "{\"resultCode\":0,\"received\":" + std::to_string(log.size()) + "}",
                     "application/json");
    });
    cloud.route("POST", "/upgrade/report_upgrade_event", [](const Request &request) {
        std::map<std::string, std::string> form = request.form();
        const bool complete = !form["deviceExtInfoStr"].empty() && !form["eventCode"].empty() &&
                              !form["accessToken"].empty();
        return xml_reply(signed_xml(std::string(kXmlHead) + "<response><resultCode>" + (complete ? "0" : "1") +
                                    "</resultCode></response>"));
    });
}

}  // namespace kxcloud

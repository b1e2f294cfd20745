#include "device_services.h"

#include <map>

#include "test_crypto.h"

namespace kxcloud {

namespace {

struct Service {
    const char *path;
    bool xml;
    bool signed_request; /* the request carries a sign to check */
    const char *answer;  /* before the server's signature */
};

const Service kServices[] = {
    {"/aaa/sign_in", true, true,
     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response><resultCode>0</resultCode>"
     "<token>AT-5f1c2e9a7b3d4c60</token><refreshToken>RT-0d9e8f7a6b5c4d3e</refreshToken>"
     "<tokenExpiredTime>604800</tokenExpiredTime><customerId>10086001</customerId></response>"},
    {"/aaa/get_dev_serial", true, true,
     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response><resultCode>0</resultCode>"
     "<devSerial>86100300900000100000061A2B3C4D5E</devSerial></response>"},
    {"/aaa/get_authorizationinfo", false, true,
     "{\"resultCode\":0,\"authorized\":1,\"clientName\":\"living-room speaker\",\"scope\":\"voice\"}"},
    {"/aaa/sign_in_refreshtoken", false, true,
     "{\"resultCode\":0,\"token\":\"AT-5f1c2e9a7b3d4c60\",\"refreshToken\":\"RT-0d9e8f7a6b5c4d3e\","
     "\"tokenExpiredTime\":604800}"},
    {"/aaa/sign_out", false, true, "{\"resultCode\":0}"},
    {"/aaa/get_signinfo_by_code", false, true,
     "{\"resultCode\":0,\"customerId\":10086001,\"loginName\":\"living-room\",\"token\":\"AT-5f1c2e9a7b3d4c60\"}"},
    {"/voiceservice/get_codeauth_url", false, true,
     "{\"resultCode\":0,\"authUrl\":\"https://auth.example.invalid/code?c=K7Q2\",\"expiresIn\":600}"},
    {"/cam/user/get_customer_info", false, true,
     "{\"resultCode\":0,\"customerId\":10086001,\"nickName\":\"Living Room\",\"countryCode\":\"DE\"}"},
    {"/message/get_msg_configs", false, false,
     "{\"resultCode\":0,\"pollInterval\":300,\"channels\":[\"system\",\"promotion\"]}"},
    {"/message/get_msg", false, true,
     "{\"resultCode\":0,\"total\":2,\"msgs\":[{\"msgId\":\"m-1\",\"title\":\"Update ready\"},"
     "{\"msgId\":\"m-2\",\"title\":\"Welcome\"}]}"},
    {"/message/get_msg_channel", false, true,
     "{\"resultCode\":0,\"channel\":\"wss://push.example.invalid/ws\",\"heartbeat\":30}"},
};

const Service *find_service(const std::string &path)
{
    for (const Service &service : kServices) {
        if (path == service.path)
            return &service;
    }
    return nullptr;
}

Reply answer_for(const Service &service, const Request &request)
{
    std::string text = service.answer;
    if (service.signed_request && !request_sign_opens(request)) {
        text = service.xml ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response><resultCode>1</resultCode>"
                             "<errorDesc>sign check failed</errorDesc></response>"
                           : "{\"resultCode\":1,\"errorDesc\":\"sign check failed\"}";
    }
    Reply reply;
    reply.content_type = service.xml ? "application/xml" : "application/json";
    reply.body = service.xml ? signed_xml(text) : signed_json(text);
    return reply;
}

}  // namespace

bool request_sign_opens(const Request &request)
{
    const std::map<std::string, std::string> pairs = request.method == "GET" ? request.query_form() : request.form();
    const auto sign = pairs.find("sign");
    return sign != pairs.end() && kxtest::open_request_signature(sign->second).size() == 16;
}

void register_device_services(Cloud &cloud)
{
    for (const Service &service : kServices) {
        const Service *entry = &service;
        cloud.route("*", service.path, [entry](const Request &request) { return answer_for(*entry, request); });
    }
}

std::string device_service_answer(const std::string &path)
{
    const Service *service = find_service(path);
    return service != nullptr ? service->answer : "";
}

}  // namespace kxcloud

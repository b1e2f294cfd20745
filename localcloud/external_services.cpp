#include "external_services.h"

#include <cstdio>

namespace kxcloud {

namespace {

std::string json_text(const std::string &text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string xml_text(const std::string &text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

}  // namespace

std::string external_echo_answer(const Request &request, bool xml)
{
    std::string text;
    if (xml) {
        text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response><resultCode>0</resultCode><method>" +
               xml_text(request.method) + "</method><target>" + xml_text(request.target) + "</target><body>" +
               xml_text(request.body) + "</body>";
        for (const auto &header : request.headers)
            text += "<header name=\"" + xml_text(header.first) + "\">" + xml_text(header.second) + "</header>";
        return text + "</response>";
    }
    text = "{\"resultCode\":0,\"method\":" + json_text(request.method) + ",\"target\":" + json_text(request.target) +
           ",\"body\":" + json_text(request.body) + ",\"headers\":{";
    for (size_t i = 0; i < request.headers.size(); ++i)
        text += (i ? "," : "") + json_text(request.headers[i].first) + ":" + json_text(request.headers[i].second);
    return text + "}}";
}

void register_external_services(Cloud &cloud)
{
    for (bool xml : {false, true}) {
        cloud.route("*", xml ? kExternalEchoXmlPath : kExternalEchoPath, [xml](const Request &request) {
            Reply reply;
            reply.content_type = xml ? "application/xml" : "application/json";
            const std::string answer = external_echo_answer(request, xml);
            reply.body = xml ? signed_xml(answer) : signed_json(answer);
            return reply;
        });
    }
}

}  // namespace kxcloud

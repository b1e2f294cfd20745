#include "upgrade_ad_services.h"

#include <map>

namespace kxcloud {

namespace {

using Pairs = std::map<std::string, std::string>;

constexpr const char *kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<response>";

/* Values are echoed as they arrived (still URL-encoded, if they were);
 * markup characters are escaped so the answer stays well-formed. */
std::string escaped(const std::string &text)
{
    std::string out;
    for (char ch : text) {
        switch (ch) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        default: out += ch;
        }
    }
    return out;
}

std::string element(const std::string &name, const std::string &value)
{
    return "<" + name + ">" + escaped(value) + "</" + name + ">";
}

std::string refusal(const std::string &why)
{
    return kHead + element("resultCode", "1") + element("errorDesc", why) + "</response>";
}

/* The first of `keys` that the pairs lack, "" when none is missing. */
std::string missing(const Pairs &pairs, std::initializer_list<const char *> keys)
{
    for (const char *key : keys)
        if (pairs.count(key) == 0)
            return key;
    return "";
}

std::string optional_echo(const Pairs &pairs, std::initializer_list<const char *> keys)
{
    std::string out;
    for (const char *key : keys) {
        const auto at = pairs.find(key);
        if (at != pairs.end())
            out += element(key, at->second);
    }
    return out;
}

std::string offer(const std::string &current, const char *latest, const std::string &download)
{
    if (current == latest)
        return element("upgradeFlag", "0") + element("currentVersion", current);
    return element("upgradeFlag", "1") + element("currentVersion", current) + element("newVersion", latest) +
           element("downloadUrl", download) + element("fileSize", "73400320");
}

std::string firmware_answer(const Request &request)
{
    const Pairs form = request.form();
    const std::string lacking = missing(form, {"msgId", "currentVersion", "dvcRsv", "accessToken", "languageId"});
    if (!lacking.empty())
        return refusal("missing " + lacking);
    return kHead + element("resultCode", "0") +
           offer(form.at("currentVersion"), kLatestFirmware,
                 std::string("https://ota.example.invalid/firmware/") + kLatestFirmware + ".pkg") +
           optional_echo(form, {"statCode", "postCode", "brandCode", "MAC"}) + "</response>";
}

std::string app_answer(const Request &request)
{
    const Pairs form = request.form();
    const std::string lacking = missing(form, {"packageName", "currentVersion", "accessToken", "languageId"});
    if (!lacking.empty())
        return refusal("missing " + lacking);
    const std::string package = form.at("packageName");
    return kHead + element("resultCode", "0") + element("packageName", package) +
           offer(form.at("currentVersion"), kLatestApp,
                 "https://apps.example.invalid/" + package + "/" + kLatestApp + ".apk") +
           optional_echo(form, {"statCode", "postCode"}) + "</response>";
}

std::string strategy_answer(const Pairs &query)
{
    const std::string lacking = missing(query, {"adinfo", "token", "language_id", "os_type"});
    if (!lacking.empty())
        return refusal("missing " + lacking);
    const std::string slot = query.at("adinfo");
    return kHead + element("resultCode", "0") + element("adinfo", slot) +
           "<adList><ad>" + element("adlinkid", "L-" + slot + "-1") + element("adcode", "AC-1") +
           element("adpositionowner", "7") + element("imageUrl", "http://img.example.invalid/" + slot + "/1.jpg") +
           element("showSeconds", "10") + "</ad></adList></response>";
}

/* The owner travels as "adpositionowner<value>", a pair without "=". */
bool position_owner(const Pairs &query, std::string &owner)
{
    static const std::string key = "adpositionowner";
    for (const auto &pair : query) {
        if (pair.second.empty() && pair.first.compare(0, key.size(), key) == 0 && pair.first.size() > key.size()) {
            owner = pair.first.substr(key.size());
            return true;
        }
    }
    return false;
}

std::string linkinfo_answer(const Pairs &query)
{
    const std::string lacking = missing(query, {"adlinkid", "adcode", "token", "language_id", "os_type"});
    if (!lacking.empty())
        return refusal("missing " + lacking);
    std::string owner;
    if (!position_owner(query, owner))
        return refusal("missing adpositionowner");
    const std::string link = query.at("adlinkid");
    return kHead + element("resultCode", "0") + element("adlinkid", link) + element("adpositionowner", owner) +
           element("linkType", "app") + element("linkUrl", "kxapp://store/detail?id=" + link) + "</response>";
}

std::string guide_answer(const Request &request)
{
    const Pairs query = request.query_form();
    const auto action = query.find("action");
    if (action != query.end() && action->second == "getadstrategy")
        return strategy_answer(query);
    if (action != query.end() && action->second == "getadlinkinfo")
        return linkinfo_answer(query);
    return refusal("unknown action");
}

Reply signed_answer(const std::string &xml)
{
    Reply reply;
    reply.content_type = "application/xml";
    reply.body = signed_xml(xml);
    return reply;
}

}  // namespace

void register_upgrade_ad_services(Cloud &cloud)
{
    for (const char *path : {"/upgrade/check_version", "/upgrade/check_app_version", "/cgi-bin/epg_index.fcgi"})
        cloud.route("*", path, [](const Request &request) { return signed_answer(upgrade_ad_answer(request)); });
}

std::string upgrade_ad_answer(const Request &request)
{
    if (request.path == "/upgrade/check_version")
        return firmware_answer(request);
    if (request.path == "/upgrade/check_app_version")
        return app_answer(request);
    if (request.path == "/cgi-bin/epg_index.fcgi")
        return guide_answer(request);
    return "";
}

}  // namespace kxcloud

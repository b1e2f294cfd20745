#include "faults.h"

#include <cctype>
#include <cstdlib>

namespace kxcloud {

namespace {

struct Kind {
    const char *name;
    bool takes_value, needs_value;
    long fallback; /* the value when none is given */
    long low, high;
    void (*apply)(Reply &reply, long value);
    const char *does; /* with the path and the value */
};

const Kind kKinds[] = {
    {"stall", true, false, 25, 0, 3600, [](Reply &r, long s) { r.delay_ms = static_cast<int>(s * 1000); },
     "answers to %s wait %ld s before their first byte"},
    {"drop", true, false, 0, 0, 100000000, [](Reply &r, long n) { r.drop_after = n; },
     "answers to %s hang up after %ld bytes of body"},
    {"tamper", false, false, 0, 0, 0, [](Reply &r, long) { r.body = tampered(r.body); },
     "answers to %s are changed after signing"},
    {"status", true, true, 0, 100, 599, [](Reply &r, long code) { r.status = static_cast<int>(code); },
     "answers to %s carry HTTP status %ld"},
};

std::string format(const char *text, const std::string &path, long value)
{
    char line[512];
    std::snprintf(line, sizeof line, text, path.c_str(), value);
    return line;
}

}  // namespace

std::string tampered(std::string body)
{
    size_t end = body.find("signatureServer");
    if (end == std::string::npos)
        end = body.size();
    for (size_t i = end; i-- > 0;) {
        if (std::isdigit(static_cast<unsigned char>(body[i]))) {
            body[i] = body[i] == '9' ? '0' : static_cast<char>(body[i] + 1);
            return body;
        }
    }
    for (size_t i = end; i-- > 0;) {
        unsigned char c = static_cast<unsigned char>(body[i]);
        if (std::isalpha(c)) {
            body[i] = static_cast<char>(std::islower(c) ? std::toupper(c) : std::tolower(c));
            return body;
        }
    }
    return body;
}

bool parse_fault(const std::string &option, Fault &out)
{
    std::string &said = out.said;
    const size_t eq = option.find('=');
    const std::string name = option.substr(0, eq);
    const Kind *fault = nullptr;
    for (const Kind &k : kKinds)
        if (name == k.name)
            fault = &k;
    if (fault == nullptr || eq == std::string::npos || eq + 1 == option.size()) {
        said = "not a fault: \"" + option + "\" (stall=PATH[:SECONDS], drop=PATH[:BYTES], tamper=PATH, status=PATH:CODE)";
        return false;
    }
    std::string path = option.substr(eq + 1);
    long value = fault->fallback;
    const size_t colon = path.find(':');
    if (colon != std::string::npos) {
        const std::string number = path.substr(colon + 1);
        char *rest = nullptr;
        value = std::strtol(number.c_str(), &rest, 10);
        path.erase(colon);
        if (!fault->takes_value || number.empty() || *rest != '\0' || value < fault->low || value > fault->high) {
            said = "bad value in \"" + option + "\"";
            return false;
        }
    } else if (fault->needs_value) {
        said = "\"" + option + "\" needs a value after the path";
        return false;
    }
    if (path != "*" && path[0] != '/') {
        said = "a path starts with \"/\" (or is \"*\"): \"" + option + "\"";
        return false;
    }
    void (*apply)(Reply &, long) = fault->apply;
    out.path = path;
    out.change = [apply, value](Reply &reply) { apply(reply, value); };
    said = format(fault->does, path == "*" ? "every path" : path, value);
    return true;
}

}  // namespace kxcloud

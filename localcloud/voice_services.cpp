#include "voice_services.h"

#include "device_services.h"

namespace kxcloud {

namespace {

struct Service {
    const char *path;
    const char *answer; /* before the server's signature */
};

const Service kServices[] = {
    {"/voiceservice/replacedevinfo", "{\"resultCode\":0,\"deviceId\":\"vd-1A2B3C4D5E\",\"replaced\":1}"},
    {"/voiceservice/reportdeviceinfo", "{\"resultCode\":0,\"deviceId\":\"vd-1A2B3C4D5E\",\"registered\":1}"},
    {"/voiceservice/reportdevinfo", "{\"resultCode\":0,\"deviceId\":\"vd-1A2B3C4D5E\"}"},
    {"/voiceservice/getdevinfo",
     "{\"resultCode\":0,\"deviceName\":\"Living Room & Kitchen\",\"VSEnable\":\"1\",\"GSEnable\":\"0\","
     "\"vsAbility\":\"alexa\"}"},
    {"/voiceservice/deletedevinfo", "{\"resultCode\":0,\"deleted\":1}"},
    {"/voiceservice/get_deviceportal_url",
     "{\"resultCode\":0,\"portalUrl\":\"https://portal.example.invalid/device?d=K7Q2\"}"},
    {"/voiceservice/enableskill", "{\"resultCode\":0,\"skillStatus\":\"ENABLED\"}"},
    {"/voiceservice/resetskillenablement", "{\"resultCode\":0,\"skillStatus\":\"RESET\"}"},
    {"/voiceservice/reportstate", "{\"resultCode\":0,\"accepted\":2}"},
    {"/voiceservice/getdeviceinfo",
     "{\"resultCode\":0,\"devices\":[{\"deviceName\":\"Living Room & Kitchen\",\"vsAbility\":\"alexa\"}]}"},
    {"/voiceservice/get_action_info",
     "{\"resultCode\":0,\"actions\":[{\"action\":\"power_on\"},{\"action\":\"volume_up\"}]}"},
    {"/voiceservice/get_sample_phrases", "{\"resultCode\":0,\"phrases\":[\"turn on the TV\",\"louder\"]}"},
    {"/voiceservice/reporttraitstate", "{\"resultCode\":0,\"accepted\":1}"},
    {"/voiceservice/get_alexa_language",
     "{\"resultCode\":0,\"languages\":[{\"code\":\"en-US\",\"name\":\"English (US)\"},"
     "{\"code\":\"de-DE\",\"name\":\"Deutsch\"},{\"code\":\"fr-FR\",\"name\":\"Fran\\u00e7ais\"}]}"},
    {"/voiceservice/get_alexa_locale", "{\"resultCode\":0,\"locales\":[\"en-US\",\"en-GB\",\"de-DE\"]}"},
    {"/voiceservice/get_alexa_endpoint_url",
     "{\"resultCode\":0,\"endpoint\":\"https://avs.example.invalid\"}"},
    {"/voiceservice/get_sales_support_info", "{\"resultCode\":0,\"supported\":1,\"regions\":[\"US\",\"DE\"]}"},
    {"/voiceservice/get_skill_info", "{\"resultCode\":0,\"skillId\":\"skill-7\",\"skillName\":\"TV Control\"}"},
    {"/voiceservice/get_sample_utterance",
     "{\"resultCode\":0,\"utterances\":[\"Alexa, turn on the TV\",\"Alexa, mute\"]}"},
    {"/voiceservice/get_google_language", "{\"resultCode\":0,\"languages\":[\"en\",\"de\"]}"},
    {"/voiceservice/get_google_locale", "{\"resultCode\":0,\"locales\":[\"en-US\",\"de-DE\"]}"},
    {"/voiceservice/get_sales_info", "{\"resultCode\":0,\"onSale\":1,\"countries\":[\"US\",\"GB\"]}"},
    {"/voiceservice/get_web_portal_language", "{\"resultCode\":0,\"languages\":[\"en\",\"de\",\"fr\"]}"},
    {"/voiceservice/get_web_portal_locale", "{\"resultCode\":0,\"locales\":[\"en-US\",\"fr-FR\"]}"},
};

/* The refusal's text before it is signed. */
const char *const kVoiceRefusal = "{\"resultCode\":1,\"errorDesc\":\"sign check failed\"}";

}  // namespace

void register_voice_services(Cloud &cloud)
{
    for (const Service &service : kServices) {
        const std::string answer = service.answer;
        cloud.route("*", service.path, [answer](const Request &request) {
            return Reply(200, signed_json(request_sign_opens(request) ? answer : kVoiceRefusal), "application/json");
        });
    }
}

std::string voice_service_answer(const std::string &path)
{
    for (const Service &service : kServices) {
        if (path == service.path)
            return service.answer;
    }
    return "";
}

}  // namespace kxcloud

/*
 * The voice services of the local cloud: a signed JSON answer for every path
 * under "/voiceservice/" that the voice calls reach, so that a demo, a
 * benchmark or a test can register a voice device and read the catalogues
 * against a Cloud.
 *
 *   kxcloud::Cloud cloud;
 *   kxcloud::register_voice_services(cloud);
 *   KX_GLOBAL_INIT(cloud.https_domain().c_str());
 *   ... KX_REPORT_VOICE_DEVICES_INFO, KX_GET_ALEXA_LANGUAGE, ... return 0
 *
 * Every answer is signed with the build's answer-signing key. A request whose
 * "sign" does not open with the private half of the embedded server key is
 * answered with a signed refusal: resultCode 1, "sign check failed".
 */
#ifndef KX_TEST_VOICE_SERVICES_H
#define KX_TEST_VOICE_SERVICES_H

#include <string>

#include "test_cloud.h"

namespace kxcloud {

/* Routes every voice path of the library on `cloud`. */
void register_voice_services(Cloud &cloud);

/* The answer a voice service gives before it is signed (the verified text the
 * caller receives); "" when `path` is not a voice service. */
std::string voice_service_answer(const std::string &path);

}  // namespace kxcloud

#endif

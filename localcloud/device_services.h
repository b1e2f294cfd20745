/*
 * The account and messaging services of the local cloud: plausible signed
 * answers for every path the account calls reach, so that a demo, a benchmark
 * or a test can run a whole device session against a Cloud.
 *
 *   kxcloud::Cloud cloud;
 *   kxcloud::register_device_services(cloud);
 *   KX_GLOBAL_INIT(cloud.https_domain().c_str());
 *   ... KX_AUTH_AUTHENTICATE, KX_SIGN_OUT, ... return 0
 *
 * Sign-in and device serial answer XML, the others JSON, each signed with the
 * build's answer-signing key. A request whose "sign" does not open with the
 * private half of the embedded server key (or that carries no sign where one
 * is due) is answered with a signed refusal: resultCode 1, "sign check
 * failed". The tokens handed out are the constants below.
 */
#ifndef KX_TEST_DEVICE_SERVICES_H
#define KX_TEST_DEVICE_SERVICES_H

#include <string>

#include "test_cloud.h"

namespace kxcloud {

constexpr const char *kServiceAccessToken = "AT-5f1c2e9a7b3d4c60";
constexpr const char *kServiceRefreshToken = "RT-0d9e8f7a6b5c4d3e";
constexpr const char *kServiceCustomerId = "10086001";

/* Routes every account and messaging path of the library on `cloud`. */
void register_device_services(Cloud &cloud);

/* The request's "sign" (in its body, or its query for a GET) opens to an MD5
 * digest with the private half of the embedded server key. */
bool request_sign_opens(const Request &request);

/* The answer a service gives before it is signed (the verified text the
 * caller receives for JSON services, the rewritten file for XML ones).
 * `path` is the service path, "" when it is not one of these services. */
std::string device_service_answer(const std::string &path);

}  // namespace kxcloud

#endif

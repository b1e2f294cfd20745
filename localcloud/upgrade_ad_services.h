/*
 * The upgrade and advertising services of the local cloud: signed XML answers
 * for the firmware and application upgrade checks and for the programme
 * guide's advertising endpoint, worked out from what the request carried.
 *
 *   kxcloud::Cloud cloud;
 *   kxcloud::register_upgrade_ad_services(cloud);
 *   ... KX_UPGRADE_CHECK_VERSION, KX_AD_GET_STRATEGY, ... return 0
 *
 * The requests carry no signature (the access token is the credential), so
 * what the services check is the presence of their keys:
 *  - "/upgrade/check_version": currentVersion, dvcRsv and accessToken in the
 *    form body; the answer offers kLatestFirmware unless that is the current
 *    version, and echoes the optional codes it received.
 *  - "/upgrade/check_app_version": packageName, currentVersion, accessToken;
 *    offers kLatestApp.
 *  - "/cgi-bin/epg_index.fcgi", GET, by its action: "getadstrategy" wants
 *    adinfo and token; "getadlinkinfo" wants adlinkid, adcode, token and the
 *    position owner written straight after the key name "adpositionowner"
 *    (no "="), which is how the guide's devices send it.
 * A request that lacks something is answered with a signed refusal:
 * resultCode 1 and an errorDesc naming what is missing.
 */
#ifndef KX_TEST_UPGRADE_AD_SERVICES_H
#define KX_TEST_UPGRADE_AD_SERVICES_H

#include <string>

#include "test_cloud.h"

namespace kxcloud {

constexpr const char *kLatestFirmware = "V8.10.02";
constexpr const char *kLatestApp = "3.4.0";

/* Routes the upgrade and advertising paths on `cloud`. */
void register_upgrade_ad_services(Cloud &cloud);

/* The answer these services give to `request` before it is signed: the text
 * a verified call leaves in its stream. "" when the request is for none of
 * them. */
std::string upgrade_ad_answer(const Request &request);

}  // namespace kxcloud

#endif

/*
 * The log services of the local cloud: the service list, the log strategy,
 * the exception-dotting policy, the upload service and the upgrade-event
 * report, answered the way the library expects them.
 *
 *   kxcloud::Cloud cloud;
 *   kxcloud::register_log_services(cloud);
 *   ... KX_LOG_GET_SERVICELIST, KX_LOG_QUERY_ALL_POLICY, KX_LOG_UPLOAD ... return 0
 *
 *   GET  /pds/getAppServiceList          signed XML: two policy service addresses (the
 *                                        cloud's own domain first) and two upload service
 *                                        addresses (its /log/upload first), each the hex
 *                                        text of its AES cipher text (pair A)
 *   GET  /log/get_strategy               signed XML: the log strategy
 *   GET  /log/get_dotexception_strategy  unsigned XML: resultCode 0 and kLogPolicy as
 *                                        policyContent (gzip, base64, AES pair A, hex)
 *   POST /log/upload                     JSON: resultCode 0 and the size of the log it
 *                                        decoded from "logmsg" (URL-decoded, base64, AES
 *                                        pair B, gunzip) or "message"; resultCode 1 when
 *                                        neither decodes
 *   POST /upgrade/report_upgrade_event   signed XML: resultCode 0, or 1 when the form lacks
 *                                        deviceExtInfoStr, eventCode or accessToken
 *
 * The addresses and the policy are made with the build's AES pairs, by the
 * test cryptography (test_crypto.h), independently of the library.
 */
#ifndef KX_TEST_LOG_SERVICES_H
#define KX_TEST_LOG_SERVICES_H

#include <string>
#include <vector>

#include "test_cloud.h"

namespace kxcloud {

/* The plain policy XML the exception-dotting service hands out. */
extern const char *const kLogPolicy;

/* Routes every log service path (and the upload address) on `cloud`. */
void register_log_services(Cloud &cloud);

/* A service address as the service list carries it: hex(AES pair A). */
std::string log_service_address(const std::string &address);
/* A policy as policyContent carries it: hex(AES pair A(base64(gzip))). */
std::string log_policy_content(const std::string &policy_xml);

/* The signed service list of the given addresses (before signing). */
std::string log_service_list(const std::vector<std::string> &policy, const std::vector<std::string> &upload);
/* The log strategy before signing (what KX_LOG_QUERY_POLICY leaves in its stream). */
std::string log_strategy_answer();
/* The log bytes of an upload body ("" when it carries none that decode). */
std::string decoded_log_upload(const std::string &body);

}  // namespace kxcloud

#endif

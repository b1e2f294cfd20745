/*
 * The log service's readers of answer files, apart from the calls so that
 * they can be driven with any bytes (fuzz/) without a transfer or a
 * signature. Both read the stream from its start and log under their own
 * names; the calls add their own failure lines.
 */
#ifndef KX_INTERNAL_LOG_PARSE_H
#define KX_INTERNAL_LOG_PARSE_H

#include <cstdint>
#include <cstdio>

#include "kx_sdk_log.h"

namespace kx {

/* Zeroes the list and fills it from a verified service-list answer: resultCode
 * "0", then the decrypted strategy_all and dasurl addresses, 8 of each kind at
 * most. 0, or -1 when the answer does not parse or its resultCode is not "0". */
int32_t KX_LOG_Parser_ServiceList(std::FILE *stream, KX_LOG_SERVICE_LIST_S *list);

/* Replaces the all-policy answer in the stream by the policy its
 * policyContent carries (hex, AES, base64, gzip): on 0 the stream holds the
 * whole policy XML, rewound. On -1 the stream is left as it was when the
 * content could not be found, decrypted or decoded, and empty after that. */
int32_t KX_LOG_UNZIP_POLICY(std::FILE *stream);

}  // namespace kx

#endif

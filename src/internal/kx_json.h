/*
 * Owners for cJSON's trees and printed texts.
 */
#ifndef KX_INTERNAL_JSON_H
#define KX_INTERNAL_JSON_H

#include <cjson/cJSON.h>

#include "internal/kx_owned.h"

namespace kx {

inline void free_json_text(char *text) { cJSON_free(text); }

using JsonTree = Owned<cJSON, cJSON_Delete>;
using JsonText = Owned<char, free_json_text>;

}  // namespace kx

#endif

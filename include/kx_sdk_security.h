/*
 * kx_sdk_security.h -- Request signatures, RSA and base64, AES and text encodings, gzip.
 * Reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_SECURITY_H
#define KX_SDK_SECURITY_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

KX_END_DECLS

#endif

/*
 * kx_sdk_verify.h -- Verification of the cloud's signed XML and JSON answers.
 * Reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_VERIFY_H
#define KX_SDK_VERIFY_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

KX_END_DECLS

#endif

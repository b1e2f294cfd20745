/*
 * kx_sdk_account.h -- Account and messaging calls.
 * Reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_ACCOUNT_H
#define KX_SDK_ACCOUNT_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

KX_END_DECLS

#endif

/*
 * kx_sdk_global.h -- Initialisation, process-wide state, service domain and URL building.
 * Reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_GLOBAL_H
#define KX_SDK_GLOBAL_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

KX_END_DECLS

#endif

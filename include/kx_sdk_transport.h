/*
 * kx_sdk_transport.h -- Response sinks, the HTTP/HTTPS request family and the file download.
 * Reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_TRANSPORT_H
#define KX_SDK_TRANSPORT_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

KX_END_DECLS

#endif

/*
 * kx_sdk_list.h -- Lists, checked memory release and thread enumeration.
 * Reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_LIST_H
#define KX_SDK_LIST_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

KX_END_DECLS

#endif

/*
 * kx_sdk_types.h -- linkage macros and the records shared by several areas.
 * Included by every public header; reach it through kx_cloud_openapi.h.
 */
#ifndef KX_SDK_TYPES_H
#define KX_SDK_TYPES_H

#include <stdint.h>
#include <stdio.h>

#if defined(__GNUC__)
#define KX_API __attribute__((visibility("default")))
#else
#define KX_API
#endif

#ifdef __cplusplus
#define KX_BEGIN_DECLS extern "C" {
#define KX_END_DECLS }
#else
#define KX_BEGIN_DECLS
#define KX_END_DECLS
#endif

KX_BEGIN_DECLS

/* Capacity of the inline answer record and of the large answer record. */
#define KX_SDK_DATA_BUF_SIZE 102400
#define KX_SDK_LARGEDATA_SIZE 204800

/* Inline answer record of the "external" transfers. The caller zeroes the whole
 * record before a transfer; the sink writes no terminating NUL, so the body is
 * NUL-terminated only while it is shorter than the data area. */
typedef struct {
    char data[KX_SDK_DATA_BUF_SIZE]; /* received body, filled from the start */
    uint32_t used;                   /* bytes already stored in data */
} KX_SDK_DATA_BUF_S;

/* Large answer record: a caller-owned buffer of at least 204800 bytes. */
typedef struct {
    char *buffer;  /* the caller allocates and frees it */
    uint32_t used; /* bytes already stored in buffer */
} KX_SDK_LARGEDATA_S;

/* One request header, sent as "%s:%s" (no blank after the colon); name and
 * value together must stay below 127 characters. */
typedef struct {
    char name[64];
    char value[128];
} KX_SDK_HTTP_HEADER_S;

/* Singly linked list of items (in practice heap texts owned by their nodes). */
typedef struct KX_SDK_LIST_NODE_S {
    void *item;
    struct KX_SDK_LIST_NODE_S *next;
} KX_SDK_LIST_NODE_S;

typedef struct {
    KX_SDK_LIST_NODE_S *first;
    KX_SDK_LIST_NODE_S *last;
    int32_t count;
} KX_SDK_LINKLIST_S;

KX_END_DECLS

#endif

/*
 * kx_sdk_list.h -- Lists, checked memory release and thread enumeration.
 * Reach it through kx_cloud_openapi.h.
 *
 * A KX_SDK_LINKLIST_S (kx_sdk_types.h) is a singly linked list with first and
 * last pointers and a count. The list record belongs to whoever creates it;
 * nodes are allocated by KX_SDK_ADDNODE; items are heap memory the caller
 * allocated (in practice NUL-terminated texts) and are released together with
 * their nodes by KX_SDK_FREE_LINKLIST. A list must be used by one thread at a
 * time; none of these calls locks.
 */
#ifndef KX_SDK_LIST_H
#define KX_SDK_LIST_H

#include "kx_sdk_types.h"

KX_BEGIN_DECLS

/* Makes list empty: first and last null, count 0. A null list is ignored. */
KX_API void KX_SDK_INIT_LINKEDLIST(KX_SDK_LINKLIST_S *list);

/*
 * Appends item at the tail of list in a new node and adds 1 to the count; on
 * an empty list (count 0) the node becomes both first and last. The item
 * becomes the list's: KX_SDK_FREE_LINKLIST releases it with the node. A null
 * list, or a node that cannot be allocated, leaves the list unchanged (the
 * item then stays the caller's).
 */
KX_API void KX_SDK_ADDNODE(KX_SDK_LINKLIST_S *list, void *item);

/*
 * Logs the item of each node as a text (information class), from the first
 * node on, at most count nodes. Does nothing for a null list or a count
 * below 1. Always returns 0.
 */
KX_API int32_t KX_PRINTF_LINKLIST(KX_SDK_LINKLIST_S *list);

/*
 * Releases every node of list and its item with KX_SDK_FREE, walking from the
 * first node. The record itself is neither released nor reset: its pointers
 * still hold the released addresses, so re-initialise or release it next.
 * Returns 0; -1 for a null list ("plist is NULL.").
 */
KX_API int32_t KX_SDK_FREE_LINKLIST(KX_SDK_LINKLIST_S *list);

/*
 * Releases heap memory with free. Returns 0 after releasing ptr; -1 for a
 * null pointer, which is logged ("the pointer is null already!") and is no
 * error beyond the result.
 */
KX_API int32_t KX_SDK_FREE(void *ptr);

/*
 * Lists the thread ids of process pid by reading /proc/<pid>/task/: a new
 * list record (calloc) whose items are the ids as NUL-terminated texts.
 * Only ids of up to four digits are collected; longer entries are logged and
 * skipped. The list is logged before it is returned. The caller owns the
 * record, its nodes and texts: release them with KX_SDK_FREE_LINKLIST
 * followed by KX_SDK_FREE (or free) of the record.
 * Returns null when the directory cannot be opened (no such process) or
 * memory runs out. Several threads may enumerate at once.
 */
KX_API KX_SDK_LINKLIST_S *KX_SDK_FIND_ALL_TIDS(uint32_t pid);

KX_END_DECLS

#endif

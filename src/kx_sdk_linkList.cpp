/*
 * A singly linked list of heap items with first and last pointers and a count.
 */
#include <cstdlib>

#include "internal/kx_log.h"
#include "kx_sdk_list.h"

void KX_SDK_INIT_LINKEDLIST(KX_SDK_LINKLIST_S *list)
{
    if (list == nullptr)
        return;
    list->first = nullptr;
    list->last = nullptr;
    list->count = 0;
}

void KX_SDK_ADDNODE(KX_SDK_LINKLIST_S *list, void *item)
{
    if (list == nullptr)
        return;
    auto *node = static_cast<KX_SDK_LIST_NODE_S *>(std::calloc(1, sizeof(KX_SDK_LIST_NODE_S)));
    /* Without a node there is nothing to link; the list stays as it was. */
    if (node == nullptr)
        return;
    node->item = item;
    node->next = nullptr;

    if (list->count == 0) {
        list->first = node;
        list->last = node;
    } else {
        list->last->next = node;
        list->last = node;
    }
    list->count++;
}

int32_t KX_PRINTF_LINKLIST(KX_SDK_LINKLIST_S *list)
{
    if (list == nullptr || list->count < 1)
        return 0;
    /* At most count nodes, and never past the tail; a node without an item
     * is shown as "(null)" rather than handed to the formatter as null. */
    const KX_SDK_LIST_NODE_S *node = list->first;
    for (int32_t i = 0; i < list->count && node != nullptr; ++i, node = node->next)
        KX_LOGI("%s\n", node->item != nullptr ? static_cast<const char *>(node->item) : "(null)");
    return 0;
}

int32_t KX_SDK_FREE_LINKLIST(KX_SDK_LINKLIST_S *list)
{
    KX_LOGI("KX_SDK_FREE_LINKLIST\n");
    if (list == nullptr) {
        KX_LOGE("plist is NULL.\n");
        return -1;
    }
    /* The record keeps its (now stale) pointers: the caller re-initialises or
     * releases it. */
    KX_SDK_LIST_NODE_S *node = list->first;
    while (node != nullptr) {
        KX_SDK_LIST_NODE_S *next = node->next;
        KX_SDK_FREE(node->item);
        KX_SDK_FREE(node);
        node = next;
    }
    return 0;
}

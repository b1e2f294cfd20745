/*
 * Thread enumeration: the ids of a process's threads, read from
 * /proc/<pid>/task/, as a list of texts.
 */
#include <cstdlib>
#include <cstring>

#include <dirent.h>

#include "internal/kx_format.h"
#include "internal/kx_log.h"
#include "internal/kx_owned.h"
#include "kx_sdk_list.h"

namespace {

void close_dir(DIR *dir)
{
    closedir(dir);
}
using DirPtr = kx::Owned<DIR, close_dir>;

/*
 * Entries are classified by the length their directory record has on the
 * device's 32-bit layout (ino 4, off 4, reclen 2, type 1, then the name and
 * its NUL, rounded up to 4 bytes), not by their type. The record length on
 * another layout differs for the same name (on 64-bit hosts a four-character
 * name has 24), so the rule is expressed by the name's length, which gives
 * the same classes everywhere:
 *   16 bytes: names of 1 to 4 characters   -> collected (unless "." or "..")
 *   24 bytes: names of 9 to 12 characters  -> logged as file or subdirectory
 *   others (5 to 8, 13 and more)           -> logged as "other file"
 * Thread ids of up to four digits are thus collected, longer ones skipped.
 */
std::size_t record_length_32(std::size_t name_length)
{
    constexpr std::size_t kNameOffset = 11;
    return (kNameOffset + name_length + 1 + 3) & ~static_cast<std::size_t>(3);
}

}  // namespace

KX_SDK_LINKLIST_S *KX_SDK_FIND_ALL_TIDS(uint32_t pid)
{
    kx::HeapPtr<KX_SDK_LINKLIST_S> list(static_cast<KX_SDK_LINKLIST_S *>(std::calloc(1, sizeof(KX_SDK_LINKLIST_S))));
    if (!list)
        return nullptr;
    KX_SDK_INIT_LINKEDLIST(list.get());

    kx::FixedText<64> path;
    path.format("/proc/%u/task/", pid);
    KX_LOGI(" *********** this is KX_SDK_FIND_ALL_TIDS\n");

    DirPtr dir(opendir(path.c_str()));
    if (!dir) {
        KX_LOGE(" *********** DIR is NULL\n");
        return nullptr; /* the list record is released by its owner */
    }

    /* readdir on a directory stream this call owns: glibc keeps the entry
     * inside the stream, so concurrent enumerations on their own streams do
     * not disturb each other (readdir_r is deprecated for that reason). */
    for (const struct dirent *entry = readdir(dir.get()); entry != nullptr; entry = readdir(dir.get())) {
        const std::size_t name_length = std::strlen(entry->d_name);
        const std::size_t reclen = record_length_32(name_length);
        if (reclen == 24) {
            if (entry->d_type == DT_REG)
                KX_LOGI("NORMAL FILE:%s\n", entry->d_name);
            else
                KX_LOGI("subdirectory:%s\n", entry->d_name);
        } else if (reclen == 16) {
            if (entry->d_name[0] == '.')
                continue;
            auto *tid = static_cast<char *>(std::calloc(name_length + 1, 1));
            if (tid == nullptr)
                continue; /* out of memory: this id is skipped */
            std::memcpy(tid, entry->d_name, name_length);
            const int32_t before = list->count;
            KX_SDK_ADDNODE(list.get(), tid);
            if (list->count == before)
                std::free(tid); /* no node for it */
        } else {
            KX_LOGI("other file[%s]\n", entry->d_name);
        }
    }

    KX_PRINTF_LINKLIST(list.get());
    return list.release();
}

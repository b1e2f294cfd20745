/*
 * The two platform services the library needs from the device: the maker's
 * debug log and its OS abstraction's thread start. libkx_platform.so holds
 * small stand-ins; on a device the maker's own libraries provide them, and any
 * program (or an LD_PRELOAD library) that defines these names replaces them.
 */
#ifndef VTL_PLATFORM_H
#define VTL_PLATFORM_H

#include <pthread.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VTL_PLATFORM_API __attribute__((visibility("default")))

/* Level words of the two classes the library logs in. */
#define VTL_DEBUG_LEVEL_ERROR 0x01BC03E8u
#define VTL_DEBUG_LEVEL_INFO  0x01BC0FA0u

/* Non-zero when lines of the given level word are to be written. */
VTL_PLATFORM_API int vtlDebugCheckLevelGetFrameAndChunk(unsigned int level);

/* printf-style output of one line. */
VTL_PLATFORM_API void vtlDebugOutput0(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

/* pthread_create with the caller's source position for the OS's bookkeeping; 0 on success. */
VTL_PLATFORM_API int _vtlOsalPOSIX_pthread_create_line(pthread_t *thread, const pthread_attr_t *attr,
                                                       void *(*start)(void *), void *arg,
                                                       const char *file, int line);

#ifdef __cplusplus
}
#endif

#endif

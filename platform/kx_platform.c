/*
 * Stand-in debug log and thread start for hosts without the maker's libraries.
 *
 * Threshold: error lines are always written to stderr; information lines only
 * when the variable VTL_DEBUG_LEVEL is "info" (or "all"), and nothing at all
 * when it is "none". Reading the environment is this stand-in's business only:
 * the library itself reads no variable and no file.
 */
#define _GNU_SOURCE
#include "vtl_platform.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { VTL_SHOW_NONE = 0, VTL_SHOW_ERROR = 1, VTL_SHOW_INFO = 2 };

static int vtl_threshold(void)
{
    static int cached = -1;
    if (cached < 0) {
        const char *env = getenv("VTL_DEBUG_LEVEL");
        int value = VTL_SHOW_ERROR;
        if (env != NULL) {
            if (strcmp(env, "none") == 0)
                value = VTL_SHOW_NONE;
            else if (strcmp(env, "info") == 0 || strcmp(env, "all") == 0)
                value = VTL_SHOW_INFO;
        }
        cached = value;
    }
    return cached;
}

int vtlDebugCheckLevelGetFrameAndChunk(unsigned int level)
{
    int threshold = vtl_threshold();
    if (level == VTL_DEBUG_LEVEL_ERROR)
        return threshold >= VTL_SHOW_ERROR;
    if (level == VTL_DEBUG_LEVEL_INFO)
        return threshold >= VTL_SHOW_INFO;
    return 0;
}

void vtlDebugOutput0(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
}

int _vtlOsalPOSIX_pthread_create_line(pthread_t *thread, const pthread_attr_t *attr,
                                      void *(*start)(void *), void *arg, const char *file, int line)
{
    (void)file;
    (void)line;
    return pthread_create(thread, attr, start, arg);
}

/*
 * Logging. Every line goes through the maker's debug-log library as
 * "%s:%d:%s(): " + message, the three fields being the source file's base name
 * (computed at compile time), the line and the function's name. The level word
 * is tested before anything is formatted.
 *
 *   KX_LOGE("invalid arg!\n");                  error class, logged as __func__
 *   KX_LOGI("Get ps8Url is %s\n", url);         information class
 *   KX_LOGE_AS(name, "...")                     shared machinery speaking for
 *                                               the exported call `name`
 *
 * Messages are the system's own texts, slips included; keep them where they
 * are used.
 */
#ifndef KX_INTERNAL_LOG_H
#define KX_INTERNAL_LOG_H

#include "vtl_platform.h"

namespace kx {

constexpr unsigned int kLevelError = VTL_DEBUG_LEVEL_ERROR;
constexpr unsigned int kLevelInfo = VTL_DEBUG_LEVEL_INFO;

constexpr const char *base_name(const char *path)
{
    const char *base = path;
    for (const char *p = path; *p != '\0'; ++p) {
        if (*p == '/')
            base = p + 1;
    }
    return base;
}

}  // namespace kx

#define KX_FILE_BASE                                                   \
    ([]() constexpr -> const char * {                                  \
        constexpr const char *kx_base_ = ::kx::base_name(__FILE__);    \
        return kx_base_;                                               \
    }())

#define KX_LOG_AT_(level, func, fmt, ...)                                              \
    do {                                                                               \
        if (vtlDebugCheckLevelGetFrameAndChunk(level))                                 \
            vtlDebugOutput0("%s:%d:%s(): " fmt, KX_FILE_BASE, __LINE__, func, ##__VA_ARGS__); \
    } while (0)

#define KX_LOGE(fmt, ...) KX_LOG_AT_(::kx::kLevelError, __func__, fmt, ##__VA_ARGS__)
#define KX_LOGI(fmt, ...) KX_LOG_AT_(::kx::kLevelInfo, __func__, fmt, ##__VA_ARGS__)
#define KX_LOGE_AS(func, fmt, ...) KX_LOG_AT_(::kx::kLevelError, func, fmt, ##__VA_ARGS__)
#define KX_LOGI_AS(func, fmt, ...) KX_LOG_AT_(::kx::kLevelInfo, func, fmt, ##__VA_ARGS__)

#endif

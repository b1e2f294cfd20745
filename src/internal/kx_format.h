/*
 * Bounded formatting. Several texts of the wire protocol are formatted into
 * fixed-size buffers whose truncation is observable (a 4-byte number text, a
 * 1024-byte token prefix, a 128-byte line). FixedText<N> names that bound, so
 * the truncation is deliberate, visible at the call and never an overrun.
 */
#ifndef KX_INTERNAL_FORMAT_H
#define KX_INTERNAL_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace kx {

template <std::size_t N>
class FixedText {
public:
    FixedText() { std::memset(text_, 0, N); }

    /* snprintf into the N-byte buffer: at most N - 1 characters are kept. */
    __attribute__((format(printf, 2, 3))) void format(const char *fmt, ...)
    {
        std::va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(text_, N, fmt, ap);
        va_end(ap);
    }
    void clear() { std::memset(text_, 0, N); }

    const char *c_str() const { return text_; }
    char *data() { return text_; }
    std::size_t length() const { return std::strlen(text_); }
    static constexpr std::size_t capacity() { return N; }

private:
    char text_[N];
};

}  // namespace kx

#endif

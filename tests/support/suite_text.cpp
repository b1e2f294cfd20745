#include "suite_text.h"

#include <cstdarg>

namespace kxtest {

std::string fmt(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    va_list measure;
    va_copy(measure, ap);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    std::vsnprintf(&text[0], text.size() + 1, format, ap);
    va_end(ap);
    return text;
}

std::string stream_text(std::FILE *stream)
{
    std::string text;
    std::fflush(stream);
    std::rewind(stream);
    char chunk[4096];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, stream)) > 0;)
        text.append(chunk, n);
    return text;
}

std::string file_text(const std::string &path)
{
    return Stream(std::fopen(path.c_str(), "rb")).text();
}

std::string route(const kxcloud::Request &request)
{
    return std::string(request.tls ? "https " : "http ") + request.method + " " + request.path;
}

}  // namespace kxtest

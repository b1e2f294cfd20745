#include "gz_reference.h"

#include <zlib.h>

#include "kx_cloud_openapi.h"

namespace kxtest {

GzOutcome gz_reference(const std::string &input, uint32_t capacity, char fill)
{
    static const unsigned char kZlibHeader[2] = {0x78, 0x01};
    GzOutcome o;
    o.out.assign(capacity, fill);
    o.outlen = capacity;
    const uint32_t inlen = static_cast<uint32_t>(input.size());
    z_stream stream{};
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(input.data()));
    stream.next_out = reinterpret_cast<Bytef *>(&o.out[0]);
    /* A failure logs the operation and its code and is the result; out keeps what was written. */
    auto fail = [&](const char *op, int code) {
        o.log.push_back({true, std::string(op) + " # error: " + std::to_string(code) + "\n"});
        o.result = code;
        return o;
    };
    int result = inflateInit2_(&stream, 31, "1.2.8", static_cast<int>(sizeof(z_stream)));
    if (result != Z_OK)
        return fail("inflateInit2", result);
    while (stream.total_out < capacity && stream.total_in < inlen) {
        stream.avail_in = 1;
        stream.avail_out = 1;
        result = inflate(&stream, Z_NO_FLUSH);
        if (result == Z_STREAM_END) {
            o.log.push_back({false, "inflate # break out of while loop: " + std::to_string(result) + "\n"});
            break;
        }
        if (result == Z_DATA_ERROR) {
            /* Once more with a zlib header offered, then on from where the input stood. */
            Bytef *resume = stream.next_in;
            stream.next_in = const_cast<Bytef *>(kZlibHeader);
            stream.avail_in = sizeof kZlibHeader;
            result = inflate(&stream, Z_NO_FLUSH);
            stream.next_in = resume;
        }
        if (result != Z_OK) {
            inflateEnd(&stream);
            return fail("inflate", result);
        }
    }
    result = inflateEnd(&stream);
    if (result != Z_OK)
        return fail("inflateEnd", result);
    o.outlen = static_cast<uint32_t>(stream.total_out);
    return o;
}

GzLine gz_line_of(const RawLine &line)
{
    const std::string marker = "KX_SDK_GZDECOMPRESS(): ";
    size_t at = line.text.find(marker);
    std::string text = at == std::string::npos ? line.text : line.text.substr(at + marker.size());
    size_t space = text.find(' ');
    size_t digits = space == std::string::npos ? space : text.find_first_not_of("0123456789", space + 1);
    if (digits != std::string::npos && digits > space + 1)
        text.replace(space + 1, digits - space - 1, "#");
    return {line.error, text};
}

GzOutcome gz_library(const std::string &in, uint32_t capacity, char fill, std::vector<RawLine> (*take_lines)())
{
    GzOutcome o;
    o.out.assign(capacity, fill);
    take_lines(); /* forget anything earlier */
    uint32_t outlen = capacity;
    o.result = KX_SDK_GZDECOMPRESS(in.data(), static_cast<uint32_t>(in.size()), &o.out[0], &outlen);
    o.outlen = outlen;
    for (const RawLine &line : take_lines())
        o.log.push_back(gz_line_of(line));
    return o;
}

std::string describe(const GzOutcome &o)
{
    std::string text = "result " + std::to_string(o.result) + ", outlen " + std::to_string(o.outlen) + ", log [";
    for (const GzLine &l : o.log)
        text += std::string(l.error ? "E " : "I ") + l.text;
    return text + "]";
}

}  // namespace kxtest

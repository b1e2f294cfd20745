/*
 * kx_sdk_common, gzip: one-shot compression and decompression between
 * caller-owned buffers of stated capacity. Neither allocates output.
 */
#include "kx_sdk_security.h"

#include <zlib.h>

#include "internal/kx_gzip.h"
#include "internal/kx_log.h"

namespace {

/* zlib version text handed to the initialisers (any "1.x" is accepted). */
constexpr char kZlibVersion[] = "1.2.8";

/* A zlib header offered to the decompressor when the input is not the gzip
 * stream it expects. */
const unsigned char kZlibHeader[2] = {0x78, 0x01};

/*
 * The decompressor's results are those of a walk that offers inflate one
 * input byte and one output byte per call (a step), from the start, while
 * the output is below the capacity and the input below its length: that walk
 * is what makes the output bound exact, and what it returns, writes and logs
 * for complete, cut, corrupt, headerless and over-long inputs is the
 * contract. Walking so costs an inflate call per byte; Walk gets the same
 * results at the speed of one inflate over the buffer.
 *
 * Why that holds. inflate's decoding does not depend on how its input and
 * output are handed to it: it takes input bytes one at a time as it needs
 * them (I), writes output bytes (O), copies stored bytes one for one (X, an
 * I and an O at once), and meets the end of the stream or an error at fixed
 * points between them. Where a call stops is all that the offers decide, and
 * its state there is the same whichever offers led to it. A step takes at
 * most one I and one O and goes on until it would need a second of either,
 * so the walk's steps are the event sequence cut greedily into "I", "O",
 * "IO", "OI" and "X". The walk ends after the step holding the
 * inlen-th I or the capacity-th O (call it the edge event), or at an end or
 * an error before. Only that last step depends on where the steps fall: an
 * "OI" ending in the edge event took an output byte that "I" would not, an
 * "IO" holding it took no further input. Where the steps fall is known
 * after two equal events in a row (a step never holds two) or an X, and in a
 * run of alternating events only from where the run began.
 *
 * So Walk
 *  1. steps exactly until the first output byte (the gzip header and the
 *     first block's tables): inflate allocates its window at the end of the
 *     call that first writes, and a step does that exactly where the walk
 *     does, so even a failed allocation gives the walk's result;
 *  2. inflates in one call up to kEdge bytes before either limit;
 *  3. goes on to the edge event in calls that each take one run of equal
 *     events (all the output until input is needed, then all the input
 *     until output is needed, a stored byte alone), keeping the set of
 *     states the current step may be in: it is known again after a run of
 *     two or a stored byte;
 *  4. finishes the current step with what it may still take, then steps
 *     exactly to the end.
 * Where 3 ends with the step still unknown (kEdge events alternating one
 * for one: only a stream made to do that), or anything is not as expected,
 * the stream is reset and walked exactly from the start. Nothing is logged
 * before the walk's end or failure, so that costs time only.
 *
 * A call that makes no progress returns Z_BUF_ERROR; one that writes the last
 * bytes and then needs the trailer does too when it was offered no input
 * (inflate counts the output as the trailer's). Neither happens to a step,
 * so the calls of 2 to 4 judge progress by the totals instead.
 */

constexpr const char *kDecompressName = "KX_SDK_GZDECOMPRESS";

/* How far before the input's end or the capacity the one-call inflate stops. */
constexpr uLong kEdge = 64;

enum class Flow {
    Go,      /* the walk goes on */
    Done,    /* the stream ended, or the walk's limits were reached */
    Failed,  /* an error, logged; failure() is the result */
    Resumed, /* the retry with a zlib header was taken: only an exact walk goes on */
};

/* The states the current step may be in, as a set. */
enum : unsigned { kFresh = 1, kHoldsIn = 2, kHoldsOut = 4, kUnknown = kFresh | kHoldsIn | kHoldsOut };

/* The set after one event: an I, an O or (both) an X. */
unsigned after_event(unsigned states, bool input, bool output)
{
    if (input && output)
        return kFresh;
    unsigned next = 0;
    if (states & kFresh)
        next |= input ? kHoldsIn : kHoldsOut;
    if (states & kHoldsIn)
        next |= input ? kHoldsIn : kFresh;
    if (states & kHoldsOut)
        next |= input ? kFresh : kHoldsOut;
    return next;
}

/* The set after a run of n equal events (two settle it). */
unsigned after_run(unsigned states, bool input, uLong n)
{
    for (uLong i = 0; i < n && i < 2; ++i)
        states = after_event(states, input, !input);
    return states;
}

class Walk {
public:
    Walk(z_stream &stream, const Bytef *in, uint32_t inlen, Bytef *out, uint32_t capacity)
        : s_(stream), in_(in), out_(out), inlen_(inlen), capacity_(capacity)
    {
    }

    Flow run()
    {
        Flow flow = steps(true);
        if (flow != Flow::Go)
            return flow;

        /* The edge event is the inlen-th input byte or the capacity-th
         * output byte; everything before it is the walk's too. */
        const uLong in_edge = inlen_ - 1, out_edge = capacity_ - 1;
        unsigned step = kFresh;
        if (s_.total_in + kEdge < in_edge && s_.total_out + kEdge < out_edge) {
            const uLong in0 = s_.total_in, out0 = s_.total_out;
            flow = judge(offer(in_edge - kEdge - in0, out_edge - kEdge - out0), true);
            if (flow != Flow::Go)
                return flow == Flow::Resumed ? restart() : flow;
            if (s_.total_in != in0 || s_.total_out != out0)
                step = kUnknown;
        }

        for (;;) {
            const uLong in0 = s_.total_in, out0 = s_.total_out;
            if (out0 < out_edge) {
                flow = judge(offer(0, out_edge - out0), true);
                if (flow != Flow::Go)
                    return flow == Flow::Resumed ? restart() : flow;
                step = after_run(step, false, s_.total_out - out0);
            }
            const uLong in1 = s_.total_in;
            if (in1 < in_edge) {
                flow = judge(offer(in_edge - in1, 0), true);
                if (flow != Flow::Go)
                    return flow == Flow::Resumed ? restart() : flow;
                step = after_run(step, true, s_.total_in - in1);
            }
            if (s_.total_in != in0 || s_.total_out != out0)
                continue;
            if (in0 == in_edge || out0 == out_edge)
                break; /* the next event is the edge event */
            /* Neither alone moves it: a stored byte, which takes one of each. */
            flow = judge(offer(1, 1), true);
            if (flow != Flow::Go)
                return flow == Flow::Resumed ? restart() : flow;
            if (s_.total_in != in0 + 1 || s_.total_out != out0 + 1)
                return restart();
            step = after_event(step, true, true);
        }

        if (step != kFresh && step != kHoldsIn && step != kHoldsOut)
            return restart();
        if (step != kFresh) {
            /* The rest of the current step: the one byte it has not taken. */
            flow = judge(step == kHoldsIn ? offer(0, 1) : offer(1, 0), true);
            if (flow != Flow::Go)
                return flow == Flow::Resumed ? restart() : flow;
        }
        return steps(false);
    }

    int failure() const { return failure_; }
    /* The gzip stream's end (trailer included) was reached. */
    bool ended() const { return ended_; }

private:
    bool more() const { return s_.total_out < capacity_ && s_.total_in < inlen_; }

    int offer(uLong in, uLong out)
    {
        s_.avail_in = static_cast<uInt>(in);
        s_.avail_out = static_cast<uInt>(out);
        return inflate(&s_, Z_NO_FLUSH);
    }

    /* The walk's reading of one call's result. `within_step`: the call is not
     * a step of its own, so making no progress is no error. */
    Flow judge(int result, bool within_step)
    {
        if (result == Z_STREAM_END) {
            KX_LOGI_AS(kDecompressName, "%s %d break out of while loop: %d\n", "inflate", __LINE__, result);
            ended_ = true;
            return Flow::Done;
        }
        if (result == Z_OK || (within_step && result == Z_BUF_ERROR))
            return Flow::Go;
        if (result != Z_DATA_ERROR) {
            KX_LOGE_AS(kDecompressName, "%s %d error: %d\n", "inflate", __LINE__, result);
            failure_ = result;
            return Flow::Failed;
        }
        /* Retry with a zlib header in front. The input position is restored
         * afterwards so the walk never continues inside the two-byte header. */
        Bytef *resume = s_.next_in;
        s_.next_in = const_cast<Bytef *>(kZlibHeader);
        s_.avail_in = sizeof kZlibHeader;
        result = inflate(&s_, Z_NO_FLUSH);
        if (result != Z_OK) {
            KX_LOGE_AS(kDecompressName, "%s %d error: %d\n", "inflate", __LINE__, result);
            failure_ = result;
            return Flow::Failed;
        }
        s_.next_in = resume;
        return Flow::Resumed;
    }

    /* Exact steps from where the stream stands to the walk's end; with
     * `first_output`, only until a step has written a byte. */
    Flow steps(bool first_output)
    {
        while (more()) {
            if (first_output && s_.total_out > 0)
                return Flow::Go;
            Flow flow = judge(offer(1, 1), false);
            if (flow == Flow::Resumed)
                flow = Flow::Go;
            if (flow != Flow::Go)
                return flow;
        }
        return Flow::Done;
    }

    /* The whole walk again, exactly, from the start (the window stays). */
    Flow restart()
    {
        ended_ = false;
        inflateReset(&s_);
        s_.next_in = const_cast<Bytef *>(in_);
        s_.next_out = out_;
        return steps(false);
    }

    z_stream &s_;
    const Bytef *in_;
    Bytef *out_;
    const uint32_t inlen_, capacity_;
    int failure_ = Z_OK;
    bool ended_ = false;
};

}  // namespace

extern "C" {

KX_API int32_t KX_SDK_GZCOMPRESS(const void *in, uint32_t inlen, void *out, uint32_t *outlen)
{
    if (in == nullptr || inlen == 0 || outlen == nullptr) {
        KX_LOGE("Invalid params!\n");
        return -1;
    }
    z_stream stream{};
    if (deflateInit2_(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY, kZlibVersion,
                      static_cast<int>(sizeof(z_stream))) != Z_OK) {
        KX_LOGE("Failed to call deflateInit2!\n");
        return -1;
    }
    const uint32_t capacity = *outlen;
    stream.next_in = static_cast<Bytef *>(const_cast<void *>(in));
    stream.avail_in = inlen;
    stream.next_out = static_cast<Bytef *>(out);
    stream.avail_out = capacity;

    for (;;) {
        if (stream.total_out >= capacity) {
            /* Out is full before the input ran out: report what is left. The
             * zlib state is released on this path too; the result is the
             * same. */
            const uint32_t left = inlen - static_cast<uint32_t>(stream.total_in);
            deflateEnd(&stream);
            return static_cast<int32_t>(left);
        }
        if (deflate(&stream, Z_NO_FLUSH) != Z_OK) {
            KX_LOGE("Failed to call deflate with Z_NO_FLUSH param!\n");
            deflateEnd(&stream);
            return -1;
        }
        if (stream.total_in >= inlen)
            break;
    }
    for (;;) {
        const int result = deflate(&stream, Z_FINISH);
        if (result == Z_STREAM_END)
            break;
        if (result != Z_OK) {
            KX_LOGE("Failed to call deflate with Z_FINISH, err is %d!\n", result);
            deflateEnd(&stream);
            return -1;
        }
    }
    if (deflateEnd(&stream) != Z_OK) {
        KX_LOGE("Failed to call deflateEnd!\n");
        return -1;
    }
    *outlen = static_cast<uint32_t>(stream.total_out);
    return 0;
}

KX_API int32_t KX_SDK_GZDECOMPRESS(const void *in, uint32_t inlen, void *out, uint32_t *outlen)
{
    return kx::gz_decompress(in, inlen, out, outlen, nullptr);
}

}  // extern "C"

namespace kx {

/* KX_SDK_GZDECOMPRESS with the one thing its result does not tell: whether
 * the stream's end (trailer included) was reached. Its lines are the
 * exported routine's. */
int32_t gz_decompress(const void *in, uint32_t inlen, void *out, uint32_t *outlen, bool *ended)
{
    if (ended != nullptr)
        *ended = false;
    if (outlen == nullptr) {
        KX_LOGE_AS(kDecompressName, "%s %d error: %d\n", "outlen", __LINE__, Z_STREAM_ERROR);
        return Z_STREAM_ERROR;
    }
    z_stream stream{};
    stream.next_in = static_cast<Bytef *>(const_cast<void *>(in));
    stream.next_out = static_cast<Bytef *>(out);
    int result = inflateInit2_(&stream, 31, kZlibVersion, static_cast<int>(sizeof(z_stream)));
    if (result != Z_OK) {
        KX_LOGE_AS(kDecompressName, "%s %d error: %d\n", "inflateInit2", __LINE__, result);
        return result;
    }
    Walk walk(stream, static_cast<const Bytef *>(in), inlen, static_cast<Bytef *>(out), *outlen);
    if (walk.run() == Flow::Failed) {
        inflateEnd(&stream);
        return walk.failure();
    }
    result = inflateEnd(&stream);
    if (result != Z_OK) {
        KX_LOGE_AS(kDecompressName, "%s %d error: %d\n", "inflateEnd", __LINE__, result);
        return result;
    }
    if (ended != nullptr)
        *ended = walk.ended();
    *outlen = static_cast<uint32_t>(stream.total_out);
    return 0;
}

}  // namespace kx

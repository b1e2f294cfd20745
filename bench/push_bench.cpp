// The push channel's acknowledgement path: from the moment the server starts
// sending a text with an "id" to the moment the client's acknowledgement has
// arrived at the server, over a loopback TLS WebSocket connection. The library
// (lws_connect with an on_message callback) against a bare libwebsockets
// client doing the same exchange: parse the text with cJSON, print the same
// acknowledgement with cJSON's formatted printer, write it from the writable
// callback. Each client has its own server and stays connected; the time of
// one exchange is taken from the server's own records (send start to the
// ack's last byte read), so the benchmark thread's wake-up is not counted.
// Information lines are off, as on a device by default.
//
//   scripts/in-netns.sh build/<dir>/bench/push_bench
#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>
#include <libwebsockets.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kx_cloud_openapi.h"
#include "log_capture.h"
#include "test_crypto.h"
#include "wss_server.h"

namespace {

using Clock = std::chrono::steady_clock;

/* ---- the bare libwebsockets client -------------------------------------- */

struct Bare {
    lws_context *context = nullptr;
    std::thread thread;
    std::atomic<bool> stop{false};
    std::atomic<bool> established{false};
    unsigned char out[LWS_PRE + 256];
    size_t out_len = 0;
};
Bare *g_bare = nullptr;

int bare_callback(struct lws *wsi, enum lws_callback_reasons reason, void *, void *in, size_t len)
{
    switch (reason) {
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
        g_bare->established = true;
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE: {
        std::string text(static_cast<const char *>(in), len);
        cJSON *root = cJSON_Parse(text.c_str());
        const cJSON *id = cJSON_GetObjectItemCaseSensitive(root, "id");
        if (id != nullptr) {
            cJSON *ack = cJSON_CreateObject();
            cJSON_AddStringToObject(ack, "msgType", "ack");
            cJSON_AddNumberToObject(ack, "id", id->valueint);
            char *printed = cJSON_Print(ack);
            size_t n = std::min(std::strlen(printed), sizeof g_bare->out - LWS_PRE);
            std::memcpy(g_bare->out + LWS_PRE, printed, n);
            g_bare->out_len = n;
            cJSON_free(printed);
            cJSON_Delete(ack);
            lws_callback_on_writable(wsi);
        }
        cJSON_Delete(root);
        break;
    }
    case LWS_CALLBACK_CLIENT_WRITEABLE:
        if (g_bare->out_len > 0) {
            lws_write(wsi, g_bare->out + LWS_PRE, g_bare->out_len, LWS_WRITE_TEXT);
            g_bare->out_len = 0;
        }
        break;
    default:
        break;
    }
    return 0;
}

const struct lws_protocols kBareProtocols[] = {
    {"ws", bare_callback, 0, 10240, 0, nullptr, 10240},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

/* ---- the two clients and their servers ---------------------------------- */

int on_message(struct lws *, lws_channel_t *, void *, size_t, int) { return 0; }

struct Setup {
    kxcloud::WssServer library_server;
    kxcloud::WssServer bare_server;
    std::string address = "127.0.0.1";
    std::string host;
    std::string ca = kxtest::credentials_dir() + "/ca.pem";
    lws_channel_t channel;
    lws_client_t *client = nullptr;
    Bare bare;

    Setup()
    {
        kxtest::log_enable(kxtest::kInfo, false);
        std::memset(&channel, 0, sizeof channel);
        channel.on_message = on_message;
        client = lws_connect(address.c_str(), "/push", static_cast<uint32_t>(library_server.port()), &channel, 1000);
        library_server.wait_for([&] { return library_server.open_connections() == 1; }, std::chrono::seconds(20));

        g_bare = &bare;
        lws_context_creation_info info;
        std::memset(&info, 0, sizeof info);
        info.port = CONTEXT_PORT_NO_LISTEN;
        info.protocols = kBareProtocols;
        info.client_ssl_ca_filepath = ca.c_str();
        info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        bare.context = lws_create_context(&info);
        host = "127.0.0.1:" + std::to_string(bare_server.port());
        lws_client_connect_info connect;
        std::memset(&connect, 0, sizeof connect);
        connect.context = bare.context;
        connect.address = address.c_str();
        connect.port = bare_server.port();
        connect.ssl_connection = LCCSCF_USE_SSL;
        connect.path = "/push";
        connect.host = host.c_str();
        connect.origin = host.c_str();
        connect.protocol = "ws";
        lws_client_connect_via_info(&connect);
        bare.thread = std::thread([this] {
            while (!bare.stop)
                lws_service(bare.context, 0);
        });
        bare_server.wait_for([&] { return bare_server.open_connections() == 1; }, std::chrono::seconds(20));
        /* The client's side of the handshake ends a moment after the server's. */
        for (int i = 0; i < 20000 && !bare.established; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ~Setup()
    {
        lws_disconnect(client);
        bare.stop = true;
        lws_cancel_service(bare.context);
        bare.thread.join();
        lws_context_destroy(bare.context);
    }
    bool ready() const { return client != nullptr && bare.established; }
};

Setup &setup()
{
    static Setup s;
    return s;
}

std::vector<double> g_library_us, g_bare_us;

/* One exchange: the server sends a message with an id and the
 * acknowledgement comes back; microseconds from send to arrival. */
double exchange(kxcloud::WssServer &server, int id)
{
    server.clear_frames();
    const auto start = Clock::now();
    if (!server.send_text("{\"msgType\":\"notice\",\"id\":" + std::to_string(id) + ",\"text\":\"bench\"}"))
        return -1;
    if (!server.wait_for([&] { return server.count(kxcloud::kWsText) == 1; }, std::chrono::seconds(10)))
        return -1;
    const auto ack = server.frames(kxcloud::kWsText)[0];
    if (ack.payload.find("\"ack\"") == std::string::npos)
        return -1;
    return std::chrono::duration<double, std::micro>(ack.at - start).count();
}

/* One exchange with each client per iteration, in turns (the library first in
 * even iterations, the bare client first in odd ones), so that a machine
 * waking up, or busy, slows both alike. The iteration's time is the pair's. */
void BM_AlternatingAck(benchmark::State &state)
{
    if (!setup().ready()) {
        state.SkipWithError("a client did not connect");
        return;
    }
    int id = 0;
    for (auto _ : state) {
        double library = -1, bare = -1;
        if (id % 2 == 0) {
            library = exchange(setup().library_server, ++id);
            bare = exchange(setup().bare_server, id);
        } else {
            bare = exchange(setup().bare_server, ++id);
            library = exchange(setup().library_server, id);
        }
        if (library < 0 || bare < 0) {
            state.SkipWithError("no acknowledgement");
            break;
        }
        g_library_us.push_back(library);
        g_bare_us.push_back(bare);
        state.SetIterationTime((library + bare) / 1e6);
    }
}
BENCHMARK(BM_AlternatingAck)->UseManualTime()->Iterations(2000);

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    return v[static_cast<size_t>(p * static_cast<double>(v.size() - 1))];
}

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (!g_library_us.empty() && !g_bare_us.empty()) {
        const double lib = percentile(g_library_us, 0.5), bare = percentile(g_bare_us, 0.5);
        std::printf("push_bench: acknowledgement path median %.1f us (p90 %.1f), bare libwebsockets %.1f us "
                    "(p90 %.1f), ratio %.3f\n",
                    lib, percentile(g_library_us, 0.9), bare, percentile(g_bare_us, 0.9), lib / bare);
    }
    benchmark::Shutdown();
    return 0;
}

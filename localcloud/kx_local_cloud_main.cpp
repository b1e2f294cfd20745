/*
 * kx_local_cloud: the local test cloud as a program, for the demo and for
 * trying the library by hand.
 *
 *   kx_local_cloud [--stall=PATH[:SECONDS]] [--drop=PATH[:BYTES]] [--tamper=PATH]
 *                  [--status=PATH:CODE] [--paths] [SECONDS]
 *
 * Starts a Cloud (HTTPS on an ephemeral 127.0.0.1 port with the run's
 * generated certificate, plain HTTP on 127.0.0.1:80 when allowed), registers
 * the services of every call family, starts the push service (secure
 * WebSocket "/push" on another ephemeral port), prints the HTTPS domain
 * ("127.0.0.1:<port>") as the first line on stdout and the push endpoint
 * ("127.0.0.1:<port>") as the second, and serves until SIGTERM or SIGINT, or
 * until SECONDS have passed (default 120), so that it never outlives a demo
 * that died. The fault options (faults.h; each may repeat,
 * PATH "*" is every path) make chosen answers stall, break off, fail their
 * signature check or carry an error status; --paths prints, after the
 * two address lines, the paths the cloud answers, one a line, and exits. Exit
 * status 0 after a clean stop, 1 when the HTTPS listener could not start,
 * 2 for a bad argument.
 */
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <string>
#include <vector>

#include "device_services.h"
#include "external_services.h"
#include "faults.h"
#include "log_services.h"
#include "push_services.h"
#include "test_cloud.h"
#include "upgrade_ad_services.h"
#include "voice_services.h"

namespace {

int usage(const char *program)
{
    std::fprintf(stderr,
                 "usage: %s [--stall=PATH[:SECONDS]] [--drop=PATH[:BYTES]] [--tamper=PATH]\n"
                 "          [--status=PATH:CODE] [--paths] [SECONDS]\n"
                 "PATH is a service path (\"/aaa/sign_in\") or * for every path; options may repeat.\n",
                 program);
    return 2;
}

}  // namespace

int main(int argc, char **argv)
{
    long seconds = 120;
    bool list_paths = false, seconds_given = false;
    std::vector<kxcloud::Fault> faults;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--paths") {
            list_paths = true;
        } else if (arg.rfind("--", 0) == 0) {
            faults.emplace_back();
            if (!kxcloud::parse_fault(arg.substr(2), faults.back())) {
                std::fprintf(stderr, "kx_local_cloud: %s\n", faults.back().said.c_str());
                return usage(argv[0]);
            }
        } else if (!seconds_given && (seconds = std::strtol(argv[i], nullptr, 10)) > 0) {
            seconds_given = true;
        } else {
            return usage(argv[0]);
        }
    }

    /* Block the stop signals before the cloud starts its threads, so that
     * they all inherit the mask and only the wait below receives them. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    kxcloud::Cloud cloud;
    for (const kxcloud::Fault &fault : faults) {
        cloud.alter(fault.path, fault.change);
        std::fprintf(stderr, "kx_local_cloud: %s\n", fault.said.c_str());
    }
    if (cloud.https_port() == 0) {
        std::fprintf(stderr, "kx_local_cloud: the HTTPS listener did not start\n");
        return 1;
    }
    kxcloud::register_device_services(cloud);
    kxcloud::register_voice_services(cloud);
    kxcloud::register_upgrade_ad_services(cloud);
    kxcloud::register_log_services(cloud);
    kxcloud::register_external_services(cloud);
    kxcloud::PushService push(kxcloud::PushScript{3, std::chrono::milliseconds(400), std::chrono::seconds(seconds)});
    std::printf("%s\n%s\n", cloud.https_domain().c_str(), push.address().c_str());
    std::fflush(stdout);
    std::fprintf(stderr, "kx_local_cloud: serving https://%s%s for at most %ld s\n", cloud.https_domain().c_str(),
                 cloud.http_ready() ? " and http://127.0.0.1:80" : "", seconds);
    if (list_paths) {
        for (const std::string &path : cloud.paths())
            std::printf("%s\n", path.c_str());
        return 0;
    }

    timespec limit = {seconds, 0};
    int received;
    do {
        received = sigtimedwait(&stop, nullptr, &limit);
    } while (received < 0 && errno == EINTR);
    std::fprintf(stderr, "kx_local_cloud: %s, %zu requests served, %d push connections, %d acknowledgements\n",
                 received < 0 ? "time limit reached" : "stopped", cloud.requests().size(),
                 push.server().connections(), push.acknowledged());
    return 0;
}

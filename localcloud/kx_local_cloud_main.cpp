/*
 * kx_local_cloud: the local test cloud as a program, for the demo and for
 * trying the library by hand.
 *
 *   kx_local_cloud [SECONDS]
 *
 * Starts a Cloud (HTTPS on an ephemeral 127.0.0.1 port with the run's
 * generated certificate, plain HTTP on 127.0.0.1:80 when allowed), registers
 * the account, messaging and voice services, prints the HTTPS domain
 * ("127.0.0.1:<port>") as one line on stdout and serves until SIGTERM or
 * SIGINT, or until SECONDS have passed (default 120), so that it never
 * outlives a demo that died. Exit status 0 after a clean stop, 1 when the
 * HTTPS listener could not start, 2 for a bad argument.
 */
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "device_services.h"
#include "test_cloud.h"
#include "voice_services.h"

int main(int argc, char **argv)
{
    long seconds = 120;
    if (argc > 2 || (argc == 2 && (seconds = std::strtol(argv[1], nullptr, 10)) <= 0)) {
        std::fprintf(stderr, "usage: %s [SECONDS]\n", argv[0]);
        return 2;
    }

    /* Block the stop signals before the cloud starts its threads, so that
     * they all inherit the mask and only the wait below receives them. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    kxcloud::Cloud cloud;
    if (cloud.https_port() == 0) {
        std::fprintf(stderr, "kx_local_cloud: the HTTPS listener did not start\n");
        return 1;
    }
    kxcloud::register_device_services(cloud);
    kxcloud::register_voice_services(cloud);
    std::printf("%s\n", cloud.https_domain().c_str());
    std::fflush(stdout);
    std::fprintf(stderr, "kx_local_cloud: serving https://%s%s for at most %ld s\n", cloud.https_domain().c_str(),
                 cloud.http_ready() ? " and http://127.0.0.1:80" : "", seconds);

    timespec limit = {seconds, 0};
    int received;
    do {
        received = sigtimedwait(&stop, nullptr, &limit);
    } while (received < 0 && errno == EINTR);
    std::fprintf(stderr, "kx_local_cloud: %s, %zu requests served\n",
                 received < 0 ? "time limit reached" : "stopped", cloud.requests().size());
    return 0;
}

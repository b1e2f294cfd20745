/*
 * Faults the local cloud makes on request, so that an application's handling
 * of a misbehaving cloud can be tried without writing a line of server code:
 *
 *   stall=PATH[:SECONDS]  hold each answer to PATH back for SECONDS before its
 *                         first byte (default 25: past the library's 20-second
 *                         limit on a whole transfer)
 *   drop=PATH[:BYTES]     hang up after BYTES bytes of each answer's body
 *                         (default 0: right after the headers)
 *   tamper=PATH           change each answer after it was signed (see
 *                         tampered()), so that its signature no longer fits
 *   status=PATH:CODE      answer with HTTP status CODE, the body unchanged
 *
 * PATH is a service path as the library sends it ("/aaa/sign_in") or "*" for
 * every path. kx_local_cloud takes each as an option ("--drop=/aaa/sign_out").
 * A fault changes the answer its path's service made, whatever the service
 * (Cloud::alter), so the services of every call family take faults alike.
 */
#ifndef KX_LOCAL_CLOUD_FAULTS_H
#define KX_LOCAL_CLOUD_FAULTS_H

#include <functional>
#include <string>

#include "test_cloud.h"

namespace kxcloud {

/* One fault read from its text: the path it concerns, the change it makes
 * to the answers there (for Cloud::alter), and in words what it does, or
 * what is wrong with the text. */
struct Fault {
    std::string path;
    std::function<void(Reply &)> change;
    std::string said;
};

/* Reads one fault written as above; false when the text is not one. */
bool parse_fault(const std::string &option, Fault &fault);

/* The tampered answer: its last decimal digit before the signature (the
 * signatureServer element or member) goes up by one, 9 becoming 0, which
 * keeps XML and JSON well-formed; an answer with no such digit has its last
 * letter's case changed. */
std::string tampered(std::string body);

}  // namespace kxcloud

#endif

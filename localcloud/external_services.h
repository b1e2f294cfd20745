/*
 * The external-fetch services of the local cloud: a generic signed echo, so
 * that a test, the demo or a firmware engineer can see exactly what a fetch
 * sent and receive it back as a signed answer.
 *
 *   kxcloud::Cloud cloud;
 *   kxcloud::register_external_services(cloud);
 *   GET  https://<domain>/external/echo?a=1&sign=...     -> signed JSON
 *   POST http://127.0.0.1:80/external/echo.xml (a=1...)  -> signed XML
 *
 * Any method is answered. The answer, before the server's signature, names
 * the method, the request target, the body and every request header in
 * arrival order:
 *
 *   {"resultCode":0,"method":"GET","target":"/external/echo?a=1","body":"",
 *    "headers":{"Host":"127.0.0.1:8443","X-Model":"kx55",...}}
 *
 *   <?xml version="1.0" encoding="UTF-8"?>
 *   <response><resultCode>0</resultCode><method>POST</method><target>...</target>
 *   <body>...</body><header name="X-Model">kx55</header>...</response>
 *
 * (the XML on one line; texts escaped for their format). Nothing is checked:
 * the echo serves signed and unsigned fetches alike.
 */
#ifndef KX_TEST_EXTERNAL_SERVICES_H
#define KX_TEST_EXTERNAL_SERVICES_H

#include <string>

#include "test_cloud.h"

namespace kxcloud {

constexpr const char *kExternalEchoPath = "/external/echo";
constexpr const char *kExternalEchoXmlPath = "/external/echo.xml";

/* Routes the echo paths on `cloud`. */
void register_external_services(Cloud &cloud);

/* The echo's answer to `request` before it is signed: the text a verified
 * fetch hands to its caller. */
std::string external_echo_answer(const Request &request, bool xml);

}  // namespace kxcloud

#endif

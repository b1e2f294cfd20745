/*
 * Code module: token and session calls, customer, configuration and message
 * queries. Each call is the request frame (internal/kx_request.h) with its own
 * description, input lines, parameter text and body. All of them answer into a
 * fixed file under /tmp and copy the verified JSON into the caller's buffer;
 * format and languageId are the constant 1.
 */
#include <cstring>

#include "internal/kx_log.h"
#include "internal/kx_request.h"
#include "kx_cloud_openapi.h"

namespace {

constexpr const char *kUrlFailure = "failed to call KX_SDK_CREATE_URL_NA().\n";

bool token_device_ok(const KX_TOKEN_DEVICE_S *record)
{
    return record->psAccessToken != nullptr && record->psDevSerial != nullptr && record->psDeviceId != nullptr;
}

/* The input lines of a token/device record between a call's banners. */
void log_token_device(const char *name, const char *header, const char *footer, const KX_TOKEN_DEVICE_S *psToken)
{
    KX_LOGI_AS(name, "%s", header);
    KX_LOGI_AS(name, "    psDevSerial: %s\n", psToken->psDevSerial);
    KX_LOGI_AS(name, "    psDeviceId: %s\n", psToken->psDeviceId);
    KX_LOGI_AS(name, "    psAccessToken: %s\n", psToken->psAccessToken);
    KX_LOGI_AS(name, "%s", footer);
}

/* Sign-out and sign-information-by-code: one request on two paths, each call
 * with its own header and footer lines. */
int32_t post_token_device(const kx::Call &description, const char *header, const char *footer,
                          const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result)
{
    const char *name = description.name;
    if (!kx::initialised_for(name))
        return -1;
    if (psToken == nullptr || ps8Result == nullptr || !token_device_ok(psToken))
        return kx::invalid_arg(name);

    kx::Request call(description);
    if (!call.build_url(ps8Domain))
        return -1;

    log_token_device(name, header, footer, psToken);

    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    if (!call.print_params(0, "accessToken=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&randStr=%s"
                              "&sourceType=1&timeStamp=%s&version=7.0",
                           psToken->psAccessToken, psToken->psDevSerial, psToken->psDeviceId, language.c_str(),
                           call.random_text(), call.time_text()))
        return -1;
    return call.sign_send_verify(ps8Result);
}

}  // namespace

KX_API int32_t KX_REFRESH_TOKEN(const KX_REFRESH_TOKEN_S *psRefresh, const char *ps8Domain, char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psRefresh == nullptr || ps8Result == nullptr || psRefresh->ps8RefreshToken == nullptr ||
        psRefresh->ps8AppIndex == nullptr || psRefresh->ps8AppReference == nullptr ||
        psRefresh->psDevSerial == nullptr || psRefresh->psDeviceId == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/aaa/sign_in_refreshtoken", psRefresh->u32ChangeToHttp, kx::Method::Post,
                      kx::kNoMark,
                      kx::Sink::file("/tmp/refreshtoken.json", "failed to creat !/tmp/refreshtoken.json \n"),
                      kx::Verifier::Json, kUrlFailure});
    if (!call.build_url(ps8Domain))
        return -1;

    KX_LOGI("=================KX_REFRESH_TOKEN input param=================\n");
    KX_LOGI("    ps8RefreshToken: %s\n", psRefresh->ps8RefreshToken);
    KX_LOGI("    ps8AppIndex: %s\n", psRefresh->ps8AppIndex);
    KX_LOGI("    ps8AppReference: %s\n", psRefresh->ps8AppReference);
    KX_LOGI("    psDevSerial: %s\n", psRefresh->psDevSerial);
    KX_LOGI("    psDeviceId: %s\n", psRefresh->psDeviceId);
    KX_LOGI("=================KX_REFRESH_TOKEN end=================\n");

    if (!call.encrypt_secret(psRefresh->ps8AppReference))
        return -1;
    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    if (!call.print_params(0, "appKey=%s&appSecret=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&randStr=%s"
                              "&refreshToken=%s&sourceType=1&timeStamp=%s&version=7.0",
                           psRefresh->ps8AppIndex, call.secret(), psRefresh->psDevSerial, psRefresh->psDeviceId,
                           language.c_str(), call.random_text(), psRefresh->ps8RefreshToken, call.time_text()))
        return -1;
    return call.sign_send_verify(ps8Result);
}

KX_API int32_t KX_SIGN_OUT(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result)
{
    /* Every text of the record is checked before the description reads it. */
    return post_token_device({__func__, "/aaa/sign_out", psToken ? psToken->u32ChangeToHttp : 0, kx::Method::Post,
                              kx::kNoMark, kx::Sink::file("/tmp/signout.json", "failed to creat !/tmp/signout.json \n"),
                              kx::Verifier::Json, kUrlFailure},
                             "=================KX_SIGN_OUT input param=================\n",
                             "=================KX_SIGN_OUT end=================\n", psToken, ps8Domain, ps8Result);
}

/* Sends no code parameter at all: the sign-out request on another path. */
KX_API int32_t KX_SIGN_INFO_BY_CODE(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result)
{
    return post_token_device({__func__, "/aaa/get_signinfo_by_code", psToken ? psToken->u32ChangeToHttp : 0,
                              kx::Method::Post, kx::kNoMark,
                              kx::Sink::file("/tmp/signinfo.json", "failed to creat !/tmp/signinfo.json \n"),
                              kx::Verifier::Json, kUrlFailure},
                             "=================KX_SIGN_INFO_BY_CODE input param=================\n",
                             "=================KX_SIGN_INFO_BY_CODE end=================\n", psToken, ps8Domain,
                             ps8Result);
}

KX_API int32_t KX_GET_CODE_AUTH_URL(const KX_CODE_AUTH_URL_S *psCodeAuth, const char *ps8Domain, char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psCodeAuth == nullptr || ps8Result == nullptr || psCodeAuth->ps8StatCode == nullptr ||
        psCodeAuth->ps8BrandCode == nullptr || psCodeAuth->ps8VsType == nullptr ||
        psCodeAuth->ps8AppIndex == nullptr || psCodeAuth->ps8AppReference == nullptr ||
        psCodeAuth->psAccessToken == nullptr || psCodeAuth->psDevSerial == nullptr ||
        psCodeAuth->psDeviceId == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/voiceservice/get_codeauth_url", psCodeAuth->u32ChangeToHttp, kx::Method::Post,
                      kx::kNoMark, kx::Sink::file("/tmp/getauthurl.json", "failed to creat !/tmp/getauthurl.json \n"),
                      kx::Verifier::Json, kUrlFailure});
    if (!call.build_url(ps8Domain))
        return -1;

    /* ps8VsType is not logged. */
    KX_LOGI("=================KX_GET_CODE_AUTH_URL input param=================\n");
    KX_LOGI("    psDevSerial: %s\n", psCodeAuth->psDevSerial);
    KX_LOGI("    psDeviceId: %s\n", psCodeAuth->psDeviceId);
    KX_LOGI("    psAccessToken: %s\n", psCodeAuth->psAccessToken);
    KX_LOGI("    ps8AppIndex: %s\n", psCodeAuth->ps8AppIndex);
    KX_LOGI("    ps8AppReference: %s\n", psCodeAuth->ps8AppReference);
    KX_LOGI("    ps8BrandCode: %s\n", psCodeAuth->ps8BrandCode);
    KX_LOGI("    ps8StatCode: %s\n", psCodeAuth->ps8StatCode);
    KX_LOGI("=================KX_GET_CODE_AUTH_URL end=================\n");

    if (!call.encrypt_secret(psCodeAuth->ps8AppReference))
        return -1;
    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    /* The key goes as lower-case "appkey" (sorted after appSecret) and the
     * version is 1.1: this service differs from its neighbours. */
    if (!call.print_params(0, "accessToken=%s&appSecret=%s&appkey=%s&brandCode=%s&devSerial=%s&deviceId=%s&format=1"
                              "&languageId=%s&randStr=%s&sourceType=1&statCode=%s&timeStamp=%s&version=1.1&vsType=%s",
                           psCodeAuth->psAccessToken, call.secret(), psCodeAuth->ps8AppIndex, psCodeAuth->ps8BrandCode,
                           psCodeAuth->psDevSerial, psCodeAuth->psDeviceId, language.c_str(), call.random_text(),
                           psCodeAuth->ps8StatCode, call.time_text(), psCodeAuth->ps8VsType))
        return -1;
    return call.sign_send_verify(ps8Result);
}

KX_API int32_t KX_GET_CUSTOMER_INFO(const KX_CUSTOMER_INFO_S *psCustomer, const char *ps8Domain, char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psCustomer == nullptr || ps8Result == nullptr || psCustomer->ps8QueryType == nullptr ||
        psCustomer->psAccessToken == nullptr || psCustomer->psDevSerial == nullptr ||
        psCustomer->psDeviceId == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/cam/user/get_customer_info", psCustomer->u32ChangeToHttp, kx::Method::Get,
                      kx::kNoMark,
                      kx::Sink::file("/tmp/customerinfo.json", "failed to creat !/tmp/customerinfo.json \n"),
                      kx::Verifier::Json1, kUrlFailure});
    if (!call.build_url(ps8Domain))
        return -1;

    KX_LOGI("=================KX_GET_CUSTOMER_INFO input param=================\n");
    KX_LOGI("    psDevSerial: %s\n", psCustomer->psDevSerial);
    KX_LOGI("    psDeviceId: %s\n", psCustomer->psDeviceId);
    KX_LOGI("    psAccessToken: %s\n", psCustomer->psAccessToken);
    KX_LOGI("\t  ps8QueryType: %s\n", psCustomer->ps8QueryType);
    KX_LOGI("=================KX_GET_CUSTOMER_INFO end=================\n");

    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    if (!call.print_params(0, "?accessToken=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&randStr=%s"
                              "&sourceType=1&timeStamp=%s&version=7.0",
                           psCustomer->psAccessToken, psCustomer->psDevSerial, psCustomer->psDeviceId,
                           language.c_str(), call.random_text(), call.time_text()))
        return -1;
    if (!call.sign())
        return -1;
    /* queryType is sent in its sorted place but is not signed. */
    /* The query's allocation makes room for "queryType=" + value + "&" as well. */
    if (!call.print_body(7 + 11 + strlen(psCustomer->ps8QueryType),
                         "?accessToken=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&randStr=%s&queryType=%s"
                         "&sourceType=1&timeStamp=%s&version=7.0&sign=%s",
                         psCustomer->psAccessToken, psCustomer->psDevSerial, psCustomer->psDeviceId, language.c_str(),
                         call.random_text(), psCustomer->ps8QueryType, call.time_text(), call.signature()))
        return -1;

    KX_LOGI("[TEST]ps8Url: %s\n", call.url());
    KX_LOGI("[TEST]ps8PostBody: %s\n", call.body());
    if (!call.send())
        return -1;
    return call.verify(ps8Result);
}

KX_API int32_t KX_GET_SYS_CONFIG_INFO(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psToken == nullptr || ps8Result == nullptr || !token_device_ok(psToken))
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/message/get_msg_configs", psToken->u32ChangeToHttp, kx::Method::Get, kx::kNoMark,
                      kx::Sink::file("/tmp/sysconfigs.json", "failed to creat !/tmp/sysconfigs.json \n"),
                      kx::Verifier::Json, kUrlFailure});
    if (!call.build_url(ps8Domain))
        return -1;

    log_token_device(__func__, "=================KX_GET_SYS_CONFIG_INFO input param=================\n",
                     "=================KX_GET_SYS_CONFIG_INFO end=================\n", psToken);

    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    if (!call.print_params(0, "?accessToken=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&randStr=%s"
                              "&sourceType=1&timeStamp=%s&version=7.0",
                           psToken->psAccessToken, psToken->psDevSerial, psToken->psDeviceId, language.c_str(),
                           call.random_text(), call.time_text()))
        return -1;
    /* No signature is made and no sign is sent; the answer is still verified. */
    if (!call.print_body(7, "%s", call.params()))
        return -1;
    if (!call.send())
        return -1;
    return call.verify(ps8Result);
}

KX_API int32_t KX_GET_MSG_INFO(const KX_MSG_INFO_S *psMsg, const char *ps8Domain, char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psMsg == nullptr || ps8Result == nullptr || psMsg->psMsgList == nullptr || psMsg->psAccessToken == nullptr ||
        psMsg->psDevSerial == nullptr || psMsg->psDeviceId == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/message/get_msg", psMsg->u32ChangeToHttp, kx::Method::Post, kx::kNoMark,
                      kx::Sink::file("/tmp/sysmsginfo.json", "failed to creat !/tmp/sysmsginfo.json \n"),
                      kx::Verifier::Json, kUrlFailure});
    if (!call.build_url(ps8Domain))
        return -1;

    /* Header and footer are borrowed from the configuration call. */
    KX_LOGI("=================KX_GET_SYS_CONFIG_INFO input param=================\n");
    KX_LOGI("    psDevSerial: %s\n", psMsg->psDevSerial);
    KX_LOGI("    psDeviceId: %s\n", psMsg->psDeviceId);
    KX_LOGI("    psAccessToken: %s\n", psMsg->psAccessToken);
    KX_LOGI("    psMsgList: %s\n", psMsg->psMsgList);
    KX_LOGI("=================KX_GET_SYS_CONFIG_INFO end=================\n");

    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    const kx::FixedText<4> page_size = kx::number_text(psMsg->u32PageSize);
    const kx::FixedText<4> realtime_flag = kx::number_text(psMsg->u32RealtimeFlag);
    if (!call.print_params(0, "accessToken=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&msgList=%s&pageSize=%s"
                              "&randStr=%s&realtimeFlag=%s&sourceType=1&timeStamp=%s&version=7.0",
                           psMsg->psAccessToken, psMsg->psDevSerial, psMsg->psDeviceId, language.c_str(),
                           psMsg->psMsgList, page_size.c_str(), call.random_text(), realtime_flag.c_str(),
                           call.time_text()))
        return -1;
    if (!call.sign())
        return -1;
    if (!call.print_body(7, "%s&sign=%s", call.params(), call.signature()))
        return -1;
    KX_LOGI("malloc size: %d strlen : %d\n", static_cast<int>(call.body_allocation()),
            static_cast<int>(strlen(call.body())));
    KX_LOGI("postbody : %s\n", call.body());
    if (!call.send())
        return -1;
    return call.verify(ps8Result);
}

KX_API int32_t KX_GET_MSG_CHANNEL_INFO(const KX_TOKEN_DEVICE_S *psToken, const char *ps8Domain, char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psToken == nullptr || ps8Result == nullptr || !token_device_ok(psToken))
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/message/get_msg_channel", psToken->u32ChangeToHttp, kx::Method::Get, kx::kNoMark,
                      kx::Sink::file("/tmp/sysmsgchannel.json", "failed to creat !/tmp/sysmsgchannel.json \n"),
                      kx::Verifier::Json, kUrlFailure});
    if (!call.build_url(ps8Domain))
        return -1;

    /* Header and footer are borrowed from the configuration call. */
    log_token_device(__func__, "=================KX_GET_SYS_CONFIG_INFO input param=================\n",
                     "=================KX_GET_SYS_CONFIG_INFO end=================\n", psToken);

    call.stamp();
    const kx::FixedText<4> language = kx::number_text(1);
    if (!call.print_params(0, "?accessToken=%s&devSerial=%s&deviceId=%s&format=1&languageId=%s&randStr=%s"
                              "&sourceType=1&timeStamp=%s&version=7.0",
                           psToken->psAccessToken, psToken->psDevSerial, psToken->psDeviceId, language.c_str(),
                           call.random_text(), call.time_text()))
        return -1;
    return call.sign_send_verify(ps8Result);
}

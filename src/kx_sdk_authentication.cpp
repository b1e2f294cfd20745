/*
 * Authentication module: device sign-in, device serial and authorisation
 * information. Each call is the request frame (internal/kx_request.h) with its
 * own description, input lines, parameter text and body.
 */
#include <cstring>

#include "internal/kx_log.h"
#include "internal/kx_request.h"
#include "kx_cloud_openapi.h"

namespace {

/* The device id is 24 characters of prefix followed by the serial. An id
 * shorter than that has no serial: the offset is guarded so that it never
 * points past the id's terminator. */
const char *serial_of(const char *device_id)
{
    return device_id + strnlen(device_id, 24);
}

}  // namespace

KX_API int32_t KX_AUTH_AUTHENTICATE(const KX_AUTH_AUTHENTICATE_S *psAuth, const char *ps8Domain, FILE **ppStream)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psAuth == nullptr || ppStream == nullptr)
        return kx::invalid_arg(__func__);
    if (psAuth->ps8AppIndex == nullptr || psAuth->ps8AppReference == nullptr || psAuth->ps8DeviceId == nullptr)
        return kx::invalid_arg(__func__);
    if (*ppStream == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/aaa/sign_in", psAuth->u32ChangeToHttp, kx::Method::Post, 100,
                      kx::Sink::caller(ppStream), kx::Verifier::Xml, "failed to call KX_SDK_CREATE_URL().\n"});
    if (!call.build_url(ps8Domain))
        return -1;

    const char *psDevSerial = serial_of(psAuth->ps8DeviceId);
    KX_LOGI("=================KX_AUTH_AUTHENTICATE input param=================\n");
    KX_LOGI("    eAuthenticationMode: %d\n", psAuth->eAuthenticationMode);
    KX_LOGI("    eLanguageId:         %d\n", static_cast<int>(psAuth->eLanguageId));
    KX_LOGI("    ps8DeviceId:         %s\n", psAuth->ps8DeviceId);
    KX_LOGI("    ps8AppIndex:         %s\n", psAuth->ps8AppIndex);
    KX_LOGI("    ps8AppReference:     %s\n", psAuth->ps8AppReference);
    KX_LOGI("    psDevSerial:         %s\n", psDevSerial);
    KX_LOGI("=================KX_AUTH_AUTHENTICATE_EX end =================\n");

    if (!call.encrypt_secret(psAuth->ps8AppReference))
        return -1;

    call.stamp();
    KX_LOGI("KxSDK2.0 timestamp: %s length: %d\n", call.time_text(), static_cast<int>(strlen(call.time_text())));
    const kx::FixedText<4> language = kx::number_text(psAuth->eLanguageId);

    /* The plain secret is counted once more although it is not in the text. */
    const size_t length = strlen(psAuth->ps8AppIndex) + strlen(call.secret()) + strlen(psDevSerial) +
                          strlen(psAuth->ps8DeviceId) + language.length() + strlen(call.random_text()) +
                          strlen(call.time_text()) + strlen(psAuth->ps8AppReference) + 119;
    KX_LOGE("KxSDK2.0 the size of ps8PostBody is : %d\n", static_cast<int>(length + 1));
    if (!call.print_params(length,
                           "appKey=%s&appSecret=%s&devSerial=%s&deviceId=%s&format=0&languageId=%s&randStr=%s"
                           "&serviceType=9&sourceType=1&timeStamp=%s&version=7.0",
                           psAuth->ps8AppIndex, call.secret(), psDevSerial, psAuth->ps8DeviceId, language.c_str(),
                           call.random_text(), call.time_text()))
        return -1;
    if (!call.sign())
        return -1;

    /* loginName, qrCodeFlag, signature and webFlag are sent empty and not signed. */
    if (!call.print_body(50,
                         "appKey=%s&appSecret=%s&devSerial=%s&deviceId=%s&format=0&languageId=%s&loginName="
                         "&qrCodeFlag=&randStr=%s&serviceType=9&signature=&sourceType=1&timeStamp=%s&version=7.0"
                         "&webFlag=&sign=%s",
                         psAuth->ps8AppIndex, call.secret(), psDevSerial, psAuth->ps8DeviceId, language.c_str(),
                         call.random_text(), call.time_text(), call.signature()))
        return -1;
    if (!call.send())
        return -1;
    return call.verify(nullptr);
}

KX_API int32_t KX_GET_DEV_SERIAL(const KX_DEV_SERIAL_S *psDevSerial, const char *ps8Domain, FILE **ppStream)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psDevSerial == nullptr || ppStream == nullptr || psDevSerial->psFeatureCode == nullptr ||
        psDevSerial->psDevFlag == nullptr || psDevSerial->psOriginalId == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/aaa/get_dev_serial", psDevSerial->u32ChangeToHttp, kx::Method::Post, 100,
                      kx::Sink::caller(ppStream), kx::Verifier::Xml, "failed to call KX_SDK_CREATE_URL().\n"});
    if (!call.build_url(ps8Domain))
        return -1;

    const char *token = psDevSerial->psAccessToken;
    KX_LOGI("=================KX_GET_DEV_SERIAL input param=================\n");
    KX_LOGI("    psFeatureCode: %s\n", psDevSerial->psFeatureCode);
    if (token != nullptr)
        KX_LOGI("    psAccessToken: %s\n", token);
    KX_LOGI("    psDevFlag: %s\n", psDevSerial->psDevFlag);
    KX_LOGI("    psOriginalId: %s\n", psDevSerial->psOriginalId);
    KX_LOGI("=================KX_GET_DEV_SERIAL end=================\n");

    call.stamp();
    const kx::FixedText<4> language = kx::number_text(0);

    /* Empty token or original id: the key is left out of the signed text (but
     * still sent in the body). The prefixes cut what exceeds their buffers. */
    kx::FixedText<1024> token_part;
    if (token != nullptr && token[0] != '\0')
        token_part.format("accessToken=%s&", token);
    kx::FixedText<128> original_part;
    if (psDevSerial->psOriginalId[0] != '\0')
        original_part.format("originalId=%s&", psDevSerial->psOriginalId);

    size_t length = strlen(psDevSerial->psDevFlag) + strlen(psDevSerial->psFeatureCode) + language.length() +
                    strlen(psDevSerial->psOriginalId) + strlen(call.random_text()) + strlen(call.time_text()) +
                    35 + 53;
    if (token != nullptr && token[0] != '\0')
        length += 13 + strlen(token);
    if (!call.print_params(length, "%sdev_flag=%s&featureCode=%s&format=0&languageId=%s&%srandStr=%s&timeStamp=%s&version=7.0",
                           token_part.c_str(), psDevSerial->psDevFlag, psDevSerial->psFeatureCode, language.c_str(),
                           original_part.c_str(), call.random_text(), call.time_text()))
        return -1;
    if (!call.sign())
        return -1;

    bool printed;
    if (token != nullptr)
        printed = call.print_body(7, "accessToken=%s&dev_flag=%s&featureCode=%s&format=0&languageId=%s&originalId=%s"
                                     "&randStr=%s&timeStamp=%s&version=7.0&sign=%s",
                                  token, psDevSerial->psDevFlag, psDevSerial->psFeatureCode, language.c_str(),
                                  psDevSerial->psOriginalId, call.random_text(), call.time_text(), call.signature());
    else
        printed = call.print_body(7, "dev_flag=%s&featureCode=%s&format=0&languageId=%s&originalId=%s&randStr=%s"
                                     "&timeStamp=%s&version=7.0&sign=%s",
                                  psDevSerial->psDevFlag, psDevSerial->psFeatureCode, language.c_str(),
                                  psDevSerial->psOriginalId, call.random_text(), call.time_text(), call.signature());
    if (!printed)
        return -1;
    if (!call.send())
        return -1;
    KX_LOGE("KX_SDK_HTTPS_POST: %d\n", call.transport_result());
    return call.verify(nullptr);
}

KX_API int32_t KX_GET_AUTHORIZATION_INFO(const KX_AUTHORIZATION_INFO_S *psInfo, const char *ps8Domain,
                                         char *ps8Result)
{
    if (!kx::initialised_for(__func__))
        return -1;
    if (psInfo == nullptr || ps8Result == nullptr || psInfo->psAccessToken == nullptr ||
        psInfo->psDevSerial == nullptr || psInfo->ps8ClientId == nullptr)
        return kx::invalid_arg(__func__);

    kx::Request call({__func__, "/aaa/get_authorizationinfo", psInfo->u32ChangeToHttp, kx::Method::Get,
                      kx::kNoMark,
                      kx::Sink::file("/tmp/authorizationinfo.json", "failed to creat /tmp/authorizationinfo.json! \n"),
                      kx::Verifier::Json1, "failed to call KX_SDK_CREATE_URL_NA().\n"});
    if (!call.build_url(ps8Domain))
        return -1;

    /* The header and footer name the customer call: borrowed lines. */
    KX_LOGI("=================KX_GET_CUSTOMER_INFO input param=================\n");
    KX_LOGI("    psDevSerial: %s\n", psInfo->psDevSerial);
    KX_LOGI("    psAccessToken: %s\n", psInfo->psAccessToken);
    KX_LOGI("\t  ps8ClientId: %s\n", psInfo->ps8ClientId);
    KX_LOGI("=================KX_GET_CUSTOMER_INFO end=================\n");

    call.stamp();
    const kx::FixedText<4> format = kx::number_text(psInfo->u32Format);
    const kx::FixedText<4> language = kx::number_text(psInfo->u32LanguageId);

    /* The leading "?" is part of the signed text. */
    const size_t length = strlen(psInfo->psAccessToken) + strlen(psInfo->ps8ClientId) + strlen(psInfo->psDevSerial) +
                          format.length() + language.length() + strlen(call.random_text()) +
                          strlen(call.time_text()) + 100;
    if (!call.print_params(length,
                           "?accessToken=%s&client_id=%s&devSerial=%s&format=%s&languageId=%s&randStr=%s"
                           "&sourceType=1&timeStamp=%s&version=7.0",
                           psInfo->psAccessToken, psInfo->ps8ClientId, psInfo->psDevSerial, format.c_str(),
                           language.c_str(), call.random_text(), call.time_text()))
        return -1;
    if (!call.sign())
        return -1;
    if (!call.print_body(7, "%s&sign=%s", call.params(), call.signature()))
        return -1;

    KX_LOGI("[TEST]ps8Url: %s\n", call.url());
    KX_LOGI("[TEST]ps8PostBody: %s\n", call.body());
    if (!call.send())
        return -1;
    return call.verify(ps8Result);
}

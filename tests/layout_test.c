/*
 * The public records as the device's C callers lay them out.
 *
 * Each record is listed below with its fields in their documented order and
 * width; the expected offsets follow from those by the C rule (each field at
 * the next multiple of its alignment, the record rounded up to its largest
 * one), so the test holds on every ABI and says what goes wrong where:
 * a field moved, widened (a long, a size_t, a 64-bit time), narrowed,
 * retyped (a writable text, a signed count), left out or added. On a 32-bit
 * ABI (the device's armhf) every record is also held to its literal size
 * there, which is the number a firmware engineer's own headers would give.
 *
 * Built as C11 (for _Generic) for the native and the armhf build alike.
 * A record joins with a block of fields and one line in `records`.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <kx_cloud_openapi.h>

/* What the documentation says a field is. */
enum kind {
    U32,   /* unsigned 32-bit */
    S32,   /* signed 32-bit */
    E32,   /* an enumeration kept in 32 bits, either signedness */
    TEXT,  /* pointer to a read-only NUL-terminated text */
    PTR,   /* any other pointer: a node, a caller's buffer, a callback */
    BYTE,  /* one byte */
    BYTES, /* an inline byte area of a documented length */
};
static const char *const kind_name[] = {"u32", "s32", "32-bit enum", "text", "pointer", "byte", "bytes"};

/* What the compiler made of it. */
enum made { M_U32, M_S32, M_TEXT, M_CHARS, M_BYTE, M_OTHER_INT, M_POINTER };
#define MADE(x)                                                                                              \
    _Generic((x), uint32_t: M_U32, int32_t: M_S32, const char *: M_TEXT, char *: M_CHARS,                    \
             unsigned char *: M_CHARS, char: M_BYTE, signed char: M_BYTE, unsigned char: M_BYTE,             \
             _Bool: M_OTHER_INT, short: M_OTHER_INT, unsigned short: M_OTHER_INT, long: M_OTHER_INT,         \
             unsigned long: M_OTHER_INT, long long: M_OTHER_INT, unsigned long long: M_OTHER_INT,            \
             float: M_OTHER_INT, double: M_OTHER_INT, default: M_POINTER)

struct field {
    const char *name;
    size_t offset, size; /* as compiled */
    enum made made;
    enum kind kind;      /* as documented */
    size_t bytes;        /* BYTES: the documented length */
};

struct record {
    const char *name;
    size_t size;        /* as compiled */
    size_t device_size; /* documented size on the device's 32-bit ABI */
    const struct field *fields;
    size_t count;
};

#define FIELD(rec, member, kind, bytes) \
    {#member, offsetof(rec, member), sizeof(((rec *)0)->member), MADE(((rec *)0)->member), kind, bytes}
/* Inside a block, R names the record. */
#define F(member, kind) FIELD(R, member, kind, 0)
#define B(member, bytes) FIELD(R, member, BYTES, bytes)
#define RECORD(type, fields, device_size) {#type, sizeof(type), device_size, fields, sizeof fields / sizeof fields[0]}

/* ---- answer buffers, headers, lists ------------------------------------------ */

#define R KX_SDK_DATA_BUF_S
static const struct field data_buf[] = {B(data, 102400), F(used, U32)};
#undef R
#define R KX_SDK_LARGEDATA_S
static const struct field large_data[] = {F(buffer, PTR), F(used, U32)};
#undef R
#define R KX_SDK_HTTP_HEADER_S
static const struct field http_header[] = {B(name, 64), B(value, 128)};
#undef R
#define R KX_SDK_LIST_NODE_S
static const struct field list_node[] = {F(item, PTR), F(next, PTR)};
#undef R
#define R KX_SDK_LINKLIST_S
static const struct field link_list[] = {F(first, PTR), F(last, PTR), F(count, S32)};
#undef R

/* ---- account and messaging requests --------------------------------------------- */

#define R KX_AUTH_AUTHENTICATE_S
static const struct field auth_authenticate[] = {
    F(u32ChangeToHttp, U32), F(eAuthenticationMode, S32), F(eLanguageId, E32),
    F(ps8DeviceId, TEXT),    F(ps8AppIndex, TEXT),        F(ps8AppReference, TEXT),
};
#undef R
#define R KX_DEV_SERIAL_S
static const struct field dev_serial[] = {
    F(u32ChangeToHttp, U32), F(psFeatureCode, TEXT), F(psDevFlag, TEXT), F(psOriginalId, TEXT),
    F(psAccessToken, TEXT),
};
#undef R
#define R KX_AUTHORIZATION_INFO_S
static const struct field authorization_info[] = {
    F(u32ChangeToHttp, U32), F(u32Format, U32),      F(ps8ClientId, TEXT),
    F(u32LanguageId, U32),   F(psAccessToken, TEXT), F(psDevSerial, TEXT),
};
#undef R
#define R KX_REFRESH_TOKEN_S
static const struct field refresh_token[] = {
    F(u32ChangeToHttp, U32), F(ps8RefreshToken, TEXT), F(ps8AppIndex, TEXT), F(ps8AppReference, TEXT),
    F(u32Reserved, U32),     F(psDevSerial, TEXT),     F(psDeviceId, TEXT),
};
#undef R
#define R KX_TOKEN_DEVICE_S
static const struct field token_device[] = {
    F(u32ChangeToHttp, U32), F(psAccessToken, TEXT), F(psDevSerial, TEXT), F(psDeviceId, TEXT),
};
#undef R
#define R KX_CODE_AUTH_URL_S
static const struct field code_auth_url[] = {
    F(u32ChangeToHttp, U32), F(ps8StatCode, TEXT),     F(ps8BrandCode, TEXT),     F(ps8VsType, TEXT),
    F(u32Reserved, U32),     F(ps8AppIndex, TEXT),     F(ps8AppReference, TEXT),  F(psAccessToken, TEXT),
    F(psDevSerial, TEXT),    F(psDeviceId, TEXT),
};
#undef R
#define R KX_CUSTOMER_INFO_S
static const struct field customer_info[] = {
    F(u32ChangeToHttp, U32), F(ps8QueryType, TEXT), F(psAccessToken, TEXT), F(psDevSerial, TEXT),
    F(psDeviceId, TEXT),
};
#undef R
#define R KX_MSG_INFO_S
static const struct field msg_info[] = {
    F(u32ChangeToHttp, U32), F(u32PageSize, U32),    F(u32RealtimeFlag, U32), F(psMsgList, TEXT),
    F(psAccessToken, TEXT),  F(psDevSerial, TEXT),   F(psDeviceId, TEXT),
};
#undef R

/* ---- voice requests ---------------------------------------------------------- */
#define R KX_VOICE_DEVICES_INFO_S
static const struct field voice_devices_info[] = {
    F(u32ChangeToHttp, U32), F(ps8DeviceName, TEXT), F(ps8VSEnable, TEXT), F(ps8GSEnable, TEXT),
    F(ps8AppIndex, TEXT), F(mac, TEXT), F(Applist, TEXT), F(pjsInputlist, TEXT),
    F(ps8StateCode, TEXT), F(ps8BrandCode, TEXT), F(ps8CapabilityCode, TEXT), F(ps8FeatureCode, TEXT),
    F(ps8ExtField, TEXT), F(ps8Hsv, TEXT), F(ps8DeviceSerialNumberAVS, TEXT), F(ps8ClientIdAVS, TEXT),
    F(ps8ProductIdAVS, TEXT), F(ps8VSAbility, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT),
    F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_DEV_INFO_S
static const struct field voice_dev_info[] = {
    F(u32ChangeToHttp, U32), F(ps8DeviceName, TEXT), F(ps8VSEnable, TEXT), F(ps8GSEnable, TEXT),
    F(ps8AppIndex, TEXT), F(mac, TEXT), F(Applist, TEXT), F(ps8StateCode, TEXT),
    F(ps8BrandCode, TEXT), F(ps8CapabilityCode, TEXT), F(ps8FeatureCode, TEXT), F(ps8ExtField, TEXT),
    F(ps8Reserved, TEXT), F(ps8VSAbility, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT),
    F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_CFG_INFO_S
static const struct field voice_cfg_info[] = {
    F(u32ChangeToHttp, U32), F(ps8AppIndex, TEXT), F(ps8StatCode, TEXT), F(ps8BrandCode, TEXT),
    F(ps8VsType, TEXT), F(ps8Reserved, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT),
    F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_SKILL_INFO_S
static const struct field voice_skill_info[] = {
    F(u32ChangeToHttp, U32), F(ps8lwaToken, TEXT), F(ps8StatCode, TEXT), F(ps8BrandCode, TEXT),
    F(ps8ExtFiled, TEXT), F(ps8AppIndex, TEXT), F(ps8Hsv, TEXT), F(ps8FeatureCode, TEXT),
    F(ps8CapabilityCode, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT), F(u32LanguageID, U32),
    F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_DEV_STATE_S
static const struct field voice_dev_state[] = {
    F(u32ChangeToHttp, U32), F(ps8StateCode, TEXT), F(ps8BrandCode, TEXT), F(ps8AppIndex, TEXT),
    F(ps8LwaToken, TEXT), F(ps8StateList, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT),
    F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_TRAIT_STATE_S
static const struct field voice_trait_state[] = {
    F(u32ChangeToHttp, U32), F(ps8StateCode, TEXT), F(ps8BrandCode, TEXT), F(ps8AppIndex, TEXT),
    F(ps8StateList, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT), F(u32LanguageID, U32),
    F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_ACTION_INFO_S
static const struct field voice_action_info[] = {
    F(u32ChangeToHttp, U32), F(ps8AppIndex, TEXT), F(ps8BrandCode, TEXT), F(ps8StateCode, TEXT),
    F(ps8CapabilityCode, TEXT), F(ps8FeatureCode, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT),
    F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_PHRASES_INFO_S
static const struct field voice_phrases_info[] = {
    F(u32ChangeToHttp, U32), F(ps8AppIndex, TEXT), F(ps8BrandCode, TEXT), F(ps8StateCode, TEXT),
    F(ps8CapabilityCode, TEXT), F(ps8FeatureCode, TEXT), F(ps8Type, U32), F(psAccessToken, TEXT),
    F(psVersion, TEXT), F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_VOICE_QUERY_S
static const struct field voice_query[] = {
    F(u32ChangeToHttp, U32), F(ps8AppIndex, TEXT), F(ps8StatCode, TEXT), F(ps8BrandCode, TEXT),
    F(ps8UpdatetimeStamp, TEXT), F(u32Scope, U32), F(u32Type, U32), F(ps8CapabilityCode, TEXT),
    F(ps8FeatureCode, TEXT), F(ps8Hsv, TEXT), F(psAccessToken, TEXT), F(psVersion, TEXT),
    F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_GOOGLE_QUERY_S
static const struct field google_query[] = {
    F(u32ChangeToHttp, U32), F(ps8AppIndex, TEXT), F(ps8BrandCode, TEXT), F(ps8StateCode, TEXT),
    F(ps8CapabilityCode, TEXT), F(ps8FeatureCode, TEXT), F(ps8UpdatetimeStamp, TEXT), F(psAccessToken, TEXT),
    F(psVersion, TEXT), F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R
#define R KX_WEB_PORTAL_QUERY_S
static const struct field web_portal_query[] = {
    F(u32ChangeToHttp, U32), F(ps8BrandCode, TEXT), F(ps8StateCode, TEXT), F(ps8DisplayLanguageId, TEXT),
    F(psAccessToken, TEXT), F(psVersion, TEXT), F(u32LanguageID, U32), F(u32SourceType, U32),
};
#undef R

/* ---- log service, upgrade-event report ------------------------------------------ */

#define R KX_LOG_SERVICE_REQ_S
static const struct field log_service_req[] = {
    F(u32ChangeToHttp, U32), F(u32LanguageId, U32), F(ps8AppVersion, TEXT), F(ps8AppKey, TEXT),
    F(ps8AccessToken, TEXT),
};
#undef R
#define R KX_LOG_SERVICE_LIST_S
static const struct field log_service_list[] = {
    F(u32PolicyServiceNum, U32), F(u32UploadServiceNum, U32), B(as8PolicyService, 8 * 256),
    B(as8UploadService, 8 * 256),
};
#undef R
#define R KX_LOG_POLICY_REQ_S
static const struct field log_policy_req[] = {
    F(u32ChangeToHttp, U32), F(u32Reserved2, U32), F(u32DeviceType, U32), F(u32LanguageId, U32),
    F(u32Reserved5, U32),    F(u32Reserved6, U32), F(u32Reserved7, U32),  F(u32Reserved8, U32),
    F(ps8AccessToken, TEXT),
};
#undef R
#define R KX_LOG_ALL_POLICY_REQ_S
static const struct field log_all_policy_req[] = {
    F(u32ChangeToHttp, U32),   F(u32Reserved2, U32),   F(u32Reserved3, U32),       F(u32Reserved4, U32),
    F(u32AppKey, U32),         F(u32Reserved6, U32),   F(ps8CountryCode, TEXT),    F(ps8BrandCode, TEXT),
    F(u32Reserved9, U32),      F(ps8DeviceId, TEXT),   F(ps8PolicySeq, TEXT),      F(ps8CapabilityCode, TEXT),
    F(ps8TVOSVersion, TEXT),
};
#undef R
#define R KX_LOG_UPLOAD_S
static const struct field log_upload[] = {
    F(u32ChangeToHttp, U32), F(u32Reserved2, U32), F(u32Reserved3, U32), F(u32Reserved4, U32),
    F(u32Reserved5, U32),    F(ps8LogTag, TEXT),   F(u32LogDataLen, U32), F(ps8LogData, TEXT),
    F(ps8UploadUrl, TEXT),
};
#undef R
#define R KX_LOG_UPLOAD_EX_S
static const struct field log_upload_ex[] = {
    F(u32ChangeToHttp, U32), F(u32CompressMode, U32), F(u32MsgForm, U32),     F(u32Reserved4, U32),
    F(u32Reserved5, U32),    F(ps8DeviceId, TEXT),    F(ps8EventCode, TEXT),  F(ps8ErrorCode, TEXT),
    F(ps8FileName, TEXT),    F(u32Reserved10, U32),   F(ps8LogTag, TEXT),     F(u32DataLen, U32),
    F(ps8Data, TEXT),        F(ps8UploadUrl, TEXT),
};
#undef R
#define R KX_UPGRADE_EVENT_S
static const struct field upgrade_event[] = {
    F(ps8DeviceExtInfoStr, TEXT), F(u32ChangeToHttp, U32), F(u32SourceType, U32), F(u32LanguageId, U32),
    F(ps8Version, TEXT),          F(ps8AccessToken, TEXT), F(ps8EventCode, TEXT),
};
#undef R

/* ---- upgrade checks and advertising ---------------------------------------------- */

#define R KX_UPGRADE_CHECK_S
static const struct field upgrade_check[] = {
    F(u32ChangeToHttp, U32), F(u32LanguageId, U32), F(ps8CurrentVersion, TEXT), F(ps8AccessToken, TEXT),
    F(ps8DvcRsv, TEXT),      F(ps8StatCode, TEXT),  F(ps8PostCode, TEXT),       F(ps8BrandCode, TEXT),
    F(ps8Mac, TEXT),
};
#undef R
#define R KX_APP_UPGRADE_CHECK_S
static const struct field app_upgrade_check[] = {
    F(u32ChangeToHttp, U32), F(u32LanguageId, U32), F(ps8CurrentVersion, TEXT), F(ps8AccessToken, TEXT),
    F(ps8PackageName, TEXT), F(ps8StatCode, TEXT),  F(ps8PostCode, TEXT),
};
#undef R
#define R KX_AD_STRATEGY_S
static const struct field ad_strategy[] = {
    F(ps8AdInfo, TEXT),    F(ps8Token, TEXT),   F(s32LanguageId, S32),  F(ps8TvMode, TEXT),
    F(ps8OsVersion, TEXT), F(s32OsType, S32),   F(ps8ZipCode, TEXT),    F(ps8CountryCode, TEXT),
};
#undef R
#define R KX_AD_LINKINFO_S
static const struct field ad_linkinfo[] = {
    F(ps8AdLinkId, TEXT),  F(ps8AdCode, TEXT),    F(ps8AdPositionOwner, TEXT), F(ps8Token, TEXT),
    F(s32LanguageId, S32), F(ps8TvMode, TEXT),    F(ps8OsVersion, TEXT),       F(s32OsType, S32),
    F(ps8ZipCode, TEXT),   F(ps8CountryCode, TEXT),
};
#undef R

/* ---- push channel ----------------------------------------------------------------- */

#define R lws_channel_t
static const struct field lws_channel[] = {
    B(prefix, 16),                  B(payload, 10240),           F(payload_len, U32),
    F(write_lock, BYTE),            F(wake_flag, BYTE),          F(write_protocol, S32),
    F(missed_heartbeats, S32),      F(reserved, S32),            F(heartbeat_interval, S32),
    F(heartbeat_max_missed, S32),   F(service_pid, U32),         F(service_tid, U32),
    F(on_established, PTR),         F(on_message, PTR),          F(reserved_callback, PTR),
    F(on_closed, PTR),              F(on_heartbeat_timeout, PTR),
};
#undef R
#define R lws_client_t
static const struct field lws_client[] = {
    F(connection, PTR), F(context, PTR), F(service_thread, PTR), F(channel, PTR),
    F(loop_flag, PTR),  F(address, TEXT), F(path, TEXT),         F(port, U32),
};
#undef R

/* ---- signed external fetch --------------------------------------------------------- */

#define R KX_SDK_FETCH_REQ_S
static const struct field fetch_req[] = {
    F(s32Http, S32),       F(s32Get, S32),      F(s32Sign, S32),     F(ps8FuncName, TEXT),
    F(ps8Url, TEXT),       F(ps8SignBody, TEXT), F(ps8Body, TEXT),   F(ps8ConnectHeaders, TEXT),
};
#undef R
#define R KX_SDK_FETCH_REQ_V31_S
static const struct field fetch_req_v31[] = {
    F(s32Mark, S32),          F(s32Http, S32),       F(s32Get, S32),     F(s32SignMode, S32),
    F(ps8FuncName, TEXT),     F(ps8Url, TEXT),       F(ps8SignBody, TEXT), F(ps8Body, TEXT),
    F(ps8ConnectHeaders, TEXT), F(s32Reserved, S32),
};
#undef R

static const struct record records[] = {
    RECORD(KX_SDK_DATA_BUF_S, data_buf, 102404),
    RECORD(KX_SDK_LARGEDATA_S, large_data, 8),
    RECORD(KX_SDK_HTTP_HEADER_S, http_header, 192),
    RECORD(KX_SDK_LIST_NODE_S, list_node, 8),
    RECORD(KX_SDK_LINKLIST_S, link_list, 12),
    RECORD(KX_AUTH_AUTHENTICATE_S, auth_authenticate, 24),
    RECORD(KX_DEV_SERIAL_S, dev_serial, 20),
    RECORD(KX_AUTHORIZATION_INFO_S, authorization_info, 24),
    RECORD(KX_REFRESH_TOKEN_S, refresh_token, 28),
    RECORD(KX_TOKEN_DEVICE_S, token_device, 16),
    RECORD(KX_CODE_AUTH_URL_S, code_auth_url, 40),
    RECORD(KX_CUSTOMER_INFO_S, customer_info, 20),
    RECORD(KX_MSG_INFO_S, msg_info, 28),
    RECORD(KX_VOICE_DEVICES_INFO_S, voice_devices_info, 88),
    RECORD(KX_VOICE_DEV_INFO_S, voice_dev_info, 72),
    RECORD(KX_VOICE_CFG_INFO_S, voice_cfg_info, 40),
    RECORD(KX_VOICE_SKILL_INFO_S, voice_skill_info, 52),
    RECORD(KX_VOICE_DEV_STATE_S, voice_dev_state, 40),
    RECORD(KX_VOICE_TRAIT_STATE_S, voice_trait_state, 36),
    RECORD(KX_VOICE_ACTION_INFO_S, voice_action_info, 40),
    RECORD(KX_VOICE_PHRASES_INFO_S, voice_phrases_info, 44),
    RECORD(KX_VOICE_QUERY_S, voice_query, 56),
    RECORD(KX_GOOGLE_QUERY_S, google_query, 44),
    RECORD(KX_WEB_PORTAL_QUERY_S, web_portal_query, 32),
    RECORD(KX_LOG_SERVICE_REQ_S, log_service_req, 20),
    RECORD(KX_LOG_SERVICE_LIST_S, log_service_list, 4104),
    RECORD(KX_LOG_POLICY_REQ_S, log_policy_req, 36),
    RECORD(KX_LOG_ALL_POLICY_REQ_S, log_all_policy_req, 52),
    RECORD(KX_LOG_UPLOAD_S, log_upload, 36),
    RECORD(KX_LOG_UPLOAD_EX_S, log_upload_ex, 56),
    RECORD(KX_UPGRADE_EVENT_S, upgrade_event, 28),
    RECORD(KX_UPGRADE_CHECK_S, upgrade_check, 36),
    RECORD(KX_APP_UPGRADE_CHECK_S, app_upgrade_check, 28),
    RECORD(KX_AD_STRATEGY_S, ad_strategy, 32),
    RECORD(KX_AD_LINKINFO_S, ad_linkinfo, 40),
    /* the slot right after its 16-byte prefix, the one-byte lock and flag */
    RECORD(lws_channel_t, lws_channel, 10312),
    RECORD(lws_client_t, lws_client, 32),
    RECORD(KX_SDK_FETCH_REQ_S, fetch_req, 32),
    RECORD(KX_SDK_FETCH_REQ_V31_S, fetch_req_v31, 40),
};

/* ---- the check ---------------------------------------------------------------- */

static int failures;

static void fail(const struct record *r, const char *field, const char *what, size_t got, size_t want)
{
    fprintf(stderr, "layout_test: %s%s%s: %s is %zu, the device's callers expect %zu\n", r->name,
            field != NULL ? "." : "", field != NULL ? field : "", what, got, want);
    failures++;
}

static size_t width_of(const struct field *f)
{
    switch (f->kind) {
    case U32: case S32: case E32: return 4;
    case TEXT: case PTR: return sizeof(void *);
    case BYTE: return 1;
    case BYTES: return f->bytes;
    }
    return 0;
}

static size_t alignment_of(const struct field *f)
{
    return f->kind == TEXT || f->kind == PTR ? _Alignof(void *) : f->kind == BYTE || f->kind == BYTES ? 1 : 4;
}

static int made_as_documented(const struct field *f)
{
    switch (f->kind) {
    case U32: return f->made == M_U32;
    case S32: return f->made == M_S32;
    case E32: return f->made == M_U32 || f->made == M_S32;
    case TEXT: return f->made == M_TEXT;
    case PTR: return f->made == M_POINTER || f->made == M_TEXT || f->made == M_CHARS;
    case BYTE: return f->made == M_BYTE;
    /* a text area, or rows of fixed-size texts (char[8][256]) */
    case BYTES: return f->made == M_CHARS || f->made == M_POINTER;
    }
    return 0;
}

static size_t round_up(size_t n, size_t to) { return (n + to - 1) / to * to; }

static void check_record(const struct record *r)
{
    size_t end = 0, largest = 1;
    for (size_t i = 0; i < r->count; i++) {
        const struct field *f = &r->fields[i];
        size_t at = round_up(end, alignment_of(f));
        if (f->offset != at)
            fail(r, f->name, "offset", f->offset, at);
        if (f->size != width_of(f))
            fail(r, f->name, "size", f->size, width_of(f));
        if (!made_as_documented(f)) {
            fprintf(stderr, "layout_test: %s.%s: not declared as a %s\n", r->name, f->name, kind_name[f->kind]);
            failures++;
        }
        end = at + width_of(f);
        if (alignment_of(f) > largest)
            largest = alignment_of(f);
    }
    /* A field left out of the list at the end, or one too many in the record. */
    if (r->size != round_up(end, largest))
        fail(r, NULL, "size", r->size, round_up(end, largest));
#if UINTPTR_MAX == 0xFFFFFFFFu
    if (r->size != r->device_size)
        fail(r, NULL, "size on the 32-bit ABI", r->size, r->device_size);
#endif
}

int main(void)
{
    size_t fields = 0;
    for (size_t i = 0; i < sizeof records / sizeof records[0]; i++) {
        check_record(&records[i]);
        fields += records[i].count;
    }
    if (failures != 0) {
        fprintf(stderr, "layout_test: %d checks failed\n", failures);
        return 1;
    }
    printf("layout_test: %zu records, %zu fields as documented (%zu-bit pointers)\n",
           sizeof records / sizeof records[0], fields, sizeof(void *) * 8);
    return 0;
}

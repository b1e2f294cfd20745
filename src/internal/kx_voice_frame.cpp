/*
 * The voice frame (see kx_voice_frame.h). Every line logged here speaks for
 * the voice call whose row the frame runs.
 */
#include "internal/kx_voice_frame.h"

#include <cstring>

#include "internal/kx_log.h"
#include "kx_cloud_openapi.h"

namespace kx {

namespace {

/* Calls `each(name, length, optional)` for every name of a blank-separated
 * list ("ps8Hsv?" is optional); stops at the first false. */
template <typename Each>
bool for_each_name(const char *list, Each each)
{
    for (const char *p = list; p != nullptr && *p != '\0';) {
        if (*p == ' ') {
            ++p;
            continue;
        }
        std::size_t length = std::strcspn(p, " ");
        const bool optional = p[length - 1] == '?';
        if (!each(p, optional ? length - 1 : length, optional))
            return false;
        p += length;
    }
    return true;
}

Call request_description(const VoiceCall &row, uint32_t change_to_http)
{
    return Call{row.name, row.path, change_to_http, Method::Post, kNoMark,
                row.file != nullptr ? Sink::file(row.file, row.creat) : Sink::named_after_path(), Verifier::Json,
                "failed to call KX_SDK_CREATE_URL().\n"};
}

}  // namespace

bool voice_admit(const VoiceCall &row, bool have_record, bool have_result)
{
    if ((row.steps & kTraced) != 0)
        KX_LOGI_AS(row.name, "start %s\n", row.name);
    if (!initialised_for(row.name))
        return false;
    if (!have_record || !have_result) {
        invalid_arg(row.name);
        return false;
    }
    return true;
}

VoiceRequest::VoiceRequest(const VoiceCall &row, uint32_t change_to_http, const Fields &fields)
    : row_(row), change_to_http_(change_to_http), fields_(fields),
      request_(request_description(row, change_to_http))
{
}

bool VoiceRequest::admitted() const
{
    const bool present = for_each_name(row_.required, [this](const char *name, std::size_t length, bool) {
        const Field *field = fields_.named(name, length);
        return field != nullptr && field->present();
    });
    if (!present)
        invalid_arg(row_.name);
    return present;
}

Field *VoiceRequest::field(const char *name) { return fields_.named(name, std::strlen(name)); }

bool VoiceRequest::begin(const char *domain)
{
    const bool traced = (row_.steps & kTraced) != 0;
    if (traced)
        KX_LOGI_AS(row_.name, "%s", change_to_http_ == 1 ? "u32ChangeToHttp == 1 \n" : "u32ChangeToHttp != 1 \n");
    if (!request_.build_url(domain))
        return false;

    for (std::size_t i = 0; i < 2; ++i) {
        const Encoding &encoding = row_.encoded[i];
        Field *field = encoding.field != nullptr ? this->field(encoding.field) : nullptr;
        if (field == nullptr || field->text == nullptr)
            continue;
        encoded_[i] = Buffer(encoding.capacity);
        if (!encoded_[i].ok()) {
            KX_LOGE_AS(row_.name, "out of memory.\n");
            return false;
        }
        const int32_t written = KX_SDK_URLEncode(field->text, static_cast<int32_t>(std::strlen(field->text)),
                                                 encoded_[i].get(), static_cast<int32_t>(encoding.capacity - 1));
        if (encoding.checked && written == 0) {
            KX_LOGE_AS(row_.name, "KX_SDK_URLEncode with something error.\n");
            return false;
        }
        field->sent = encoded_[i].get();
    }

    if ((row_.steps & kNonce) != 0) {
        request_.stamp();
        if (traced)
            KX_LOGI_AS(row_.name, "KX_CREATE_RAND_STRING success\n");
    }

    const char *banner = row_.banner != nullptr ? row_.banner : row_.name;
    KX_LOGI_AS(row_.name, "=================%s input param=================\n", banner);
    for_each_name(row_.logged, [this](const char *name, std::size_t length, bool optional) {
        const Field *field = fields_.named(name, length);
        if (field == nullptr || (optional && !field->present()))
            return true;
        if (field->kind == Field::Kind::Number)
            KX_LOGI_AS(row_.name, "    %s: %d\n", field->name, field->logged);
        else
            KX_LOGI_AS(row_.name, "    %s: %s\n", field->name, null_text(field->wire()));
        return true;
    });
    KX_LOGI_AS(row_.name, "=================%s end=================\n", banner);
    return true;
}

bool VoiceRequest::sign()
{
    return request_.print_params_keyed(row_.sign, fields_) && request_.sign();
}

int32_t VoiceRequest::finish(const char *body, char *result)
{
    if (row_.measured != nullptr) {
        const Field *field = this->field(row_.measured);
        const char *text = field != nullptr ? field->text : nullptr;
        KX_LOGI_AS(row_.name, "cjsonBuff length is %d.\n", text != nullptr ? static_cast<int>(std::strlen(text)) : 0);
    }
    if (!request_.print_body_keyed(body, fields_))
        return -1;
    /* The encoded copies are in the body now. */
    encoded_[0].reset();
    encoded_[1].reset();
    if (!request_.send())
        return -1;
    return request_.verify(result);
}

int32_t VoiceRequest::run(const char *domain, char *result)
{
    if (!begin(domain) || !sign())
        return -1;
    return finish(row_.body, result);
}

}  // namespace kx

/*
 * glue.cpp - what the package's JavaScript needs beside the functions of
 * oku.h: the layout of the structures it reads, as this compiler lays them
 * out, and the unknown keys of a parameter string as one text (JavaScript
 * cannot hand the library a callback).
 */
#include <cstddef>
#include <cstring>
#include <string>
#include <type_traits>

#include "oku.h"

#define OKUWEB_API extern "C" __attribute__((visibility("default")))

namespace {

// 'f' for a floating-point field, 'i' for a signed and 'u' for an unsigned
// integer, 'p' for a pointer.
template <typename T>
constexpr char Kind()
{
    return std::is_floating_point<T>::value ? 'f'
           : std::is_pointer<T>::value      ? 'p'
           : std::is_signed<T>::value       ? 'i'
                                            : 'u';
}

template <typename T>
void Field(std::string& text, const char* name, std::size_t offset)
{
    text += ' ';
    text += name;
    text += ':' + std::to_string(offset) + ':' + Kind<T>() + std::to_string(sizeof(T));
}

#define OKUWEB_FIELD(S, F) Field<decltype(S::F)>(text, #F, offsetof(S, F))

std::string Layout()
{
    std::string text = "oku_vad_result:" + std::to_string(sizeof(oku_vad_result));
    OKUWEB_FIELD(oku_vad_result, type);
    OKUWEB_FIELD(oku_vad_result, speech);
    OKUWEB_FIELD(oku_vad_result, time_ms);
    OKUWEB_FIELD(oku_vad_result, position);
    OKUWEB_FIELD(oku_vad_result, assessment);
    OKUWEB_FIELD(oku_vad_result, peak);
    OKUWEB_FIELD(oku_vad_result, level_dbfs);
    OKUWEB_FIELD(oku_vad_result, snr_pct);
    text += "\noku_vad_segment:" + std::to_string(sizeof(oku_vad_segment));
    OKUWEB_FIELD(oku_vad_segment, start);
    OKUWEB_FIELD(oku_vad_segment, end);
    OKUWEB_FIELD(oku_vad_segment, start_ms);
    OKUWEB_FIELD(oku_vad_segment, end_ms);
    text += "\noku_agc_decision:" + std::to_string(sizeof(oku_agc_decision));
    OKUWEB_FIELD(oku_agc_decision, control);
    OKUWEB_FIELD(oku_agc_decision, updated);
    OKUWEB_FIELD(oku_agc_decision, time_ms);
    OKUWEB_FIELD(oku_agc_decision, pause_db);
    OKUWEB_FIELD(oku_agc_decision, speech_db);
    OKUWEB_FIELD(oku_agc_decision, changed);
    return text;
}

struct KeyList {
    char text[1024];
    std::size_t length;
};

void Take(void* user, const char* key, const char* value)
{
    KeyList* list = static_cast<KeyList*>(user);
    const std::size_t n = std::strlen(key);
    (void)value;
    if (list->length + n + 2 > sizeof list->text)
        return; /* a list this long is cut; the count stays exact */
    std::memcpy(list->text + list->length, key, n);
    list->length += n;
    list->text[list->length++] = '\n';
    list->text[list->length] = '\0';
}

}  // namespace

/*
 * The structures the package reads, one per line: "name:size" and then
 * " field:offset:kind size" for each field it reads (kind f, i, u or p), e.g.
 * "oku_vad_result:72 type:0:i4 ... position:16:i8 ...".
 */
OKUWEB_API const char* okuweb_layout(void)
{
    static const std::string text = Layout();
    return text.c_str();
}

/*
 * The keys of `params` that no setting of the analyzer (gain_control 0) or
 * of the gain control (1) has, one per line, in the library's order; "" when
 * there are none. NULL when the string is refused (oku_last_error() says
 * why). Valid until the next call.
 */
OKUWEB_API const char* okuweb_unknown_keys(int gain_control, const char* params)
{
    static KeyList list;
    list.length = 0;
    list.text[0] = '\0';
    const int service = gain_control ? OKU_SERVICE_AGC : OKU_SERVICE_VAD;
    if (oku_params_unknown(service, params, Take, &list, NULL) != OKU_OK)
        return NULL;
    return list.text;
}

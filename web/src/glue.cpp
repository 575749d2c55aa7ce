/*
 * keys.cpp - the unknown keys of a parameter string as one text, for the
 * JavaScript side, which cannot hand the library a callback.
 */
#include <cstddef>
#include <cstring>

#include "oku.h"

struct key_list {
    char text[1024];
    size_t length;
};

static void take(void* user, const char* key, const char* value)
{
    key_list* list = static_cast<key_list*>(user);
    size_t n = strlen(key);
    (void)value;
    if (list->length + n + 2 > sizeof list->text)
        return; /* a list this long is cut; the count stays exact */
    memcpy(list->text + list->length, key, n);
    list->length += n;
    list->text[list->length++] = '\n';
    list->text[list->length] = '\0';
}

/*
 * The keys of `params` that no setting of `service` has, one per line, in
 * the library's order; "" when there are none. NULL when the string is
 * refused (oku_last_error() says why). Valid until the next call.
 */
extern "C" __attribute__((visibility("default"))) const char* okuweb_unknown_keys(int service, const char* params)
{
    static key_list list;
    list.length = 0;
    list.text[0] = '\0';
    if (oku_params_unknown(service, params, take, &list, NULL) != OKU_OK)
        return NULL;
    return list.text;
}

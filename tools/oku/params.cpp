#include "params.h"

#include <cstring>

#include "oku.h"
#include "options.h"

namespace okutool {

std::vector<std::string> CheckParams(bool agc, const std::string& params)
{
    const int service = agc ? OKU_SERVICE_AGC : OKU_SERVICE_VAD;
    if (oku_params_check(service, params.c_str()) != OKU_OK)
        throw UsageError(std::string("--params: ") + oku_last_error());

    struct Seen {
        int service;
        std::vector<std::string> unknown;
    } seen{service, {}};
    oku_params_entries(
        params.c_str(),
        [](void* user, const char* key, const char*) {
            Seen* s = static_cast<Seen*>(user);
            double value;
            if (oku_setting_value(s->service, nullptr, key, &value) == OKU_ERR_ARGUMENT)
                s->unknown.emplace_back(key);
        },
        &seen);
    std::vector<std::string> warnings;
    for (const std::string& key : seen.unknown)
        warnings.push_back("--params: " + key + " is not a setting of oku " + (agc ? "agc" : "vad") + " (ignored)");
    return warnings;
}

}  // namespace okutool

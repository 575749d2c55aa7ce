#include "params.h"

#include "oku.h"
#include "options.h"

namespace okutool {

std::vector<std::string> CheckParams(bool agc, const std::string& params)
{
    const int service = agc ? OKU_SERVICE_AGC : OKU_SERVICE_VAD;
    if (oku_params_check(service, params.c_str()) != OKU_OK)
        throw UsageError(std::string("--params: ") + oku_last_error());

    struct Unknown {
        const char* command;
        std::vector<std::string> warnings;
    } unknown{agc ? "agc" : "vad", {}};
    if (oku_params_unknown(
            service, params.c_str(),
            [](void* user, const char* key, const char*) {
                Unknown* u = static_cast<Unknown*>(user);
                u->warnings.push_back(std::string("--params: ") + key + " is not a setting of oku " + u->command +
                                      " (ignored)");
            },
            &unknown, nullptr) != OKU_OK)
        throw UsageError(std::string("--params: ") + oku_last_error());
    return unknown.warnings;
}

}  // namespace okutool

#include "status.h"

namespace {

thread_local std::string t_lastError;

}  // namespace

namespace oku {
namespace status {

int Fail(int status, const char* message) noexcept
{
    try {
        t_lastError = message;
    } catch (...) {
        t_lastError.clear();
    }
    return status;
}

int Fail(int status, const std::string& message) noexcept { return Fail(status, message.c_str()); }

int Null(const char* what) noexcept
{
    try {
        return Fail(OKU_ERR_NULL, std::string(what) + " is null");
    } catch (...) {
        return Fail(OKU_ERR_NULL, "a required pointer is null");
    }
}

int NameParams(int status, int service, const char* params) noexcept
{
    if (status != OKU_ERR_PARAMS)
        return status;
    try {
        const std::string classMessage = t_lastError;
        if (oku_params_check(service, params) != OKU_ERR_PARAMS)
            Fail(OKU_ERR_PARAMS, classMessage);
    } catch (...) {
    }
    return status;
}

int Of(boundary::Failure kind) noexcept
{
    switch (kind) {
    case boundary::Failure::Rate:
        return OKU_ERR_RATE;
    case boundary::Failure::Params:
        return OKU_ERR_PARAMS;
    case boundary::Failure::Memory:
        return OKU_ERR_MEMORY;
    case boundary::Failure::Internal:
    case boundary::Failure::Foreign:
        break;
    }
    return OKU_ERR_INTERNAL;
}

}  // namespace status
}  // namespace oku

extern "C" {

OKU_API const char* oku_status_message(int status)
{
    switch (status) {
    case OKU_OK:
        return "success";
    case OKU_ERR_NULL:
        return "a required pointer is null";
    case OKU_ERR_ARGUMENT:
        return "an argument is out of range";
    case OKU_ERR_RATE:
        return "unsupported sampling rate (see oku_rates)";
    case OKU_ERR_PARAMS:
        return "malformed parameter string or rejected setting";
    case OKU_ERR_MEMORY:
        return "out of memory";
    case OKU_ERR_INTERNAL:
        return "internal failure";
    default:
        return "unknown status";
    }
}

OKU_API const char* oku_status_name(int status)
{
    static const char* const names[] = {"ok", "null", "argument", "rate", "params", "memory", "internal"};
    return status <= 0 && status >= OKU_ERR_INTERNAL ? names[-status] : nullptr;
}

OKU_API const char* oku_last_error(void) { return t_lastError.c_str(); }

}  // extern "C"

// Statuses and messages of the handle interface (oku.h): the one place that
// turns a failure into an oku_status and the text of oku_last_error().
#ifndef OKUVAD_STATUS_H
#define OKUVAD_STATUS_H

#include <string>

#include "boundary.h"
#include "oku.h"

namespace oku {
namespace status {

// Keeps message for oku_last_error on this thread and returns status. Never
// throws: a message that cannot be kept for want of memory becomes "".
int Fail(int status, const char* message) noexcept;
int Fail(int status, const std::string& message) noexcept;

// OKU_ERR_NULL with "<what> is null".
int Null(const char* what) noexcept;

// For a status of OKU_ERR_PARAMS from creating a service: replaces the
// class's message ("Invalid format") by the one oku_params_check gives, which
// names the key and the reason. Returns status.
int NameParams(int status, int service, const char* params) noexcept;

// The status of a failure the boundary's guard caught.
int Of(boundary::Failure kind) noexcept;

// The boundary's guard with this interface's statuses and messages.
template <typename F>
int Guard(F&& f) noexcept
{
    return boundary::Guard(f, [](boundary::Failure kind, const char* message) { return Fail(Of(kind), message); });
}

}  // namespace status
}  // namespace oku

#endif

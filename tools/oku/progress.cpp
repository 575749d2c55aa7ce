#include "progress.h"

#include <unistd.h>

#include <algorithm>

#include "output.h"

namespace okutool {

Progress::Progress(const std::string& name, long long total, bool enabled)
    : _name(name), _total(total), _enabled(enabled && total > 0 && ::isatty(2))
{
}

Progress::~Progress()
{
    if (_enabled && _shown >= 0)
        WriteStderr("\r\033[K");
}

void Progress::Update(long long done)
{
    if (!_enabled)
        return;
    const int percent = static_cast<int>(std::min<long long>(100, done * 100 / _total));
    if (percent == _shown)
        return;
    _shown = percent;
    const std::size_t filled = static_cast<std::size_t>(percent / 4);
    WriteStderr("\r[" + std::string(filled, '#') + std::string(25 - filled, '.') + "] " +
                std::string(percent < 10 ? "  " : percent < 100 ? " " : "") + std::to_string(percent) + "% " +
                _name);
}

}  // namespace okutool

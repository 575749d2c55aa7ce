// A progress bar on standard error for long inputs, when it is a terminal.
#ifndef OKU_TOOL_PROGRESS_H
#define OKU_TOOL_PROGRESS_H

#include <string>

namespace okutool {

class Progress {
public:
    // total: the input's length (any unit); 0 or less shows nothing.
    Progress(const std::string& name, long long total, bool enabled);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void Update(long long done);

private:
    std::string _name;
    long long _total;
    bool _enabled;
    int _shown = -1;
};

}  // namespace okutool

#endif

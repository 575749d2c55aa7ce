#include "output.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "text.h"

namespace okutool {

namespace {

std::mutex g_stderrLock;

// Writes all of data to fd; false with errno set on failure.
bool WriteAll(int fd, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

std::string Folder(const std::string& path)
{
    std::vector<char> copy(path.begin(), path.end());
    copy.push_back('\0');
    return ::dirname(copy.data());
}

std::string Base(const std::string& path)
{
    std::vector<char> copy(path.begin(), path.end());
    copy.push_back('\0');
    return ::basename(copy.data());
}

bool IsRegular(int fd)
{
    struct stat st;
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

void HoldStandardDescriptors()
{
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            // The lowest free descriptor is fd itself, since the ones below are open.
            const int held = ::open("/dev/null", O_RDONLY);
            if (held != fd && held >= 0)
                ::close(held);
        }
    }
}

void WriteStdout(const std::string& text)
{
    if (!WriteAll(1, text.data(), text.size()))
        throw StdoutError("standard output: " + ErrnoText(errno));
}

void WriteStderr(const std::string& text)
{
    std::lock_guard<std::mutex> lock(g_stderrLock);
    WriteAll(2, text.data(), text.size());
}

std::string OutputName(const std::string& pattern, int index, int count)
{
    if (count <= 1)
        return pattern;
    const std::string::size_type dot = pattern.rfind('.');
    const std::string::size_type slash = pattern.rfind('/');
    const bool hasExtension = dot != std::string::npos && dot > 0 && (slash == std::string::npos || dot > slash + 1);
    const std::string suffix = "-" + std::to_string(index + 1);
    return hasExtension ? pattern.substr(0, dot) + suffix + pattern.substr(dot) : pattern + suffix;
}

bool FilePlan::Identify(const std::string& path, Id& id, std::string& why)
{
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        id = Id{st.st_dev, st.st_ino, ""};
        return true;
    }
    if (errno != ENOENT) {
        why = ErrnoText(errno);
        return false;
    }
    const std::string folder = Folder(path);
    if (::stat(folder.c_str(), &st) != 0) {
        why = "folder " + folder + ": " + ErrnoText(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        why = folder + " is not a folder";
        return false;
    }
    id = Id{st.st_dev, st.st_ino, Base(path)};
    return true;
}

void FilePlan::AddInput(const std::string& path)
{
    Id id;
    std::string why;
    if (path != "-" && Identify(path, id, why) && id.name.empty())
        _inputs.emplace_back(id, path);
}

void FilePlan::AddOutput(const std::string& option, const std::string& path)
{
    if (path.empty())
        throw std::invalid_argument(option + ": an empty file name");
    Id id;
    std::string why;
    if (!Identify(path, id, why))
        throw std::invalid_argument(option + " " + path + ": cannot be written (" + why + ")");
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        throw std::invalid_argument(option + " " + path + ": is a directory");
    for (const auto& in : _inputs)
        if (in.first == id)
            throw std::invalid_argument(option + " " + path + ": is the input " + in.second +
                                        " (an output never overwrites an input)");
    for (const auto& out : _outputs)
        if (out.first == id)
            throw std::invalid_argument(option + " " + path + ": is also the output " + out.second +
                                        " (two outputs would write one file)");
    _outputs.emplace_back(id, path);
}

void FilePlan::Claim(const std::string& path) const
{
    Id id;
    std::string why;
    if (!Identify(path, id, why))
        throw OutputError(path + ": cannot be written (" + why + ")");
    for (const auto& in : _inputs)
        if (in.first == id)
            throw OutputError(path + ": is the input " + in.second + " (an output never overwrites an input)");
    for (const auto& out : _outputs)
        if (out.first == id)
            throw OutputError(path + ": is also the output " + out.second);
    // Clips are told apart by their folder and name, whether they exist yet or not.
    struct stat st;
    const std::string folder = Folder(path);
    if (::stat(folder.c_str(), &st) != 0)
        throw OutputError(path + ": cannot be written (folder " + folder + ": " + ErrnoText(errno) + ")");
    const Id place{st.st_dev, st.st_ino, Base(path)};
    std::lock_guard<std::mutex> guard(_claimLock);
    for (const auto& clip : _claimed)
        if (clip.first == place)
            throw OutputError(path + ": written already by this run as " + clip.second +
                              " (two segments would write one file)");
    _claimed.emplace_back(place, path);
}

OutFile::OutFile(const std::string& path) : _path(path)
{
    _fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (_fd < 0)
        throw OutputError(path + ": cannot write: " + ErrnoText(errno));
    _regular = IsRegular(_fd);
}

OutFile::~OutFile()
{
    if (_fd >= 0) {
        ::close(_fd);
        if (_regular)
            ::unlink(_path.c_str());
    }
}

void OutFile::Write(const std::string& text)
{
    if (!WriteAll(_fd, text.data(), text.size()))
        throw OutputError(_path + ": cannot write: " + ErrnoText(errno));
}

void OutFile::Close()
{
    const int fd = _fd;
    _fd = -1;
    if (::close(fd) != 0)
        throw OutputError(_path + ": cannot write: " + ErrnoText(errno));
}

SoundWriter::SoundWriter(const std::string& path, int rate, int channels, int subtype, int container) : _path(path)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = container | subtype;
    if (!sf_format_check(&info))
        throw OutputError(path + ": cannot write a " + (container == SF_FORMAT_FLAC ? "FLAC" : "WAV") +
                          " file of this format");
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        throw OutputError(path + ": cannot write: " + ErrnoText(errno));
    _regular = IsRegular(fd);
    _file = sf_open_fd(fd, SFM_WRITE, &info, SF_TRUE);
    if (!_file) {
        const std::string why = sf_strerror(nullptr);
        ::close(fd);
        Remove();
        throw OutputError(path + ": cannot write: " + why);
    }
    // Float samples beyond full scale are clipped rather than wrapped when
    // written as integers.
    sf_command(_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

SoundWriter::~SoundWriter()
{
    if (_file) {
        sf_close(_file);
        Remove();
    }
}

void SoundWriter::Remove()
{
    if (_regular)
        ::unlink(_path.c_str());
}

void SoundWriter::Check(sf_count_t written, std::size_t wanted)
{
    if (written != static_cast<sf_count_t>(wanted) || sf_error(_file) != SF_ERR_NO_ERROR) {
        const int error = errno;
        std::string why = sf_strerror(_file);
        if (why.empty() || why == "No Error.")
            why = ErrnoText(error ? error : EIO);
        throw OutputError(_path + ": cannot write: " + why);
    }
}

void SoundWriter::WriteShorts(const short* frames, std::size_t count)
{
    if (count)
        Check(sf_writef_short(_file, frames, static_cast<sf_count_t>(count)), count);
}

void SoundWriter::WriteInts(const std::int32_t* frames, std::size_t count)
{
    if (count)
        Check(sf_writef_int(_file, frames, static_cast<sf_count_t>(count)), count);
}

void SoundWriter::WriteFloats(const float* frames, std::size_t count)
{
    if (count)
        Check(sf_writef_float(_file, frames, static_cast<sf_count_t>(count)), count);
}

void SoundWriter::Close()
{
    SNDFILE* f = _file;
    _file = nullptr;
    // Closing writes the final header; its failure (a full disk) leaves a broken file.
    const int error = sf_close(f);
    if (error != 0) {
        Remove();
        throw OutputError(_path + ": cannot write: " + sf_error_number(error));
    }
}

}  // namespace okutool

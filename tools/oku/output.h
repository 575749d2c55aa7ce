// Where the oku command writes: standard output and error, and the files it
// is asked for. Every write is checked; a failure names the file.
#ifndef OKU_TOOL_OUTPUT_H
#define OKU_TOOL_OUTPUT_H

#include <sndfile.h>
#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace okutool {

// A failed write: its message names the file. It stops the input the file
// belongs to (or, for standard output, the whole run); the exit status is 1.
struct OutputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A failed write to standard output: nothing more can be reported, so the run stops.
struct StdoutError : OutputError {
    using OutputError::OutputError;
};

// Makes sure descriptors 0, 1 and 2 are open before any file is: a closed one
// is taken by /dev/null opened read-only, so that no output file can land on
// it and every write to a closed standard output or error fails.
void HoldStandardDescriptors();

// Writes all of text to standard output; throws StdoutError("standard output: ...").
void WriteStdout(const std::string& text);

// Writes text to standard error, whole, under a lock shared by all threads
// (best effort: there is nowhere left to report a failure).
void WriteStderr(const std::string& text);

// The one place that names the files written per input: the pattern itself for
// a single input; with several, "-N" (N from 1) before the extension
// (plot.svg: plot-1.svg, plot-2.svg).
std::string OutputName(const std::string& pattern, int index, int count);

// What the run reads and writes, by device and inode (for a file that does not
// exist yet: its folder's device and inode and its name), so that no output
// overwrites an input or another output, whatever the paths look like.
class FilePlan {
public:
    // Remembers an input (standard input, "-", is not a file and is skipped).
    void AddInput(const std::string& path);
    // Checks an output named before anything is written: throws std::invalid_argument
    // (a usage error) when it is an input, another output, or cannot be written.
    void AddOutput(const std::string& option, const std::string& path);
    // Claims an output made during the run (a segment's clip): throws
    // OutputError when it names an input, a planned output, or a file another
    // clip of this run has claimed. Safe to call from several threads.
    void Claim(const std::string& path) const;

private:
    struct Id {
        dev_t dev;
        ino_t ino;
        std::string name;  // empty for an existing file
        bool operator==(const Id& o) const { return dev == o.dev && ino == o.ino && name == o.name; }
    };
    // The identity of path; false with why set when its folder cannot be reached.
    static bool Identify(const std::string& path, Id& id, std::string& why);

    std::vector<std::pair<Id, std::string>> _inputs;
    std::vector<std::pair<Id, std::string>> _outputs;
    mutable std::mutex _claimLock;
    mutable std::vector<std::pair<Id, std::string>> _claimed;  // by folder and name
};

// A file written by the command. Close() reports the last errors; a regular
// file not closed (its input failed) is removed by the destructor, so that a
// truncated output never looks finished.
class OutFile {
public:
    explicit OutFile(const std::string& path);
    ~OutFile();
    OutFile(const OutFile&) = delete;
    OutFile& operator=(const OutFile&) = delete;

    void Write(const std::string& text);
    void Close();
    const std::string& Path() const { return _path; }

private:
    std::string _path;
    int _fd = -1;
    bool _regular = false;  // only a regular file is removed (never /dev/null, a FIFO, ...)
};

// An audio file written through libsndfile, with the same rules as OutFile.
class SoundWriter {
public:
    // container: SF_FORMAT_WAV or SF_FORMAT_FLAC; subtype: a libsndfile
    // SF_FORMAT_* subtype (PCM_16, FLOAT, ...) the container holds.
    SoundWriter(const std::string& path, int rate, int channels, int subtype, int container = SF_FORMAT_WAV);
    ~SoundWriter();
    SoundWriter(const SoundWriter&) = delete;
    SoundWriter& operator=(const SoundWriter&) = delete;

    void WriteShorts(const short* frames, std::size_t count);
    // Frames as libsndfile's ints (the sample in the top bits) or floats; count in frames.
    void WriteInts(const std::int32_t* frames, std::size_t count);
    void WriteFloats(const float* frames, std::size_t count);
    void Close();
    const std::string& Path() const { return _path; }

private:
    void Check(sf_count_t written, std::size_t wanted);
    void Remove();
    std::string _path;
    SNDFILE* _file = nullptr;
    bool _regular = false;
};

}  // namespace okutool

#endif

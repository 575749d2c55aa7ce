#include "split.h"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common.h"
#include "text.h"

namespace okutool {

namespace {

// The sample format a clip keeps: the input's own where the container has it,
// else the nearest one that loses nothing the analysis could have seen.
int ClipSubtype(const Source& source, bool flac)
{
    const int s = source.Subtype();
    switch (s) {
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_S8:
        return flac ? SF_FORMAT_PCM_S8 : SF_FORMAT_PCM_U8;
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
        return s;
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
        return flac ? SF_FORMAT_PCM_16 : s;  // FLAC has no companded samples; they fit in 16 bits
    case SF_FORMAT_DWVW_24:
        return SF_FORMAT_PCM_24;
#ifdef OKU_SNDFILE_ALAC
    case SF_FORMAT_ALAC_16:
        return SF_FORMAT_PCM_16;
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
        return SF_FORMAT_PCM_24;
    case SF_FORMAT_ALAC_32:
#endif
    case SF_FORMAT_PCM_32:
        if (flac)
            throw InputError("--split-format flac: the input has 32-bit samples and FLAC holds at most 24 "
                             "(--split-format wav keeps them)");
        return SF_FORMAT_PCM_32;
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
        if (flac)
            throw InputError("--split-format flac: the input has float samples and FLAC holds integers "
                             "(--split-format wav keeps them)");
        return SF_FORMAT_FLOAT;
    default:
        // Lossy codecs are decoded to floats: FLAC keeps them to 24 bits, far
        // below the codec's own noise. Other integer codecs decode to 16 bits.
        if (source.Kind() == SampleKind::Float)
            return flac ? SF_FORMAT_PCM_24 : SF_FORMAT_FLOAT;
        return SF_FORMAT_PCM_16;
    }
}

// The input's folder as given, without its last slash: "" for a bare name or standard input.
std::string InputFolder(const std::string& input)
{
    const std::string::size_type slash = input.rfind('/');
    return input == "-" || slash == std::string::npos ? "" : input.substr(0, slash);
}

// The template with its fields filled in, as a path relative to the folder.
std::string Expand(const std::string& name, const std::string& input, const std::string& index,
                   const std::string& start, const std::string& end)
{
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '}')
            throw std::invalid_argument("--split-name " + name + ": a '}' that closes no field");
        if (name[i] != '{') {
            out += name[i];
            continue;
        }
        const std::size_t close = name.find('}', i);
        if (close == std::string::npos)
            throw std::invalid_argument("--split-name " + name + ": a '{' that is not closed");
        const std::string field = name.substr(i + 1, close - i - 1);
        if (field == "base")
            out += BaseName(input);
        else if (field == "dir")
            out += InputFolder(input);
        else if (field == "index")
            out += index;
        else if (field == "start")
            out += start;
        else if (field == "end")
            out += end;
        else
            throw std::invalid_argument("--split-name " + name + ": no field {" + field +
                                        "}; the fields are {base}, {dir}, {index}, {start} and {end}");
        i = close;
    }
    // Parts: "" and "." go, ".." is refused.
    std::string path;
    std::size_t from = 0;
    while (from <= out.size()) {
        std::size_t slash = out.find('/', from);
        if (slash == std::string::npos)
            slash = out.size();
        const std::string part = out.substr(from, slash - from);
        if (part == "..")
            throw std::invalid_argument("--split-name " + name + ": the clips of " + input +
                                        " would leave the --split folder ('..')");
        if (!part.empty() && part != ".")
            path += (path.empty() ? "" : "/") + part;
        from = slash + 1;
    }
    if (path.empty() || out.back() == '/')
        throw std::invalid_argument("--split-name " + name + ": the clips of " + input + " would have no file name");
    return path;
}

std::string Seconds(double s)
{
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.3f", s);
    return buf;
}

// Makes the folders of path that are missing, below the folder `root` (which exists).
void MakeFolders(const std::string& root, const std::string& path)
{
    for (std::size_t slash = path.find('/', root.size() + 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        struct stat st;
        if (::mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST)
            throw OutputError(folder + ": cannot make the folder: " + ErrnoText(errno));
        if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            throw OutputError(folder + ": is not a folder");
    }
}

// A file removed on destruction unless released.
struct TempFile {
    std::string path;
    ~TempFile()
    {
        if (!path.empty())
            ::unlink(path.c_str());
    }
};

struct SndfileReader {
    SNDFILE* file = nullptr;
    ~SndfileReader()
    {
        if (file)
            sf_close(file);
    }
};

}  // namespace

void ClipNames::CheckTemplate(const std::string& name)
{
    Expand(name, "x", "001", "0.000", "0.000");
    if (name.find("{index}") == std::string::npos)
        throw std::invalid_argument("--split-name " + name +
                                    ": needs {index}, which keeps the clips of one input apart");
}

std::string ClipNames::Path(const ClipOptions& clips, const std::string& input, int index, double startS,
                            double endS)
{
    char number[32];
    std::snprintf(number, sizeof number, "%03d", index);
    return clips.dir + "/" + Expand(clips.name, input, number, Seconds(startS), Seconds(endS)) +
           (clips.flac ? ".flac" : ".wav");
}

std::string ClipNames::Shape(const ClipOptions& clips, const std::string& input)
{
    return Expand(clips.name, input, "\x01", "\x02", "\x03");
}

SegmentWriter::SegmentWriter(const ClipOptions& clips, const std::string& input, const Source& source,
                             const FilePlan& plan, double historySeconds)
    : _clips(clips),
      _input(input),
      _plan(plan),
      _channels(source.Channels()),
      _rate(static_cast<int>(source.Rate())),
      _subtype(ClipSubtype(source, clips.flac)),
      _container(clips.flac ? SF_FORMAT_FLAC : SF_FORMAT_WAV),
      _float(source.Kind() == SampleKind::Float),
      _capacity(std::max<long long>(1, std::llround(historySeconds * static_cast<double>(source.Rate()))))
{
    SF_INFO info{};
    info.samplerate = _rate;
    info.channels = _channels;
    info.format = _container | _subtype;
    if (!sf_format_check(&info))
        throw InputError(std::string("--split: ") + (clips.flac ? "FLAC" : "WAV") + " cannot hold " +
                         std::to_string(_channels) + " channels at " + std::to_string(_rate) + " Hz" +
                         (clips.flac ? " (FLAC holds up to 8 channels; --split-format wav keeps them)" : ""));
    const std::size_t size = static_cast<std::size_t>(_capacity) * static_cast<std::size_t>(_channels);
    if (_float)
        _floats.resize(size);
    else
        _ints.resize(size);
}

SegmentWriter::~SegmentWriter()
{
    _open.reset();  // removes its unfinished file
    if (!_temp.empty())
        ::unlink(_temp.c_str());
}

void SegmentWriter::Feed(const Block& block)
{
    const std::size_t c = static_cast<std::size_t>(_channels);
    std::size_t done = 0;
    while (done < block.frames) {
        // A piece that fits the ring; frames it overwrites are written first if a segment needs them.
        const long long piece = std::min<long long>(static_cast<long long>(block.frames - done), _capacity);
        if (_open)
            WriteUpTo(std::max(_written, _fed + piece - _capacity));
        for (long long i = 0; i < piece; ++i) {
            const std::size_t slot = static_cast<std::size_t>((_fed + i) % _capacity) * c;
            const std::size_t from = (done + static_cast<std::size_t>(i)) * c;
            if (_float)
                std::copy(block.floats + from, block.floats + from + c, _floats.begin() + static_cast<std::ptrdiff_t>(slot));
            else
                std::copy(block.ints + from, block.ints + from + c, _ints.begin() + static_cast<std::ptrdiff_t>(slot));
        }
        _fed += piece;
        done += static_cast<std::size_t>(piece);
    }
}

void SegmentWriter::WriteUpTo(long long frame)
{
    const std::size_t c = static_cast<std::size_t>(_channels);
    while (_written < frame) {
        const long long slot = _written % _capacity;
        const long long count = std::min(frame - _written, _capacity - slot);
        const std::size_t at = static_cast<std::size_t>(slot) * c;
        if (_float)
            _open->WriteFloats(_floats.data() + at, static_cast<std::size_t>(count));
        else
            _open->WriteInts(_ints.data() + at, static_cast<std::size_t>(count));
        _written += count;
    }
}

void SegmentWriter::Start(long long frame)
{
    if (_open)
        throw std::logic_error("--split: a segment started before the last one ended");
    frame = std::min(std::max(frame, 0LL), _fed);
    if (frame < _fed - _capacity)
        throw InputError("--split: a segment starts " + Num(static_cast<double>(_fed - frame) / _rate) +
                         " s before the newest audio, more than the " + Num(static_cast<double>(_capacity) / _rate) +
                         " s kept");
    std::string pattern = _clips.dir + "/.oku-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    const int fd = ::mkstemp(buf.data());
    if (fd < 0)
        throw OutputError(pattern + ": cannot write: " + ErrnoText(errno));
    ::close(fd);
    _temp = buf.data();
    _open.reset(new SoundWriter(_temp, _rate, _channels, _subtype, _container));
    _first = _written = frame;
}

std::string SegmentWriter::Place(const ClipPiece& piece) const
{
    std::string path;
    try {
        path = ClipNames::Path(_clips, _input, piece.index, piece.startS, piece.endS);
    } catch (const std::invalid_argument& e) {
        throw OutputError(e.what());
    }
    MakeFolders(_clips.dir, path);
    _plan.Claim(path);
    return path;
}

std::vector<std::string> SegmentWriter::End(const std::vector<ClipPiece>& pieces)
{
    std::vector<std::string> paths;
    if (!_open || pieces.empty())
        throw std::logic_error("--split: a segment ended that did not start");
    const long long last = std::min(std::max(pieces.back().end, _written), _fed);
    WriteUpTo(last);
    _open->Close();
    _open.reset();
    TempFile temp{_temp};
    _temp.clear();
    for (const ClipPiece& piece : pieces)
        paths.push_back(Place(piece));
    if (pieces.size() == 1) {
        if (::rename(temp.path.c_str(), paths[0].c_str()) == 0) {
            temp.path.clear();
            return paths;
        }
        if (errno != EXDEV)  // another file system below the folder: copied below
            throw OutputError(paths[0] + ": cannot write: " + ErrnoText(errno));
    }
    Cut(temp.path, _first, pieces, paths);
    return paths;
}

void SegmentWriter::Cut(const std::string& temp, long long first, const std::vector<ClipPiece>& pieces,
                        const std::vector<std::string>& paths)
{
    SF_INFO info{};
    SndfileReader in;
    in.file = sf_open(temp.c_str(), SFM_READ, &info);
    if (!in.file)
        throw OutputError(temp + ": cannot read back: " + sf_strerror(nullptr));
    const bool floats = _subtype == SF_FORMAT_FLOAT;
    const std::size_t block = 4096;
    std::vector<std::int32_t> ints(floats ? 0 : block * static_cast<std::size_t>(_channels));
    std::vector<float> fl(floats ? block * static_cast<std::size_t>(_channels) : 0);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const ClipPiece& piece = pieces[i];
        const long long from = std::max(piece.start, first) - first;
        const long long to = std::min<long long>(piece.end - first, info.frames);
        SoundWriter out(paths[i], _rate, _channels, _subtype, _container);
        if (sf_seek(in.file, from, SEEK_SET) != from)
            throw OutputError(temp + ": cannot read back: " + sf_strerror(in.file));
        for (long long at = from; at < to;) {
            const sf_count_t want = static_cast<sf_count_t>(std::min<long long>(to - at, block));
            const sf_count_t got = floats ? sf_readf_float(in.file, fl.data(), want) : sf_readf_int(in.file, ints.data(), want);
            if (got != want)
                throw OutputError(temp + ": cannot read back: " + sf_strerror(in.file));
            if (floats)
                out.WriteFloats(fl.data(), static_cast<std::size_t>(got));
            else
                out.WriteInts(ints.data(), static_cast<std::size_t>(got));
            at += got;
        }
        out.Close();
    }
}

}  // namespace okutool

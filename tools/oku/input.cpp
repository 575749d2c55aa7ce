#include "input.h"

#include <fcntl.h>
#ifdef OKU_HAVE_MPG123
#include <mpg123.h>
#endif
#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "oku.h"
#include "text.h"

namespace okutool {

namespace {

struct SndfileCloser {
    void operator()(SNDFILE* f) const { sf_close(f); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileCloser>;

// A descriptor closed on destruction unless released.
class Fd {
public:
    explicit Fd(int fd = -1) : _fd(fd) {}
    ~Fd()
    {
        if (_fd >= 0)
            ::close(_fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int Get() const { return _fd; }
    void Reset(int fd)
    {
        if (_fd >= 0)
            ::close(_fd);
        _fd = fd;
    }
    int Release()
    {
        const int fd = _fd;
        _fd = -1;
        return fd;
    }

private:
    int _fd;
};

void CheckRate(long rate, const std::string& where)
{
    if (rate < kMinInputRate || rate > kMaxInputRate)
        throw InputError("the sampling rate " + where + ", " + std::to_string(rate) +
                         " Hz, cannot be used (oku reads " + std::to_string(kMinInputRate) + " to " +
                         std::to_string(kMaxInputRate) + " Hz)");
}

bool IsFloatSubtype(int subtype)
{
    switch (subtype) {
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE:
    case SF_FORMAT_VORBIS:
#ifdef OKU_SNDFILE_OPUS
    case SF_FORMAT_OPUS:
#endif
#ifdef OKU_SNDFILE_MPEG
    case SF_FORMAT_MPEG_LAYER_I:
    case SF_FORMAT_MPEG_LAYER_II:
    case SF_FORMAT_MPEG_LAYER_III:
#endif
        return true;
    default:
        return false;
    }
}

unsigned long U32(const unsigned char* p)
{
    return static_cast<unsigned long>(p[0]) | static_cast<unsigned long>(p[1]) << 8 |
           static_cast<unsigned long>(p[2]) << 16 | static_cast<unsigned long>(p[3]) << 24;
}

unsigned U16(const unsigned char* p) { return static_cast<unsigned>(p[0]) | static_cast<unsigned>(p[1]) << 8; }

// What a RIFF/WAVE header states: the rate (for a message when libsndfile
// refuses the file) and the frames its data chunk declares. -1 where the file
// is no WAVE file or a field cannot be found. The length is taken only from
// encodings of one block per frame (PCM, float, A-law, mu-law), and not when
// the writer left it open: 0, or a placeholder for "as long as it goes" that
// streaming writers put there (0x7FFFF000 by espeak-ng --stdout, 0x7FFFFFFF,
// 0xFFFFFFFF).
struct WaveHeader {
    long rate = -1;
    long long declared = -1;
};

WaveHeader ReadWaveHeader(int fd)
{
    WaveHeader h;
    unsigned char b[48];
    if (::pread(fd, b, 12, 0) != 12 || std::memcmp(b, "RIFF", 4) != 0 || std::memcmp(b + 8, "WAVE", 4) != 0)
        return h;
    unsigned tag = 0, align = 0;
    off_t at = 12;
    for (int chunk = 0; chunk < 256; ++chunk) {
        if (::pread(fd, b, 8, at) != 8)
            return h;
        const unsigned long size = U32(b + 4);
        if (std::memcmp(b, "fmt ", 4) == 0) {
            const std::size_t want = std::min<unsigned long>(size, 40);
            if (want < 16 || ::pread(fd, b + 8, want, at + 8) != static_cast<ssize_t>(want))
                return h;
            tag = U16(b + 8);
            h.rate = static_cast<long>(U32(b + 12));
            align = U16(b + 20);
            if (tag == 0xFFFE && want >= 40)
                tag = U16(b + 32);  // WAVE_FORMAT_EXTENSIBLE: the subformat's first two bytes are its tag
        } else if (std::memcmp(b, "data", 4) == 0) {
            const bool open = size == 0 || size == 0x7FFFF000UL || size == 0x7FFFFFFFUL || size == 0xFFFFFFFFUL;
            if ((tag == 1 || tag == 3 || tag == 6 || tag == 7) && align > 0 && !open)
                h.declared = static_cast<long long>(size / align);
            return h;
        }
        at += static_cast<off_t>(8 + size + (size & 1));
    }
    return h;
}

// Copies all of fd into an unlinked temporary file and returns it, rewound.
int Spool(int fd)
{
    const char* dir = std::getenv("TMPDIR");
    std::string folder = dir && *dir ? dir : "/tmp";
    int tmp = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (tmp < 0) {
        std::string name = folder + "/oku-input-XXXXXX";
        std::vector<char> buf(name.begin(), name.end());
        buf.push_back('\0');
        tmp = ::mkstemp(buf.data());
        if (tmp >= 0)
            ::unlink(buf.data());
    }
    if (tmp < 0)
        throw InputError("cannot keep the input in a temporary file in " + folder + ": " + ErrnoText(errno));
    Fd guard(tmp);
    std::vector<char> buf(1 << 16);
    for (;;) {
        const ssize_t n = ::read(fd, buf.data(), buf.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw InputError("cannot read: " + ErrnoText(errno));
        if (n == 0)
            break;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(tmp, buf.data() + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0)
                throw InputError("cannot keep the input in a temporary file in " + folder + ": " +
                                 ErrnoText(w < 0 ? errno : EIO));
            done += w;
        }
    }
    if (::lseek(tmp, 0, SEEK_SET) != 0)
        throw InputError("cannot read back the temporary file: " + ErrnoText(errno));
    return guard.Release();
}

// Any file libsndfile reads.
class SndSource : public Source {
public:
    // Every member that holds a resource is whole before anything can throw,
    // so that a refused input (an empty one, say) releases what it opened:
    // a constructor that throws runs the members' destructors, not its own.
    explicit SndSource(const std::string& name)
    {
        _fd.Reset(Open(name));
        struct stat st;
        if (::fstat(_fd.Get(), &st) == 0 && st.st_size == 0)
            throw InputError("empty file");
        const WaveHeader wave = ReadWaveHeader(_fd.Get());
        SF_INFO info{};
        // libsndfile gets a descriptor of its own: when it cannot open a file
        // it closes the descriptor it was given, whatever it was told, and a
        // second close here could then close another input's file, opened
        // meanwhile by another job under the same number.
        const int lent = ::fcntl(_fd.Get(), F_DUPFD_CLOEXEC, 0);
        if (lent < 0)
            throw InputError("cannot read: " + ErrnoText(errno));
        _file.reset(sf_open_fd(lent, SFM_READ, &info, SF_TRUE));
        if (!_file) {
            if (wave.rate >= 0)
                CheckRate(wave.rate, "in its header");
            throw InputError(std::string("not an audio file libsndfile can read (") + sf_strerror(nullptr) + ")");
        }
#ifdef OKU_HAVE_MPG123
        if ((info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_MPEG) {
            _mpeg = true;  // the caller reads it with libmpg123 instead
            return;
        }
#endif
        _rate = info.samplerate;
        _channels = info.channels;
        _subtype = info.format & SF_FORMAT_SUBMASK;
        _kind = IsFloatSubtype(_subtype) ? SampleKind::Float : SampleKind::Int;
        _frames = info.frames;
        // A WAV file's data chunk and a FLAC file's stream information declare a
        // length; libsndfile's own count of a WAV file's frames follows its size.
        if ((info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC)
            _declared = info.frames;
        else
            _declared = wave.declared;
        if (info.frames <= 0)
            throw InputError("no audio in it (empty)");
        CheckRate(_rate, "in its header");
        if (_channels < 1)
            throw InputError("cannot use " + std::to_string(_channels) + " channels");
    }


    bool Read(Block& block, std::size_t maxFrames) override
    {
        const std::size_t samples = maxFrames * static_cast<std::size_t>(_channels);
        sf_count_t got;
        block = Block();
        if (_kind == SampleKind::Int) {
            _ints.resize(samples);
            got = sf_readf_int(_file.get(), _ints.data(), static_cast<sf_count_t>(maxFrames));
            block.ints = _ints.data();
        } else {
            _floats.resize(samples);
            got = sf_readf_float(_file.get(), _floats.data(), static_cast<sf_count_t>(maxFrames));
            block.floats = _floats.data();
        }
        if (got <= 0) {
            if (sf_error(_file.get()) != SF_ERR_NO_ERROR)
                throw InputError(std::string("cannot read: ") + sf_strerror(_file.get()));
            return false;
        }
        block.frames = static_cast<std::size_t>(got);
        _framesRead += got;
        return true;
    }

    // An MPEG audio file, for libmpg123 to read (see Mpg123Source).
    bool IsMpeg() const { return _mpeg; }
    // Hands the descriptor over, rewound, and closes the file here.
    int TakeDescriptor()
    {
        _file.reset();
        if (::lseek(_fd.Get(), 0, SEEK_SET) < 0)
            throw InputError("cannot rewind: " + ErrnoText(errno));
        return _fd.Release();
    }

private:
    // A descriptor libsndfile can seek on: the file itself, or a spooled copy of a pipe.
    static int Open(const std::string& name)
    {
        if (name == "-") {
            if (::lseek(0, 0, SEEK_CUR) < 0)
                return Spool(0);
            const int fd = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
            if (fd < 0)
                throw InputError("cannot read standard input: " + ErrnoText(errno));
            return fd;
        }
        struct stat st;
        if (::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            throw InputError("is a directory");
        Fd fd(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
        if (fd.Get() < 0)
            throw InputError("cannot open: " + ErrnoText(errno));
        if (::lseek(fd.Get(), 0, SEEK_CUR) >= 0)
            return fd.Release();
        return Spool(fd.Get());
    }

    Fd _fd;           // declared first: closed after the SNDFILE that reads a duplicate of it
    SndfilePtr _file;
    bool _mpeg = false;
    std::vector<std::int32_t> _ints;
    std::vector<float> _floats;
};

// Raw signed 16-bit little-endian PCM, read as it arrives.
class RawSource : public Source {
public:
    RawSource(const std::string& name, const RawFormat& format)
    {
        _rate = format.rate;
        _channels = format.channels;
        _subtype = SF_FORMAT_PCM_16;
        CheckRate(_rate, "given");
        if (name == "-") {
            _fd = 0;
        } else {
            struct stat st;
            if (::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                throw InputError("is a directory");
            _fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
            if (_fd < 0)
                throw InputError("cannot open: " + ErrnoText(errno));
            if (::fstat(_fd, &st) == 0 && S_ISREG(st.st_mode))
                _frames = st.st_size / (2 * _channels);
        }
    }

    ~RawSource() override
    {
        if (_fd > 0)
            ::close(_fd);
    }

    bool Read(Block& block, std::size_t maxFrames) override
    {
        const std::size_t frameBytes = 2 * static_cast<std::size_t>(_channels);
        block = Block();
        while (_bytes.size() < frameBytes && !_ended) {
            std::vector<unsigned char> buf(std::max(maxFrames, std::size_t{1}) * frameBytes - _bytes.size());
            const ssize_t got = ::read(_fd, buf.data(), buf.size());
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                throw InputError("cannot read: " + ErrnoText(errno));
            if (got == 0)
                _ended = true;
            _bytes.insert(_bytes.end(), buf.begin(), buf.begin() + got);
        }
        const std::size_t frames = std::min(maxFrames, _bytes.size() / frameBytes);
        if (frames == 0) {
            if (!_bytes.empty())
                throw InputError("ends in the middle of a frame (" + std::to_string(_bytes.size()) + " bytes left over)");
            return false;
        }
        _ints.resize(frames * static_cast<std::size_t>(_channels));
        for (std::size_t i = 0; i < _ints.size(); ++i) {
            const auto lo = static_cast<std::uint32_t>(_bytes[2 * i]);
            const auto hi = static_cast<std::uint32_t>(_bytes[2 * i + 1]);
            _ints[i] = static_cast<std::int32_t>((lo << 16) | (hi << 24));
        }
        _bytes.erase(_bytes.begin(), _bytes.begin() + static_cast<std::ptrdiff_t>(frames * frameBytes));
        block.ints = _ints.data();
        block.frames = frames;
        _framesRead += static_cast<long long>(frames);
        return true;
    }

private:
    int _fd = 0;
    bool _ended = false;
    std::vector<unsigned char> _bytes;
    std::vector<std::int32_t> _ints;
};

}  // namespace

#ifdef OKU_HAVE_MPG123
struct Mpg123Deleter {
    void operator()(mpg123_handle* h) const { mpg123_delete(h); }
};

// MPEG audio (MP3) decoded by libmpg123 to the end of the stream. The length
// the decoder can tell before reading is an estimate from the first frame's
// bit rate, wrong for a variable bit rate file without a header, so it is
// not taken as the length: the stream is read until the decoder says it ended.
class Mpg123Source : public Source {
public:
    explicit Mpg123Source(int fd)
    {
        _fd.Reset(fd);
        int error = MPG123_OK;
        _handle.reset(mpg123_new(nullptr, &error));
        if (!_handle)
            throw InputError(std::string("cannot decode MPEG audio: ") + mpg123_plain_strerror(error));
        mpg123_handle* h = _handle.get();
        mpg123_param(h, MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);  // problems come back as statuses, not on stderr
        // Float samples, at whatever rate and channels the stream has.
        const long* rates = nullptr;
        std::size_t count = 0;
        mpg123_rates(&rates, &count);
        mpg123_format_none(h);
        for (std::size_t i = 0; i < count; ++i)
            mpg123_format(h, rates[i], MPG123_MONO | MPG123_STEREO, MPG123_ENC_FLOAT_32);
        if (mpg123_open_fd(h, _fd.Get()) != MPG123_OK)
            throw InputError(std::string("cannot decode MPEG audio: ") + mpg123_strerror(h));
        long rate = 0;
        int channels = 0, encoding = 0;
        if (mpg123_getformat(h, &rate, &channels, &encoding) != MPG123_OK)
            throw InputError(std::string("cannot decode MPEG audio: ") + mpg123_strerror(h));
        // One format for the whole stream.
        mpg123_format_none(h);
        mpg123_format(h, rate, channels, encoding);
        _rate = rate;
        _channels = channels;
        _kind = SampleKind::Float;
        _subtype = SF_FORMAT_MPEG_LAYER_III;
        CheckRate(_rate, "of its first frame");
    }

    ~Mpg123Source() override
    {
        if (_handle)
            mpg123_close(_handle.get());
    }

    bool Read(Block& block, std::size_t maxFrames) override
    {
        block = Block();
        _floats.resize(std::max<std::size_t>(maxFrames, 1) * static_cast<std::size_t>(_channels));
        const std::size_t frameBytes = sizeof(float) * static_cast<std::size_t>(_channels);
        std::size_t bytes = 0;
        for (;;) {
            const int status = mpg123_read(_handle.get(), reinterpret_cast<unsigned char*>(_floats.data()),
                                           _floats.size() * sizeof(float), &bytes);
            if (bytes >= frameBytes)
                break;
            if (status == MPG123_DONE)
                return false;
            if (status != MPG123_OK && status != MPG123_NEW_FORMAT)
                throw InputError(std::string("cannot decode: ") + mpg123_strerror(_handle.get()));
        }
        block.floats = _floats.data();
        block.frames = bytes / frameBytes;
        _framesRead += static_cast<long long>(block.frames);
        return true;
    }

private:
    Fd _fd;  // declared first: closed after the decoder that reads it
    std::unique_ptr<mpg123_handle, Mpg123Deleter> _handle;
    std::vector<float> _floats;
};
#endif

std::unique_ptr<Source> OpenSource(const std::string& name, const RawFormat* raw)
{
    if (raw)
        return std::unique_ptr<Source>(new RawSource(name, *raw));
    std::unique_ptr<SndSource> source(new SndSource(name));
#ifdef OKU_HAVE_MPG123
    if (source->IsMpeg()) {
        const int fd = source->TakeDescriptor();
        source.reset();
        return std::unique_ptr<Source>(new Mpg123Source(fd));
    }
#endif
    return std::unique_ptr<Source>(source.release());
}

LibraryFeed::LibraryFeed(const Source& source, double chunkMs)
    : _channels(source.Channels()), _inputRate(source.Rate()), _kind(source.Kind())
{
    const bool listed = oku_analysis_rate(static_cast<double>(_inputRate)) != 0;
    _rate = listed ? static_cast<int>(_inputRate) : oku_nearest_rate(static_cast<double>(_inputRate));
    _floats = !listed || _kind == SampleKind::Float || source.Subtype() != SF_FORMAT_PCM_16;
    std::size_t frames = 0;
    if (oku_chunk_samples(_rate, chunkMs, &frames) != OKU_OK)
        throw InputError("--chunk-ms " + Num(chunkMs) + " at " + std::to_string(_rate) + " Hz: " + oku_last_error());
    _chunkFrames = frames;
    const double ratio = static_cast<double>(_inputRate) / _rate;
    _blockFrames = std::min<std::size_t>(16384, std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(frames * ratio))));
    if (!listed) {
        soxr_error_t error = nullptr;
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
        _soxr = soxr_create(static_cast<double>(_inputRate), _rate, static_cast<unsigned>(_channels), &error, &io,
                            &quality, nullptr);
        if (error)
            throw InputError(std::string("cannot resample: ") + error);
    }
}

LibraryFeed::~LibraryFeed()
{
    if (_soxr)
        soxr_delete(_soxr);
}

void LibraryFeed::Push(const Block& block)
{
    // What was handed out goes once it is half the buffer.
    std::vector<short>& s = _shorts;
    std::vector<float>& f = _out;
    if (_taken > 0 && _taken * 2 >= (_floats ? f.size() : s.size())) {
        if (_floats)
            f.erase(f.begin(), f.begin() + static_cast<std::ptrdiff_t>(_taken));
        else
            s.erase(s.begin(), s.begin() + static_cast<std::ptrdiff_t>(_taken));
        _taken = 0;
    }
    const std::size_t n = block.frames * static_cast<std::size_t>(_channels);
    if (!_floats) {
        // 16-bit PCM: libsndfile's ints hold the sample in the top 16 bits.
        for (std::size_t i = 0; i < n; ++i)
            s.push_back(static_cast<short>(block.ints[i] >> 16));
        return;
    }
    std::vector<float>& to = _soxr ? _in : f;
    if (_soxr)
        to.clear();
    if (_kind == SampleKind::Int) {
        for (std::size_t i = 0; i < n; ++i)
            to.push_back(static_cast<float>(block.ints[i]) * (1.0f / 2147483648.0f));
    } else {
        to.insert(to.end(), block.floats, block.floats + n);
    }
    if (_soxr) {
        for (float& x : _in)
            if (!std::isfinite(x)) {
                ++_nonFinite;
                x = 0.0f;
            }
        Resample(_in.data(), block.frames);
    }
}

void LibraryFeed::Finish()
{
    if (!_finished && _soxr)
        Resample(nullptr, 0);
    _finished = true;
}

void LibraryFeed::Resample(const float* in, std::size_t frames)
{
    const std::size_t c = static_cast<std::size_t>(_channels);
    std::vector<float> out(4096 * c);
    std::size_t done = 0;
    for (;;) {
        std::size_t used = 0, produced = 0;
        const soxr_error_t error =
            soxr_process(_soxr, in ? in + done * c : nullptr, in ? frames - done : 0, &used, out.data(), 4096, &produced);
        if (error)
            throw InputError(std::string("resampling failed: ") + error);
        done += used;
        _out.insert(_out.end(), out.begin(), out.begin() + static_cast<std::ptrdiff_t>(produced * c));
        if (in ? done >= frames && produced < 4096 : produced == 0)
            return;
    }
}

bool LibraryFeed::Take(Chunk& chunk)
{
    const std::size_t c = static_cast<std::size_t>(_channels);
    const std::size_t available = ((_floats ? _out.size() : _shorts.size()) - _taken) / c;
    if (available == 0 || (available < _chunkFrames && !_finished))
        return false;
    chunk = Chunk();
    chunk.frames = std::min(_chunkFrames, available);
    if (_floats)
        chunk.floats = _out.data() + _taken;
    else
        chunk.shorts = _shorts.data() + _taken;
    _taken += chunk.frames * c;
    return true;
}

long long LibraryFeed::InputFrame(long long position, long long framesRead) const
{
    if (!_soxr)
        return std::min(std::max(0LL, position), framesRead);
    const double frame = static_cast<double>(position) * static_cast<double>(_inputRate) / _rate;
    return std::min(std::max(0LL, std::llround(frame)), framesRead);
}

}  // namespace okutool

#include "input.h"

#include <sndfile.h>
#include <soxr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>

namespace okutool {

int NearestSupportedRate(long rate)
{
    static const int rates[] = {8000, 11025, 16000, 22050};
    int best = rates[0];
    for (int r : rates)
        if (std::labs(rate - r) < std::labs(rate - best))
            best = r;
    return best;
}

namespace {

// The rates a resampler can be asked to convert from: anything a real file or
// device may carry, and nothing absurd.
const long kMinInputRate = 1000;
const long kMaxInputRate = 768000;

short ToSample(float x)
{
    const float scaled = std::nearbyint(x * 32768.0f);
    return static_cast<short>(std::max(-32768.0f, std::min(32767.0f, scaled)));
}

// Mixes interleaved frames down to mono and resamples them, keeping the result
// in a queue from which chunks are taken.
class Converter {
public:
    Converter(long inRate, int outRate, int channels) : _channels(channels)
    {
        if (inRate != outRate) {
            soxr_error_t error = nullptr;
            const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
            const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
            _soxr = soxr_create(static_cast<double>(inRate), outRate, 1, &error, &io, &quality, nullptr);
            if (error)
                throw InputError(std::string("cannot resample: ") + error);
        }
    }
    ~Converter()
    {
        if (_soxr)
            soxr_delete(_soxr);
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // Exact path: mono 16-bit at a supported rate.
    void PushShorts(const short* frames, std::size_t count) { _out.insert(_out.end(), frames, frames + count); }

    // Float frames, interleaved, in [-1, 1).
    void PushFloats(const float* frames, std::size_t count)
    {
        _mono.resize(count);
        for (std::size_t i = 0; i < count; ++i) {
            float sum = 0.0f;
            for (int c = 0; c < _channels; ++c)
                sum += frames[i * static_cast<std::size_t>(_channels) + static_cast<std::size_t>(c)];
            _mono[i] = sum / static_cast<float>(_channels);
        }
        Resample(_mono.data(), count);
    }

    void Finish()
    {
        if (_soxr)
            Resample(nullptr, 0);
    }

    bool Take(std::vector<short>& chunk, std::size_t n)
    {
        const std::size_t count = std::min(n, _out.size());
        chunk.assign(_out.begin(), _out.begin() + static_cast<long>(count));
        _out.erase(_out.begin(), _out.begin() + static_cast<long>(count));
        return count > 0;
    }
    std::size_t Available() const { return _out.size(); }

private:
    void Resample(const float* in, std::size_t count)
    {
        if (!_soxr) {
            for (std::size_t i = 0; i < count; ++i)
                _out.push_back(ToSample(in[i]));
            return;
        }
        std::size_t done = 0;
        do {
            float out[4096];
            std::size_t used = 0, produced = 0;
            soxr_error_t error = soxr_process(_soxr, in ? in + done : nullptr, in ? count - done : 0, &used, out,
                                              sizeof out / sizeof out[0], &produced);
            if (error)
                throw InputError(std::string("resampling failed: ") + error);
            done += used;
            for (std::size_t i = 0; i < produced; ++i)
                _out.push_back(ToSample(out[i]));
            if (!in && produced == 0)
                break;
        } while (in ? done < count : true);
    }

    int _channels;
    soxr_t _soxr = nullptr;
    std::vector<float> _mono;
    std::deque<short> _out;
};

void CheckRate(long rate)
{
    if (rate < kMinInputRate || rate > kMaxInputRate)
        throw InputError("cannot resample a sampling rate of " + std::to_string(rate) + " Hz (supported: " +
                         std::to_string(kMinInputRate) + " to " + std::to_string(kMaxInputRate) + ")");
}

// An in-memory file for libsndfile's virtual I/O (standard input read whole).
struct MemoryFile {
    const std::vector<char>* data = nullptr;
    sf_count_t pos = 0;

    static MemoryFile* Self(void* p) { return static_cast<MemoryFile*>(p); }
    static sf_count_t Length(void* p) { return static_cast<sf_count_t>(Self(p)->data->size()); }
    static sf_count_t Seek(sf_count_t offset, int whence, void* p)
    {
        const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? Self(p)->pos : Length(p);
        Self(p)->pos = std::max<sf_count_t>(0, std::min(base + offset, Length(p)));
        return Self(p)->pos;
    }
    static sf_count_t Read(void* dst, sf_count_t count, void* p)
    {
        const sf_count_t n = std::max<sf_count_t>(0, std::min(count, Length(p) - Self(p)->pos));
        std::memcpy(dst, Self(p)->data->data() + Self(p)->pos, static_cast<std::size_t>(n));
        Self(p)->pos += n;
        return n;
    }
    static sf_count_t Write(const void*, sf_count_t, void*) { return 0; }
    static sf_count_t Tell(void* p) { return Self(p)->pos; }

    SNDFILE* Open(SF_INFO& info)
    {
        static SF_VIRTUAL_IO io = {Length, Seek, Read, Write, Tell};
        pos = 0;
        return sf_open_virtual(&io, SFM_READ, &info, this);
    }
};

std::vector<char> ReadAllStdin()
{
    std::vector<char> data;
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(0, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw InputError(std::string("cannot read standard input: ") + std::strerror(errno));
        if (n == 0)
            return data;
        data.insert(data.end(), buf, buf + n);
    }
}

// Any file libsndfile reads, from a path or from memory (standard input).
class FileSource : public Source {
public:
    FileSource(const std::string& path, std::vector<char> memory) : _path(path), _memory(std::move(memory))
    {
        _file = Open(_reader, _info);
        _channels = _info.channels;
        _originalRate = _info.samplerate;
        _originalFrames = _info.frames;
        if (_info.frames <= 0)
            throw InputError("no audio in it (empty)");
        CheckRate(_originalRate);
        _rate = NearestSupportedRate(_originalRate);
        _exact = _channels == 1 && _rate == _originalRate && (_info.format & SF_FORMAT_SUBMASK) == SF_FORMAT_PCM_16;
        _converter.reset(new Converter(_originalRate, _rate, _channels));
    }
    ~FileSource() override { sf_close(_file); }

    bool Read(std::vector<short>& chunk, std::size_t n) override
    {
        while (_converter->Available() < n && !_ended) {
            const sf_count_t want = 4096;
            sf_count_t got;
            if (_exact) {
                _shorts.resize(static_cast<std::size_t>(want));
                got = sf_readf_short(_file, _shorts.data(), want);
                _converter->PushShorts(_shorts.data(), static_cast<std::size_t>(got));
            } else {
                _floats.resize(static_cast<std::size_t>(want * _channels));
                got = sf_readf_float(_file, _floats.data(), want);
                _converter->PushFloats(_floats.data(), static_cast<std::size_t>(got));
            }
            _originalFramesRead += got;
            if (got < want) {
                _ended = true;
                _converter->Finish();
            }
        }
        return _converter->Take(chunk, n);
    }

    std::vector<short> OriginalFramesAt(long long from, long long count) override
    {
        MemoryFile reader;
        SF_INFO info{};
        SNDFILE* f = Open(reader, info);
        std::vector<short> frames(static_cast<std::size_t>(count * info.channels));
        sf_count_t got = 0;
        if (sf_seek(f, from, SEEK_SET) >= 0)
            got = sf_readf_short(f, frames.data(), count);
        sf_close(f);
        frames.resize(static_cast<std::size_t>(got * info.channels));
        return frames;
    }

private:
    SNDFILE* Open(MemoryFile& reader, SF_INFO& info)
    {
        SNDFILE* f;
        if (_path == "-") {
            reader.data = &_memory;
            f = reader.Open(info);
        } else {
            f = sf_open(_path.c_str(), SFM_READ, &info);
        }
        if (!f) {
            const std::string why = sf_strerror(nullptr);
            if (_path != "-" && ::access(_path.c_str(), R_OK) != 0)
                throw InputError(std::string("cannot open: ") + std::strerror(errno));
            struct stat st;
            if (_path != "-" && ::stat(_path.c_str(), &st) == 0 && st.st_size == 0)
                throw InputError("empty file");
            throw InputError("not an audio file libsndfile can read (" + why + ")");
        }
        return f;
    }

    std::string _path;
    std::vector<char> _memory;
    MemoryFile _reader;
    SF_INFO _info{};
    SNDFILE* _file = nullptr;
    bool _exact = false;
    bool _ended = false;
    std::vector<short> _shorts;
    std::vector<float> _floats;
    std::unique_ptr<Converter> _converter;
};

// Raw signed 16-bit little-endian PCM from standard input, read as it arrives.
class RawSource : public Source {
public:
    RawSource(long rate, int channels, bool keepOriginal) : _keep(keepOriginal)
    {
        CheckRate(rate);
        _originalRate = rate;
        _channels = channels;
        _rate = NearestSupportedRate(rate);
        _converter.reset(new Converter(_originalRate, _rate, _channels));
    }

    bool Read(std::vector<short>& chunk, std::size_t n) override
    {
        while (_converter->Available() < n && !_ended) {
            // Ask for what the chunk still needs (so live input is not held back), at least one frame.
            const std::size_t frameBytes = 2 * static_cast<std::size_t>(_channels);
            const std::size_t need = std::max<std::size_t>(1, n - _converter->Available());
            const std::size_t wantBytes =
                static_cast<std::size_t>(std::ceil(need * static_cast<double>(_originalRate) / _rate)) * frameBytes;
            std::vector<unsigned char> buf(std::max(wantBytes, frameBytes));
            const ssize_t got = ::read(0, buf.data(), buf.size());
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                throw InputError(std::string("cannot read standard input: ") + std::strerror(errno));
            if (got == 0) {
                _ended = true;
                _converter->Finish();
                break;
            }
            _pending.insert(_pending.end(), buf.begin(), buf.begin() + got);
            const std::size_t frames = _pending.size() / frameBytes;
            std::vector<short> samples(frames * static_cast<std::size_t>(_channels));
            for (std::size_t i = 0; i < samples.size(); ++i)
                samples[i] = static_cast<short>(static_cast<unsigned>(_pending[2 * i]) |
                                                (static_cast<unsigned>(_pending[2 * i + 1]) << 8));
            _pending.erase(_pending.begin(), _pending.begin() + static_cast<long>(frames * frameBytes));
            _originalFramesRead += static_cast<long long>(frames);
            if (_keep)
                _original.insert(_original.end(), samples.begin(), samples.end());
            if (_channels == 1 && _rate == _originalRate) {
                _converter->PushShorts(samples.data(), frames);
            } else {
                std::vector<float> f(samples.size());
                for (std::size_t i = 0; i < f.size(); ++i)
                    f[i] = samples[i] / 32768.0f;
                _converter->PushFloats(f.data(), frames);
            }
        }
        return _converter->Take(chunk, n);
    }

    std::vector<short> OriginalFramesAt(long long from, long long count) override
    {
        const std::size_t c = static_cast<std::size_t>(_channels);
        const std::size_t begin = std::min(_original.size(), static_cast<std::size_t>(from) * c);
        const std::size_t end = std::min(_original.size(), static_cast<std::size_t>(from + count) * c);
        return std::vector<short>(_original.begin() + static_cast<long>(begin), _original.begin() + static_cast<long>(end));
    }

private:
    bool _keep;
    bool _ended = false;
    std::vector<unsigned char> _pending;
    std::vector<short> _original;
    std::unique_ptr<Converter> _converter;
};

}  // namespace

std::unique_ptr<Source> OpenSource(const std::string& name, bool raw, long rawRate, int rawChannels, bool keepOriginal)
{
    if (name == "-" && raw)
        return std::unique_ptr<Source>(new RawSource(rawRate, rawChannels, keepOriginal));
    if (name == "-") {
        std::vector<char> data = ReadAllStdin();
        if (data.empty())
            throw InputError("no audio in it (empty stream)");
        return std::unique_ptr<Source>(new FileSource(name, std::move(data)));
    }
    return std::unique_ptr<Source>(new FileSource(name, std::vector<char>()));
}

}  // namespace okutool

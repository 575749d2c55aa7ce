#include "split.h"

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "text.h"

namespace okutool {

namespace {

// The WAV sample format a segment keeps: the input's own where WAV has it,
// else the nearest one that loses nothing the analysis could have seen.
int SegmentSubtype(const Source& source)
{
    switch (source.Subtype()) {
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
        return source.Subtype();
    case SF_FORMAT_PCM_S8:
        return SF_FORMAT_PCM_U8;
#ifdef OKU_SNDFILE_ALAC
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
        return SF_FORMAT_PCM_24;
    case SF_FORMAT_ALAC_32:
        return SF_FORMAT_PCM_32;
#endif
    default:
        // Doubles and lossy formats are read as floats; other integer codecs as 16 bits.
        return source.Kind() == SampleKind::Float ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_16;
    }
}

}  // namespace

SegmentWriter::SegmentWriter(const std::string& dir, const std::string& base, const Source& source,
                             const FilePlan& plan, double historySeconds)
    : _dir(dir),
      _base(base),
      _plan(plan),
      _channels(source.Channels()),
      _rate(static_cast<int>(source.Rate())),
      _subtype(SegmentSubtype(source)),
      _float(source.Kind() == SampleKind::Float),
      _capacity(std::max<long long>(1, std::llround(historySeconds * static_cast<double>(source.Rate()))))
{
    const std::size_t size = static_cast<std::size_t>(_capacity) * static_cast<std::size_t>(_channels);
    if (_float)
        _floats.resize(size);
    else
        _ints.resize(size);
}

SegmentWriter::~SegmentWriter() = default;

std::string SegmentWriter::FileName(const std::string& base, int index, double startS)
{
    char tail[64];
    std::snprintf(tail, sizeof tail, "-%03d-%.3fs.wav", index, startS);
    return base + tail;
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

void SegmentWriter::Start(long long frame, double startS)
{
    if (_open)
        End(frame);
    frame = std::min(std::max(frame, 0LL), _fed);
    if (frame < _fed - _capacity)
        throw InputError("--split: segment " + std::to_string(_count + 1) + " starts " +
                         Num(static_cast<double>(_fed - frame) / _rate) + " s before the newest audio, more than the " +
                         Num(static_cast<double>(_capacity) / _rate) + " s kept");
    ++_count;
    const std::string path = _dir + "/" + FileName(_base, _count, startS);
    _plan.CheckDuringRun(path);
    _open.reset(new WavWriter(path, _rate, _channels, _subtype));
    _written = frame;
}

void SegmentWriter::End(long long frame)
{
    if (!_open)
        return;
    WriteUpTo(std::min(std::max(frame, _written), _fed));
    _open->Close();
    _open.reset();
}

void SegmentWriter::Finish() { End(_fed); }

}  // namespace okutool

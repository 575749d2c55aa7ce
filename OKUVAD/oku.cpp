// The reentrant C interface: one handle per analyzer or gain control.
// (Statuses and messages: status.h; the facts for front ends: facts.cpp.)
#include "oku.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <new>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "../src/inputpath.h"
#include "../src/measure.h"
#include "boundary.h"
#include "status.h"

using oku::status::Fail;
using oku::status::Guard;
using oku::status::Null;

static_assert(std::is_same<int16_t, short>::value, "samples are handed to the classes as short");

struct oku_vad {
    oku::InputPath input;
    oku::AudioAnalyzer analyzer;
    bool frames;
    oku::AudioData converted;      // a chunk at the analysis rate, reused from call to call
    oku_vad_segment open{};        // the start of the segment the last SPEECH_START taken opened
    std::uint64_t repeatMark = 0;  // for the repeat check of the many-call

    oku_vad(const char* params, double rate, int channels, bool supplyFrames)
        : input(rate, channels),
          analyzer(params ? params : "", input.AnalysisRate(), supplyFrames),
          frames(supplyFrames)
    {
        // Frames are handed out only when asked for; otherwise they are not made at all.
        analyzer.SetFrameResults(supplyFrames);
        converted.reserve(oku::AudioAnalyzer::kReservedChunk);  // float input converts even at an analysis rate
    }

    // Room, before anything changes, for what n input samples give.
    void Reserve(std::size_t n)
    {
        const std::size_t m = input.MaxOutput(n);
        analyzer.ReserveChunk(m);
        if (converted.capacity() < m)
            converted.reserve(m);
    }

    // The analysis samples of a chunk, and how many: the chunk itself when it
    // passes through, else its conversion.
    template <typename Sample>
    std::pair<const short*, std::size_t> Convert(const Sample* samples, std::size_t n)
    {
        if constexpr (std::is_same<Sample, short>::value) {
            if (input.Passthrough())
                return {samples, n};
        }
        input.Convert(samples, n, converted);
        return {converted.data(), converted.size()};
    }
};
static std::uint64_t& RepeatMark(oku_vad* v) { return v->repeatMark; }

namespace {

// More samples than any array can hold: refused before the pointer is used.
template <typename Sample>
int CheckCount(std::size_t n)
{
    if (n > static_cast<std::size_t>(PTRDIFF_MAX) / sizeof(Sample))
        return Fail(OKU_ERR_ARGUMENT, "sample count larger than any array");
    return OKU_OK;
}

// Refuses a sample count that is no whole number of frames; `what` names it.
template <typename What>
int CheckFrames(std::size_t n, int channels, What what)
{
    if (n % static_cast<std::size_t>(channels) == 0)
        return OKU_OK;
    return Fail(OKU_ERR_ARGUMENT, std::string(what) + " (" + std::to_string(n) + ") is not a whole number of frames of " +
                                      std::to_string(channels) + " channels");
}

// Checks the arrays of a *_process_many call before anything is touched:
// OKU_OK, or the status of the first fault with a message naming it
// ("vads[3] is null"). May throw std::bad_alloc.
template <typename Sample, typename Handle>
int CheckMany(const char* name, Handle* const* handles, const Sample* const* samples, const std::size_t* counts,
              std::size_t n)
{
    if (n == 0)
        return OKU_OK;
    if (!handles)
        return Null(name);
    if (!samples)
        return Null("samples");
    if (!counts)
        return Null("counts");
    const auto at = [](const char* array, std::size_t i) { return std::string(array) + "[" + std::to_string(i) + "]"; };
    for (std::size_t i = 0; i < n; ++i) {
        if (!handles[i])
            return Fail(OKU_ERR_NULL, at(name, i) + " is null");
        if (CheckCount<Sample>(counts[i]) != OKU_OK)
            return Fail(OKU_ERR_ARGUMENT, at("counts", i) + " is larger than any array");
        if (counts[i] % static_cast<std::size_t>(handles[i]->input.Channels()) != 0)
            return CheckFrames(counts[i], handles[i]->input.Channels(), at("counts", i));
        if (!samples[i] && counts[i] > 0)
            return Fail(OKU_ERR_NULL, at("samples", i) + " is null");
    }
    const std::size_t repeat = oku::FindRepeat(handles, n);  // allocation-free
    if (repeat != n)
        return Fail(OKU_ERR_ARGUMENT, at(name, repeat) + " repeats an earlier handle");
    return OKU_OK;
}

// Fills one C result from an analyzer result; false for the results this
// interface does not hand out (the marks that accompany starts and ends, and
// frames when frames were not asked for).
bool Convert(const oku_vad& vad, const oku::QueuedResult& r, oku_vad_result& out)
{
    oku_vad_result c{};
    switch (r.type) {
    case oku::AnalyzerResult::RT_Event:
        if (r.tag != oku::AnalyzerEvent::SpeechStart && r.tag != oku::AnalyzerEvent::SpeechEnd)
            return false;
        c.type = r.tag == oku::AnalyzerEvent::SpeechStart ? OKU_VAD_SPEECH_START : OKU_VAD_SPEECH_END;
        c.speech = r.tag == oku::AnalyzerEvent::SpeechStart;
        c.time_ms = r.timeMs;
        break;
    case oku::AnalyzerResult::RT_VolumeMeter:
        c.type = OKU_VAD_VOLUME;
        c.speech = r.speech;
        c.time_ms = r.timeMs;
        c.assessment = r.tag;
        c.peak = r.volume;
        c.level_dbfs = r.volumedBFS;
        c.snr_pct = r.snrPct;
        break;
    case oku::AnalyzerResult::RT_AudioFrame: {
        if (!vad.frames)
            return false;
        c.type = OKU_VAD_FRAME;
        c.speech = r.speech;
        c.frame_index = r.frameIndex;
        c.time_ms = r.frameIndex * vad.analyzer.GetFrameSizeMs();
        c.sample_count = static_cast<int32_t>(r.samples.size());
        // The analyzer leaves a taken result as it is until it queues the
        // next one, which only a later process or flush call does.
        c.samples = r.samples.empty() ? nullptr : r.samples.data();
        break;
    }
    }
    c.position = vad.input.ToInputFrames(std::llround(c.time_ms * vad.input.AnalysisRate() / 1000.0));
    out = c;
    return true;
}

// Takes up to capacity results the interface hands out; a SPEECH_START
// opens a segment, which the next SPEECH_END closes into segments[i] (when
// segments is given).
std::size_t Take(oku_vad& vad, oku_vad_result* out, std::size_t capacity, oku_vad_segment* segments = nullptr)
{
    std::size_t count = 0;
    while (count < capacity) {
        const oku::QueuedResult* r = vad.analyzer.TakeResult();
        if (!r)
            break;
        oku_vad_result& c = out[count];
        if (!Convert(vad, *r, c))
            continue;
        oku_vad_segment segment{};
        if (c.type == OKU_VAD_SPEECH_START) {
            vad.open.start = c.position;
            vad.open.start_ms = c.time_ms;
        } else if (c.type == OKU_VAD_SPEECH_END) {
            segment = vad.open;
            segment.end = c.position;
            segment.end_ms = c.time_ms;
        }
        if (segments)
            segments[count] = segment;
        ++count;
    }
    return count;
}

// Turns what the gain control writes into one callback per line.
class LineBuf : public std::streambuf {
public:
    oku_agc_log_fn fn = nullptr;
    void* user = nullptr;

protected:
    int overflow(int c) override
    {
        if (c == traits_type::eof())
            return traits_type::not_eof(c);
        if (c == '\n') {
            if (fn)
                fn(user, _line.c_str());
            _line.clear();
        } else {
            _line += static_cast<char>(c);
        }
        return c;
    }

private:
    std::string _line;
};

}  // namespace

// The gain control writes its log into a LineBuf only while the caller has a
// callback set, so that a handle without one formats no log lines. The buffer
// outlives the gain control (members are destroyed in reverse order).
struct oku_agc {
    std::unique_ptr<LineBuf> buf{new LineBuf};
    std::shared_ptr<std::ostream> stream{new std::ostream(buf.get())};
    bool updated = false;
    bool changed = false;
    std::uint64_t repeatMark = 0;  // for the repeat check of the many-call
    oku::InputPath input;
    oku::AGC agc;
    oku::AudioData converted;  // a chunk at the analysis rate, reused from call to call

    oku_agc(const char* params, double rate, int channels)
        : input(rate, channels), agc(params ? params : "", input.AnalysisRate())
    {
        converted.reserve(oku::AGC::kReservedChunk);
    }

    void Reserve(std::size_t n)
    {
        const std::size_t m = input.MaxOutput(n);
        agc.ReserveChunk(m);
        if (converted.capacity() < m)
            converted.reserve(m);
    }

    template <typename Sample>
    std::pair<const short*, std::size_t> Convert(const Sample* samples, std::size_t n)
    {
        if constexpr (std::is_same<Sample, short>::value) {
            if (input.Passthrough())
                return {samples, n};
        }
        input.Convert(samples, n, converted);
        return {converted.data(), converted.size()};
    }

    // Records what a call did and returns the gain to hand back: the proposal
    // when it differs from the gain given (in float, as the gain control keeps
    // gains), else the given gain itself.
    double Finish(long long updatesBefore, double gain, float proposed)
    {
        oku::AGC::ControlInfo info;
        agc.GetInfo(info);
        updated = agc.GetNumUpdates() != updatesBefore ||
                  info.GetControlType() == oku::AGC::ControlInfo::GainEstimate;
        changed = proposed != static_cast<float>(gain);
        return changed ? static_cast<double>(proposed) : gain;
    }
};

static std::uint64_t& RepeatMark(oku_agc* a) { return a->repeatMark; }

namespace {

// Creates a handle; statuses as the create functions list them.
template <typename Handle, typename Make>
int Create(int service, const char* params, int channels, Handle** out, Make make)
{
    if (!out)
        return Null("out");
    if (channels < 1 || channels > OKU_MAX_CHANNELS)
        return Fail(OKU_ERR_ARGUMENT, "channels must lie in 1 to " + std::to_string(OKU_MAX_CHANNELS));
    const int status = Guard([&] {
        *out = make();
        return OKU_OK;
    });
    return oku::status::NameParams(status, service, params);
}

// The checks of a single process call.
template <typename Sample, typename Handle>
int CheckProcess(const char* name, Handle* h, const Sample* samples, std::size_t n)
{
    if (!h)
        return Null(name);
    if (CheckCount<Sample>(n) != OKU_OK)
        return OKU_ERR_ARGUMENT;
    if (CheckFrames(n, h->input.Channels(), "the sample count") != OKU_OK)
        return OKU_ERR_ARGUMENT;
    if (!samples && n > 0)
        return Null("samples");
    return OKU_OK;
}

template <typename Sample>
int VadProcess(oku_vad* vad, const Sample* samples, std::size_t n)
{
    const int status = CheckProcess("vad", vad, samples, n);
    if (status != OKU_OK)
        return status;
    return Guard([&] {
        vad->Reserve(n);  // std::bad_alloc before anything changes
        const auto chunk = vad->Convert(samples, n);
        vad->analyzer.Process(chunk.first, chunk.second);
        return OKU_OK;
    });
}

template <typename Sample>
int VadProcessMany(oku_vad* const* vads, const Sample* const* samples, const size_t* counts, size_t n)
{
    return Guard([&]() -> int {
        const int status = CheckMany("vads", vads, samples, counts, n);
        if (status != OKU_OK || n == 0)
            return status;
        // Room for every chunk first (std::bad_alloc before any handle
        // changes), then batches of analyzers on the stack.
        for (std::size_t i = 0; i < n; ++i)
            vads[i]->Reserve(counts[i]);
        oku::AudioAnalyzer* analyzers[oku::kManyBatch];
        const short* chunks[oku::kManyBatch];
        std::size_t sizes[oku::kManyBatch];
        for (std::size_t first = 0; first < n; first += oku::kManyBatch) {
            const std::size_t m = std::min(oku::kManyBatch, n - first);
            for (std::size_t i = 0; i < m; ++i) {
                oku_vad* vad = vads[first + i];
                analyzers[i] = &vad->analyzer;
                const auto chunk = vad->Convert(samples[first + i], counts[first + i]);
                chunks[i] = chunk.first;
                sizes[i] = chunk.second;
            }
            oku::AudioAnalyzer::ProcessMany(analyzers, chunks, sizes, m);
        }
        return OKU_OK;
    });
}

template <typename Sample>
int AgcProcess(oku_agc* agc, const Sample* samples, std::size_t n, double gain, double* new_gain)
{
    if (!agc)
        return Null("agc");
    if (!new_gain)
        return Null("new_gain");
    const int status = CheckProcess("agc", agc, samples, n);
    if (status != OKU_OK)
        return status;
    if (!(gain >= 0.0 && gain <= 1.0))
        return Fail(OKU_ERR_ARGUMENT, "gain must lie in [0, 1]");
    return Guard([&] {
        agc->Reserve(n);
        const auto chunk = agc->Convert(samples, n);
        const long long updatesBefore = agc->agc.GetNumUpdates();
        const float result = agc->agc.ComputeGain(chunk.first, chunk.second, static_cast<float>(gain));
        *new_gain = agc->Finish(updatesBefore, gain, result);
        return OKU_OK;
    });
}

template <typename Sample>
int AgcProcessMany(oku_agc* const* agcs, const Sample* const* samples, const size_t* counts, const double* gains,
                   double* new_gains, size_t n)
{
    return Guard([&]() -> int {
        const int status = CheckMany("agcs", agcs, samples, counts, n);
        if (status != OKU_OK || n == 0)
            return status;
        if (!gains)
            return Null("gains");
        if (!new_gains)
            return Null("new_gains");
        for (std::size_t i = 0; i < n; ++i)
            if (!(gains[i] >= 0.0 && gains[i] <= 1.0))
                return Fail(OKU_ERR_ARGUMENT, "gains[" + std::to_string(i) + "] must lie in [0, 1]");
        // Room for every chunk first (std::bad_alloc before any handle
        // changes), then batches of gain controls on the stack.
        for (std::size_t i = 0; i < n; ++i)
            agcs[i]->Reserve(counts[i]);
        oku::AGC* controls[oku::kManyBatch];
        const short* chunks[oku::kManyBatch];
        std::size_t sizes[oku::kManyBatch];
        float in[oku::kManyBatch], out[oku::kManyBatch];
        long long updatesBefore[oku::kManyBatch];
        for (std::size_t first = 0; first < n; first += oku::kManyBatch) {
            const std::size_t m = std::min(oku::kManyBatch, n - first);
            for (std::size_t i = 0; i < m; ++i) {
                oku_agc* agc = agcs[first + i];
                controls[i] = &agc->agc;
                const auto chunk = agc->Convert(samples[first + i], counts[first + i]);
                chunks[i] = chunk.first;
                sizes[i] = chunk.second;
                in[i] = static_cast<float>(gains[first + i]);
                updatesBefore[i] = controls[i]->GetNumUpdates();
            }
            oku::AGC::ComputeGainMany(controls, chunks, sizes, in, out, m);
            for (std::size_t i = 0; i < m; ++i)
                new_gains[first + i] = agcs[first + i]->Finish(updatesBefore[i], gains[first + i], out[i]);
        }
        return OKU_OK;
    });
}

}  // namespace

extern "C" {

OKU_API int oku_vad_create(double rate, const char* params, oku_vad** out)
{
    return oku_vad_create_ex(rate, params, 0, out);
}

OKU_API int oku_vad_create_ex(double rate, const char* params, unsigned flags, oku_vad** out)
{
    if (out && (flags & ~OKU_VAD_AUDIO_FRAMES))
        return Fail(OKU_ERR_ARGUMENT, "unknown flags");
    return Create(OKU_SERVICE_VAD, params, 1, out,
                  [&] { return new oku_vad(params, rate, 1, (flags & OKU_VAD_AUDIO_FRAMES) != 0); });
}

OKU_API int oku_vad_open(int rate, int channels, const char* params, unsigned flags, oku_vad** out)
{
    if (out && (flags & ~OKU_VAD_AUDIO_FRAMES))
        return Fail(OKU_ERR_ARGUMENT, "unknown flags");
    return Create(OKU_SERVICE_VAD, params, channels, out,
                  [&] { return new oku_vad(params, rate, channels, (flags & OKU_VAD_AUDIO_FRAMES) != 0); });
}

OKU_API int oku_vad_process(oku_vad* vad, const int16_t* samples, size_t n) { return VadProcess(vad, samples, n); }

OKU_API int oku_vad_process_f32(oku_vad* vad, const float* samples, size_t n) { return VadProcess(vad, samples, n); }

OKU_API int oku_vad_process_many(oku_vad* const* vads, const int16_t* const* samples, const size_t* counts,
                                 size_t n)
{
    return VadProcessMany(vads, samples, counts, n);
}

OKU_API int oku_vad_process_many_f32(oku_vad* const* vads, const float* const* samples, const size_t* counts,
                                     size_t n)
{
    return VadProcessMany(vads, samples, counts, n);
}

OKU_API int oku_vad_nonfinite(const oku_vad* vad, uint64_t* count)
{
    if (!vad)
        return Null("vad");
    if (!count)
        return Null("count");
    *count = vad->input.NonFinite();
    return OKU_OK;
}

OKU_API int oku_vad_next(oku_vad* vad, oku_vad_result* out) { return oku_vad_take(vad, out, nullptr); }

OKU_API int oku_vad_take(oku_vad* vad, oku_vad_result* out, oku_vad_segment* segment)
{
    if (!vad)
        return Null("vad");
    if (!out)
        return Null("out");
    return Guard([&] {
        oku_vad_segment s{};
        if (Take(*vad, out, 1, &s) == 0)
            *out = oku_vad_result{};
        if (segment)
            *segment = s;
        return OKU_OK;
    });
}

OKU_API int oku_vad_split(const oku_vad* vad, const oku_vad_segment* segment, double max_ms, oku_vad_segment* pieces,
                          size_t capacity, size_t* count)
{
    if (!vad)
        return Null("vad");
    if (!segment)
        return Null("segment");
    if (!count)
        return Null("count");
    const double rate = vad->input.Rate();
    const double longest = std::floor(max_ms * rate / 1000.0);  // whole frames
    if (!(max_ms > 0.0 && max_ms <= 1e15) || longest < 1.0)
        return Fail(OKU_ERR_ARGUMENT, "max_ms must be a positive number of at least one frame");
    if (segment->end < segment->start)
        return Fail(OKU_ERR_ARGUMENT, "the segment ends before it starts");
    if (!pieces && capacity > 0)
        return Null("pieces");
    const long long length = segment->end - segment->start;
    const long long n = std::max<long long>(1, (length + static_cast<long long>(longest) - 1) /
                                                   static_cast<long long>(longest));
    *count = static_cast<std::size_t>(n);
    if (!pieces)
        return OKU_OK;
    if (capacity < *count)
        return Fail(OKU_ERR_ARGUMENT, "pieces has room for " + std::to_string(capacity) + " of " +
                                          std::to_string(n) + " pieces");
    // Boundaries in whole frames, floor(i L / n) as i q + floor(i r / n) so
    // that no product leaves 64 bits (n pieces fit an array, so n < 2^32);
    // each piece keeps the segment's own times at its ends and takes the
    // others from its frames.
    const unsigned long long q = static_cast<unsigned long long>(length / n);
    const unsigned long long r = static_cast<unsigned long long>(length % n);
    const auto boundary = [&](long long i) {
        const unsigned long long k = static_cast<unsigned long long>(i);
        return segment->start + static_cast<long long>(k * q + k * r / static_cast<unsigned long long>(n));
    };
    for (long long i = 0; i < n; ++i) {
        oku_vad_segment& p = pieces[i];
        p.start = boundary(i);
        p.end = boundary(i + 1);
        p.start_ms = i == 0 ? segment->start_ms : static_cast<double>(p.start) * 1000.0 / rate;
        p.end_ms = i == n - 1 ? segment->end_ms : static_cast<double>(p.end) * 1000.0 / rate;
    }
    return OKU_OK;
}

OKU_API int oku_vad_results(oku_vad* vad, oku_vad_result* out, size_t capacity, size_t* count)
{
    if (!vad)
        return Null("vad");
    if (!out)
        return Null("out");
    if (!count)
        return Null("count");
    if (capacity == 0)
        return Fail(OKU_ERR_ARGUMENT, "capacity is 0");
    return Guard([&] {
        *count = Take(*vad, out, capacity);
        return OKU_OK;
    });
}

OKU_API int oku_vad_flush(oku_vad* vad)
{
    if (!vad)
        return Null("vad");
    return Guard([&] {
        // What the converter holds back is the end of this run.
        vad->input.Finish(vad->converted);
        if (!vad->converted.empty())
            vad->analyzer.Process(vad->converted);
        vad->analyzer.Flush();
        return OKU_OK;
    });
}

OKU_API int oku_vad_reset(oku_vad* vad)
{
    if (!vad)
        return Null("vad");
    return Guard([&] {
        vad->input.Reset();
        vad->analyzer.Reset();
        return OKU_OK;
    });
}

OKU_API int oku_vad_destroy(oku_vad* vad)
{
    if (!vad)
        return Null("vad");
    delete vad;
    return OKU_OK;
}

OKU_API int oku_agc_create(int rate, const char* params, oku_agc** out)
{
    return Create(OKU_SERVICE_AGC, params, 1, out, [&] { return new oku_agc(params, rate, 1); });
}

OKU_API int oku_agc_open(int rate, int channels, const char* params, unsigned flags, oku_agc** out)
{
    if (out && flags != 0)
        return Fail(OKU_ERR_ARGUMENT, "unknown flags");
    return Create(OKU_SERVICE_AGC, params, channels, out, [&] { return new oku_agc(params, rate, channels); });
}

OKU_API int oku_agc_process(oku_agc* agc, const int16_t* samples, size_t n, double gain, double* new_gain)
{
    return AgcProcess(agc, samples, n, gain, new_gain);
}

OKU_API int oku_agc_process_f32(oku_agc* agc, const float* samples, size_t n, double gain, double* new_gain)
{
    return AgcProcess(agc, samples, n, gain, new_gain);
}

OKU_API int oku_agc_process_many(oku_agc* const* agcs, const int16_t* const* samples, const size_t* counts,
                                 const double* gains, double* new_gains, size_t n)
{
    return AgcProcessMany(agcs, samples, counts, gains, new_gains, n);
}

OKU_API int oku_agc_process_many_f32(oku_agc* const* agcs, const float* const* samples, const size_t* counts,
                                     const double* gains, double* new_gains, size_t n)
{
    return AgcProcessMany(agcs, samples, counts, gains, new_gains, n);
}

OKU_API int oku_agc_nonfinite(const oku_agc* agc, uint64_t* count)
{
    if (!agc)
        return Null("agc");
    if (!count)
        return Null("count");
    *count = agc->input.NonFinite();
    return OKU_OK;
}

OKU_API int oku_agc_info(const oku_agc* agc, oku_agc_decision* out)
{
    if (!agc)
        return Null("agc");
    if (!out)
        return Null("out");
    oku::AGC::ControlInfo info;
    agc->agc.GetInfo(info);
    oku_agc_decision d{};
    d.control = static_cast<int32_t>(info.GetControlType());
    d.updated = agc->updated;
    d.time_ms = info.GetTimeMs();
    d.pause_db = info.GetPauseLevel();
    d.speech_db = info.GetSpeechLevel();
    d.changed = agc->changed;
    *out = d;
    return OKU_OK;
}

OKU_API int oku_agc_set_log(oku_agc* agc, oku_agc_log_fn fn, void* user)
{
    if (!agc)
        return Null("agc");
    agc->buf->fn = fn;
    agc->buf->user = user;
    agc->agc.SetLogStream(fn ? agc->stream : nullptr);
    return OKU_OK;
}

OKU_API int oku_agc_destroy(oku_agc* agc)
{
    if (!agc)
        return Null("agc");
    delete agc;
    return OKU_OK;
}

}  // extern "C"

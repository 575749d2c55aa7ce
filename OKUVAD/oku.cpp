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
#include <vector>

#include "../src/agc.h"
#include "../src/audioanalyzer.h"
#include "../src/measure.h"
#include "boundary.h"
#include "status.h"

using oku::status::Fail;
using oku::status::Guard;
using oku::status::Null;

static_assert(std::is_same<int16_t, short>::value, "samples are handed to the classes as short");

struct oku_vad {
    oku::AudioAnalyzer analyzer;
    double rate;
    bool frames;
    std::uint64_t repeatMark = 0;  // for the repeat check of the many-call

    oku_vad(const char* params, double samplingRate, bool supplyFrames)
        : analyzer(params ? params : "", samplingRate, supplyFrames), rate(samplingRate), frames(supplyFrames)
    {
        // Frames are handed out only when asked for; otherwise they are not made at all.
        analyzer.SetFrameResults(supplyFrames);
    }
};

static std::uint64_t& RepeatMark(oku_vad* v) { return v->repeatMark; }

namespace {

// More samples than any array can hold: refused before the pointer is used.
int CheckCount(std::size_t n)
{
    if (n > static_cast<std::size_t>(PTRDIFF_MAX) / sizeof(int16_t))
        return Fail(OKU_ERR_ARGUMENT, "sample count larger than any array");
    return OKU_OK;
}

// Checks the arrays of a *_process_many call before anything is touched:
// OKU_OK, or the status of the first fault with a message naming it
// ("vads[3] is null"). May throw std::bad_alloc.
template <typename Handle>
int CheckMany(const char* name, Handle* const* handles, const int16_t* const* samples, const std::size_t* counts,
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
        if (CheckCount(counts[i]) != OKU_OK)
            return Fail(OKU_ERR_ARGUMENT, at("counts", i) + " is larger than any array");
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
    c.position = std::llround(c.time_ms * vad.rate / 1000.0);
    out = c;
    return true;
}

// Takes up to capacity results the interface hands out.
std::size_t Take(oku_vad& vad, oku_vad_result* out, std::size_t capacity)
{
    std::size_t count = 0;
    while (count < capacity) {
        const oku::QueuedResult* r = vad.analyzer.TakeResult();
        if (!r)
            break;
        if (Convert(vad, *r, out[count]))
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
    oku::AGC agc;

    oku_agc(const char* params, int rate) : agc(params ? params : "", rate) {}

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

extern "C" {

OKU_API int oku_vad_create(double rate, const char* params, oku_vad** out)
{
    return oku_vad_create_ex(rate, params, 0, out);
}

OKU_API int oku_vad_create_ex(double rate, const char* params, unsigned flags, oku_vad** out)
{
    if (!out)
        return Null("out");
    if (flags & ~OKU_VAD_AUDIO_FRAMES)
        return Fail(OKU_ERR_ARGUMENT, "unknown flags");
    const int status = Guard([&] {
        *out = new oku_vad(params, rate, (flags & OKU_VAD_AUDIO_FRAMES) != 0);
        return OKU_OK;
    });
    return oku::status::NameParams(status, OKU_SERVICE_VAD, params);
}

OKU_API int oku_vad_process(oku_vad* vad, const int16_t* samples, size_t n)
{
    if (!vad)
        return Null("vad");
    if (CheckCount(n) != OKU_OK)
        return OKU_ERR_ARGUMENT;
    if (!samples && n > 0)
        return Null("samples");
    return Guard([&] {
        vad->analyzer.Process(samples, n);
        return OKU_OK;
    });
}

OKU_API int oku_vad_process_many(oku_vad* const* vads, const int16_t* const* samples, const size_t* counts,
                                 size_t n)
{
    return Guard([&]() -> int {
        const int status = CheckMany("vads", vads, samples, counts, n);
        if (status != OKU_OK || n == 0)
            return status;
        // Room for every chunk first (std::bad_alloc before any handle
        // changes), then batches of analyzers on the stack.
        for (std::size_t i = 0; i < n; ++i)
            vads[i]->analyzer.ReserveChunk(counts[i]);
        oku::AudioAnalyzer* analyzers[oku::kManyBatch];
        for (std::size_t first = 0; first < n; first += oku::kManyBatch) {
            const std::size_t m = std::min(oku::kManyBatch, n - first);
            for (std::size_t i = 0; i < m; ++i)
                analyzers[i] = &vads[first + i]->analyzer;
            oku::AudioAnalyzer::ProcessMany(analyzers, samples + first, counts + first, m);
        }
        return OKU_OK;
    });
}

OKU_API int oku_vad_next(oku_vad* vad, oku_vad_result* out)
{
    if (!vad)
        return Null("vad");
    if (!out)
        return Null("out");
    return Guard([&] {
        if (Take(*vad, out, 1) == 0)
            *out = oku_vad_result{};
        return OKU_OK;
    });
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
        vad->analyzer.Flush();
        return OKU_OK;
    });
}

OKU_API int oku_vad_reset(oku_vad* vad)
{
    if (!vad)
        return Null("vad");
    return Guard([&] {
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
    if (!out)
        return Null("out");
    const int status = Guard([&] {
        *out = new oku_agc(params, rate);
        return OKU_OK;
    });
    return oku::status::NameParams(status, OKU_SERVICE_AGC, params);
}

OKU_API int oku_agc_process(oku_agc* agc, const int16_t* samples, size_t n, double gain, double* new_gain)
{
    if (!agc)
        return Null("agc");
    if (!new_gain)
        return Null("new_gain");
    if (CheckCount(n) != OKU_OK)
        return OKU_ERR_ARGUMENT;
    if (!samples && n > 0)
        return Null("samples");
    if (!(gain >= 0.0 && gain <= 1.0))
        return Fail(OKU_ERR_ARGUMENT, "gain must lie in [0, 1]");
    return Guard([&] {
        const long long updatesBefore = agc->agc.GetNumUpdates();
        const float result = agc->agc.ComputeGain(samples, n, static_cast<float>(gain));
        *new_gain = agc->Finish(updatesBefore, gain, result);
        return OKU_OK;
    });
}

OKU_API int oku_agc_process_many(oku_agc* const* agcs, const int16_t* const* samples, const size_t* counts,
                                 const double* gains, double* new_gains, size_t n)
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
            agcs[i]->agc.ReserveChunk(counts[i]);
        oku::AGC* controls[oku::kManyBatch];
        float in[oku::kManyBatch], out[oku::kManyBatch];
        long long updatesBefore[oku::kManyBatch];
        for (std::size_t first = 0; first < n; first += oku::kManyBatch) {
            const std::size_t m = std::min(oku::kManyBatch, n - first);
            for (std::size_t i = 0; i < m; ++i) {
                controls[i] = &agcs[first + i]->agc;
                in[i] = static_cast<float>(gains[first + i]);
                updatesBefore[i] = controls[i]->GetNumUpdates();
            }
            oku::AGC::ComputeGainMany(controls, samples + first, counts + first, in, out, m);
            for (std::size_t i = 0; i < m; ++i)
                new_gains[first + i] = agcs[first + i]->Finish(updatesBefore[i], gains[first + i], out[i]);
        }
        return OKU_OK;
    });
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

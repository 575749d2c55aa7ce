// oku agc: the gain control in a closed loop against a simulated microphone.
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <memory>

#include "common.h"
#include "oku.h"
#include "plot_agc.h"

namespace okutool {

namespace {

// --log: the gain control's diagnostic lines, written as they come. A write
// that fails inside the library's callback is kept and raised once the call
// has returned.
struct LogFile {
    OutFile file;
    std::exception_ptr failure;

    explicit LogFile(const std::string& path) : file(path) {}

    static void Line(void* user, const char* line)
    {
        LogFile* self = static_cast<LogFile*>(user);
        if (self->failure)
            return;
        try {
            self->file.Write(std::string(line) + "\n");
        } catch (...) {
            self->failure = std::current_exception();
        }
    }

    void Rethrow() const
    {
        if (failure)
            std::rethrow_exception(failure);
    }
};

double Setting(const std::string& params, const char* key)
{
    double value = 0.0;
    Check(oku_setting_value(OKU_SERVICE_AGC, params.c_str(), key, &value));
    return value;
}

}  // namespace

void RunAgc(const InputSlot& slot, const Run& run, Writer& w)
{
    const Options& o = run.options;
    const OpenedInput in = OpenInput(slot.name, o);
    Source& source = *in.source;
    LibraryFeed& feed = *in.feed;
    const int rate = feed.Rate();
    oku_agc* handle = nullptr;
    if (oku_agc_open(rate, feed.Channels(), o.params.c_str(), 0, &handle) != OKU_OK)
        throw InputError("the gain control does not take " + std::to_string(feed.Channels()) + " channels at " +
                         std::to_string(rate) + " Hz: " + oku_last_error());
    const AgcHandle agc(handle);

    std::unique_ptr<LogFile> log;
    if (!o.logFile.empty()) {
        log.reset(new LogFile(OutputName(o.logFile, slot.index, slot.count)));
        Check(oku_agc_set_log(agc.get(), &LogFile::Line, log.get()));
    }
    std::unique_ptr<SoundWriter> out;
    if (!o.outFile.empty())
        out.reset(new SoundWriter(OutputName(o.outFile, slot.index, slot.count), rate, feed.Channels(),
                                  feed.Floats() ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_16));
    std::unique_ptr<AgcPlot> plot;
    if (!o.plot.empty())
        plot.reset(new AgcPlot(rate, o.bound, o.volume));

    long volume = o.volume;
    long long fed = 0, counts[OKU_AGC_CONTROL_COUNT] = {}, changes = 0;
    const std::size_t channels = static_cast<std::size_t>(feed.Channels());
    std::vector<short> shorts;
    std::vector<float> floats;
    Stream(
        source, feed, o.progress, slot.name, [](const Block&) {},
        [&](const Chunk& chunk) {
            // The microphone: the recording times its gain at full volume times
            // the volume in force; 16-bit samples are rounded and clipped as a
            // converter would, floats go on beyond full scale (the library
            // saturates them).
            const double factor = o.micGain * static_cast<double>(volume) / static_cast<double>(o.bound);
            const std::size_t n = chunk.frames * channels;
            Chunk captured;
            captured.frames = chunk.frames;
            if (chunk.shorts) {
                shorts.resize(n);
                for (std::size_t i = 0; i < n; ++i)
                    shorts[i] = static_cast<short>(std::max(-32768.0, std::min(32767.0, std::nearbyint(chunk.shorts[i] * factor))));
                captured.shorts = shorts.data();
            } else {
                floats.resize(n);
                for (std::size_t i = 0; i < n; ++i)
                    floats[i] = static_cast<float>(chunk.floats[i] * factor);
                captured.floats = floats.data();
            }
            if (out) {
                if (captured.shorts)
                    out->WriteShorts(captured.shorts, chunk.frames);
                else
                    out->WriteFloats(captured.floats, chunk.frames);
            }
            if (plot)
                plot->AddAudio(captured, feed.Channels(), fed);
            fed += static_cast<long long>(chunk.frames);

            // Volume to gain and back as the library converts them; the
            // volume changes only when the decision says the gain did.
            double gain = 0.0, newGain = 0.0;
            Check(oku_gain_from_volume(volume, o.bound, &gain));
            const int status = captured.shorts ? oku_agc_process(agc.get(), captured.shorts, n, gain, &newGain)
                                               : oku_agc_process_f32(agc.get(), captured.floats, n, gain, &newGain);
            if (log)
                log->Rethrow();
            Check(status);
            oku_agc_decision d;
            Check(oku_agc_info(agc.get(), &d));
            const long before = volume;
            if (d.changed)
                Check(oku_volume_from_gain(newGain, o.bound, &volume));
            if (!d.updated)
                return;
            const int control = d.control >= 0 && d.control < OKU_AGC_CONTROL_COUNT ? d.control : 0;
            ++counts[control];
            changes += volume != before;
            if (plot)
                plot->AddDecision(fed, control, d.pause_db, d.speech_db, before, volume);
            w.Write(Record(RecordType::Decision)
                        .Set("time_s", d.time_ms / 1000.0, 3)
                        .Set("volume_before", static_cast<long long>(before))
                        .Set("volume_after", static_cast<long long>(volume))
                        .Set("control", std::string(oku_agc_control_name(control)))
                        .Set("pause_db", d.pause_db, 2)
                        .Set("speech_db", d.speech_db, 2));
        });
    std::uint64_t nonfinite = 0;
    Check(oku_agc_nonfinite(agc.get(), &nonfinite));
    const long long nonFinite = static_cast<long long>(nonfinite) + feed.NonFinite();
    CheckInputEnd(slot.name, source, nonFinite);

    // Outputs first: the summary says the input is done only when they are.
    if (out)
        out->Close();
    if (log)
        log->file.Close();
    if (plot)
        plot->Save(OutputName(o.plot, slot.index, slot.count),
                   slot.name + ": gain control, volume of " + std::to_string(o.bound), fed,
                   Setting(o.params, "LowerBound"), Setting(o.params, "UpperBound"));

    long long decisions = 0;
    for (long long n : counts)
        decisions += n;
    Record summary(RecordType::AgcSummary);
    summary.Set("rate", static_cast<long long>(oku_analysis_rate(rate)))
        .Set("original_rate", static_cast<long long>(source.Rate()))
        .Set("duration_s", source.FramesRead() / static_cast<double>(source.Rate()), 3)
        .Set("decisions", decisions)
        .Set("changes", changes)
        .Set("final_volume", static_cast<long long>(volume));
    for (int c = 0; c < OKU_AGC_CONTROL_COUNT; ++c)
        summary.Set(oku_agc_control_name(c), counts[c]);
    SetInputFields(summary, source, feed, nonFinite);
    w.Write(summary);
}

}  // namespace okutool

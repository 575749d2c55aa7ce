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
    Converter& converter = *in.converter;
    const int rate = in.rate;
    oku_agc* handle = nullptr;
    Check(oku_agc_create(rate, o.params.c_str(), &handle));
    const AgcHandle agc(handle);

    std::unique_ptr<LogFile> log;
    if (!o.logFile.empty()) {
        log.reset(new LogFile(OutputName(o.logFile, slot.index, slot.count)));
        Check(oku_agc_set_log(agc.get(), &LogFile::Line, log.get()));
    }
    std::unique_ptr<WavWriter> out;
    if (!o.outFile.empty())
        out.reset(new WavWriter(OutputName(o.outFile, slot.index, slot.count), rate, 1, SF_FORMAT_PCM_16));
    std::unique_ptr<AgcPlot> plot;
    if (!o.plot.empty())
        plot.reset(new AgcPlot(rate, o.bound, o.volume));

    long volume = o.volume;
    long long samples = 0, counts[OKU_AGC_CONTROL_COUNT] = {}, changes = 0;
    std::vector<short> captured;
    Stream(
        source, converter, ChunkSamples(o.chunkMs, rate), o.progress, slot.name, [](const Block&) {},
        [&](const std::vector<short>& chunk) {
            // The microphone: the recording times its gain at full volume times the volume in force.
            const double factor = o.micGain * static_cast<double>(volume) / static_cast<double>(o.bound);
            captured.resize(chunk.size());
            for (std::size_t i = 0; i < chunk.size(); ++i)
                captured[i] = static_cast<short>(std::max(-32768.0, std::min(32767.0, std::nearbyint(chunk[i] * factor))));
            if (out)
                out->WriteShorts(captured.data(), captured.size());
            if (plot)
                plot->AddAudio(captured, samples);
            samples += static_cast<long long>(captured.size());

            // Volume to gain and back as the library converts them; the
            // volume changes only when the decision says the gain did.
            double gain = 0.0, newGain = 0.0;
            Check(oku_gain_from_volume(volume, o.bound, &gain));
            const int status = oku_agc_process(agc.get(), captured.data(), captured.size(), gain, &newGain);
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
                plot->AddDecision(samples, control, d.pause_db, d.speech_db, before, volume);
            w.Write(Record(RecordType::Decision)
                        .Set("time_s", d.time_ms / 1000.0, 3)
                        .Set("volume_before", static_cast<long long>(before))
                        .Set("volume_after", static_cast<long long>(volume))
                        .Set("control", std::string(oku_agc_control_name(control)))
                        .Set("pause_db", d.pause_db, 2)
                        .Set("speech_db", d.speech_db, 2));
        });
    if (samples == 0)
        throw InputError("no audio in it (empty)");

    // Outputs first: the summary says the input is done only when they are.
    if (out)
        out->Close();
    if (log)
        log->file.Close();
    if (plot)
        plot->Save(OutputName(o.plot, slot.index, slot.count),
                   slot.name + ": gain control, volume of " + std::to_string(o.bound), samples,
                   Setting(o.params, "LowerBound"), Setting(o.params, "UpperBound"));

    long long decisions = 0;
    for (long long n : counts)
        decisions += n;
    Record summary(RecordType::AgcSummary);
    summary.Set("rate", static_cast<long long>(rate))
        .Set("original_rate", static_cast<long long>(source.Rate()))
        .Set("duration_s", source.FramesRead() / static_cast<double>(source.Rate()), 3)
        .Set("decisions", decisions)
        .Set("changes", changes)
        .Set("final_volume", static_cast<long long>(volume))
        .Set("nonfinite_samples", converter.NonFinite());
    for (int c = 0; c < OKU_AGC_CONTROL_COUNT; ++c)
        summary.Set(oku_agc_control_name(c), counts[c]);
    w.Write(summary);
    NoteNonFinite(slot.name, converter.NonFinite());
}

}  // namespace okutool

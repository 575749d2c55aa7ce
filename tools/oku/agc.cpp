// oku agc: the gain control in a closed loop against a simulated microphone.
#include <sndfile.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <sstream>

#include "agc.h"
#include "parameters.h"
#include "input.h"
#include "plot.h"
#include "run.h"

namespace okutool {

namespace {

const char* const kControl[] = {"unchanged", "pause_too_low", "speech_too_low", "speech_too_high",
                                "operating_limit", "gain_estimate"};

// A WAV file of the captured audio (--out).
class WavOut {
public:
    WavOut(const std::string& path, int rate)
    {
        if (path.empty())
            return;
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        _file = sf_open(path.c_str(), SFM_WRITE, &info);
        if (!_file)
            throw InputError("--out: cannot write " + path + ": " + sf_strerror(nullptr));
    }
    ~WavOut()
    {
        if (_file)
            sf_close(_file);
    }
    void Write(const std::vector<short>& samples)
    {
        if (_file)
            sf_write_short(_file, samples.data(), static_cast<sf_count_t>(samples.size()));
    }

private:
    SNDFILE* _file = nullptr;
};

}  // namespace

void RunAgc(const InputSlot& slot, const Options& o, Writer& w)
{
    std::unique_ptr<Source> source = OpenSource(slot.name, o.raw, o.rawRate, o.rawChannels, false);
    NoteConversion(slot.name, *source);
    const int rate = source->Rate();
    oku::AGC agc(o.params, rate);
    // The log (--log) is collected in memory and written to the file after each
    // call: the gain control flushes its stream after every item it writes.
    std::shared_ptr<std::ostringstream> log;
    std::ofstream logFile;
    if (!o.logFile.empty()) {
        const std::string path = PlotPath(o.logFile, slot.index, slot.count);
        logFile.open(path);
        if (!logFile)
            throw InputError("--log: cannot write " + path);
        log = std::make_shared<std::ostringstream>();
        agc.SetLogStream(log);
    }
    WavOut out(PlotPath(o.outFile, slot.index, slot.count), rate);
    Progress progress(slot.name, source->OriginalFrames() > 60 * source->OriginalRate() ? source->OriginalFrames() : 0,
                      o.progress);
    Envelope envelope(rate);
    PlotData plot;
    plot.agc = true;
    plot.bound = o.bound;
    plot.startVolume = o.volume;
    const oku::Parameters settings(o.params);  // already checked
    plot.lowerBound = settings.Get<float>("LowerBound", 57.0f);
    plot.upperBound = settings.Get<float>("UpperBound", 78.0f);

    const double bound = static_cast<double>(o.bound);
    long volume = o.volume;
    long long samples = 0, counts[6] = {0, 0, 0, 0, 0, 0}, changes = 0;
    const std::size_t chunkSamples = ChunkSamples(o.chunkMs, rate);
    std::vector<short> chunk;
    oku::AudioData captured;
    while (source->Read(chunk, chunkSamples)) {
        samples += static_cast<long long>(chunk.size());
        // The microphone: the recording times its gain at full volume times the volume in force.
        const double factor = o.micGain * static_cast<double>(volume) / bound;
        captured.resize(chunk.size());
        for (std::size_t i = 0; i < chunk.size(); ++i)
            captured[i] = static_cast<short>(std::max(-32768.0, std::min(32767.0, std::nearbyint(chunk[i] * factor))));
        out.Write(captured);
        if (!o.plot.empty())
            envelope.Add(captured);

        // Volume to gain and back as the exported functions convert them; like a
        // careful host, the volume is left alone when the gain did not change.
        const float gain = oku::AGC::GainFromVolume(volume, o.bound);
        const long long updatesBefore = agc.GetNumUpdates();
        const float newGain = agc.ComputeGain(captured, gain);
        const long before = volume;
        if (newGain != gain)
            volume = oku::AGC::VolumeFromGain(newGain, o.bound);
        if (log) {
            logFile << log->str();
            log->str("");
        }
        oku::AGC::ControlInfo info;
        agc.GetInfo(info);
        if (agc.GetNumUpdates() != updatesBefore || info.GetControlType() == oku::AGC::ControlInfo::GainEstimate) {
            const int type = static_cast<int>(info.GetControlType());
            ++counts[type];
            changes += volume != before;
            if (!o.plot.empty())  // kept only for the plot: a live stream may run for days
                plot.decisions.push_back(
                    {info.GetTimeMs() / 1000.0, before, volume, type, info.GetPauseLevel(), info.GetSpeechLevel()});
            w.Write(Record{"decision", {}}
                        .Add("time_s", info.GetTimeMs() / 1000.0, 3)
                        .Add("volume_before", static_cast<long long>(before))
                        .Add("volume_after", static_cast<long long>(volume))
                        .Add("control", std::string(kControl[type]))
                        .Add("pause_db", info.GetPauseLevel(), 2)
                        .Add("speech_db", info.GetSpeechLevel(), 2));
        }
        progress.Update(source->OriginalFramesRead());
    }
    if (samples == 0)
        throw InputError("no audio in it (empty stream)");

    const double durationS = static_cast<double>(samples) / rate;
    Record summary{"summary", {}};
    summary.Add("rate", static_cast<long long>(rate))
        .Add("original_rate", static_cast<long long>(source->OriginalRate()))
        .Add("duration_s", durationS, 3)
        .Add("decisions", counts[0] + counts[1] + counts[2] + counts[3] + counts[4] + counts[5])
        .Add("changes", changes)
        .Add("final_volume", static_cast<long long>(volume));
    for (int t = 0; t < 6; ++t)
        summary.Add(kControl[t], counts[t]);
    w.Write(summary);

    if (!o.plot.empty()) {
        plot.title = slot.name + ": gain control, volume of " + std::to_string(o.bound);
        plot.durationS = durationS;
        plot.envelopeStepS = envelope.StepS(rate);
        plot.envelopeMin = envelope.Min();
        plot.envelopeMax = envelope.Max();
        WriteSvg(PlotPath(o.plot, slot.index, slot.count), plot);
    }
}

}  // namespace okutool

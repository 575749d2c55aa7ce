// oku vad: speech segments and volume readings.
#include <sndfile.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <memory>

#include "audioanalyzer.h"
#include "input.h"
#include "plot.h"
#include "run.h"

namespace okutool {

namespace {

const char* const kAssessment[] = {"ok", "too_noisy", "too_soft", "too_loud"};

std::string BaseName(const std::string& path)
{
    if (path == "-")
        return "stdin";
    std::string base = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    const std::string::size_type dot = base.rfind('.');
    return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

// Writes each segment as its own WAV file at the input's original rate and channels.
void Split(const std::string& dir, const std::string& name, Source& source,
           const std::vector<std::pair<double, double>>& segments)
{
    ::mkdir(dir.c_str(), 0777);  // may exist already; opening the files reports real problems
    for (std::size_t i = 0; i < segments.size(); ++i) {
        const long long from = std::llround(segments[i].first * source.OriginalRate());
        const long long to = std::llround(segments[i].second * source.OriginalRate());
        const std::vector<short> frames = source.OriginalFramesAt(from, to - from);
        char file[64];
        std::snprintf(file, sizeof file, "-%03zu-%.3fs.wav", i + 1, segments[i].first);
        const std::string path = dir + "/" + BaseName(name) + file;
        SF_INFO info{};
        info.samplerate = static_cast<int>(source.OriginalRate());
        info.channels = source.Channels();
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* out = sf_open(path.c_str(), SFM_WRITE, &info);
        if (!out)
            throw InputError("--split: cannot write " + path + ": " + sf_strerror(nullptr));
        sf_writef_short(out, frames.data(), static_cast<sf_count_t>(frames.size() / static_cast<std::size_t>(info.channels)));
        sf_close(out);
    }
}

}  // namespace

std::size_t ChunkSamples(double chunkMs, int rate)
{
    return std::max<std::size_t>(1, static_cast<std::size_t>(std::llround(chunkMs * rate / 1000.0)));
}

void NoteConversion(const std::string& name, const Source& source)
{
    if (source.Channels() > 1)
        PrintErr("oku: " + name + ": mixing " + std::to_string(source.Channels()) + " channels down to mono");
    if (source.Resampled())
        PrintErr("oku: " + name + ": resampling " + std::to_string(source.OriginalRate()) + " Hz to " +
                 std::to_string(source.Rate()) + " Hz");
}

void RunVad(const InputSlot& slot, const Options& o, Writer& w)
{
    std::unique_ptr<Source> source = OpenSource(slot.name, o.raw, o.rawRate, o.rawChannels, !o.splitDir.empty());
    NoteConversion(slot.name, *source);
    const int rate = source->Rate();
    const double originalRate = static_cast<double>(source->OriginalRate());
    oku::AudioAnalyzer analyzer(o.params, rate, false);
    Progress progress(slot.name, source->OriginalFrames() > 60 * source->OriginalRate() ? source->OriginalFrames() : 0,
                      o.progress);
    Envelope envelope(rate);
    PlotData plot;
    long long samples = 0, readings[4] = {0, 0, 0, 0};
    double peak = 0.0, speechS = 0.0, startS = -1.0;
    std::vector<std::pair<double, double>> segments;

    auto drain = [&]() {
        oku::AnalyzerResultPtr r;
        while (analyzer.GetResult(r)) {
            if (r->GetType() == oku::AnalyzerResult::RT_Event) {
                const auto& e = static_cast<const oku::AnalyzerEvent&>(*r);
                const double t = e.GetTimeMs() / 1000.0;
                if (e.GetTag() == oku::AnalyzerEvent::SpeechStart) {
                    startS = t;
                    if (slot.live)
                        w.Write(Record{"start", {}}
                                    .Add("index", static_cast<long long>(segments.size() + 1))
                                    .Add("start_s", t, 3)
                                    .Add("start_sample", std::llround(t * originalRate)));
                } else if (e.GetTag() == oku::AnalyzerEvent::SpeechEnd) {
                    segments.emplace_back(startS, t);
                    speechS += t - startS;
                    w.Write(Record{"segment", {}}
                                .Add("index", static_cast<long long>(segments.size()))
                                .Add("start_s", startS, 3)
                                .Add("end_s", t, 3)
                                .Add("duration_s", t - startS, 3)
                                .Add("start_sample", std::llround(startS * originalRate))
                                .Add("end_sample", std::llround(t * originalRate)));
                }
            } else if (r->GetType() == oku::AnalyzerResult::RT_VolumeMeter) {
                const auto& m = static_cast<const oku::AnalyzerVolumeMeter&>(*r);
                const int info = static_cast<int>(m.GetInfo()) & 3;
                ++readings[info];
                peak = std::max(peak, m.GetVolume());
                if (!o.plot.empty())  // kept only for the plot: a live stream may run for days
                    plot.meters.push_back({m.GetTimeMs() / 1000.0, m.GetVolumedBFS(), info});
                if (o.meter)
                    w.Write(Record{"meter", {}}
                                .Add("time_s", m.GetTimeMs() / 1000.0, 3)
                                .Add("peak", static_cast<long long>(m.GetVolume()))
                                .Add("dbfs", m.GetVolumedBFS(), 1)
                                .Add("snr_pct", m.GetSNRVolumePct(), 1)
                                .Add("assessment", std::string(kAssessment[info]))
                                .Add("speech", m.IsSpeechState()));
            }
        }
    };

    const std::size_t chunkSamples = ChunkSamples(o.chunkMs, rate);
    std::vector<short> chunk;
    while (source->Read(chunk, chunkSamples)) {
        samples += static_cast<long long>(chunk.size());
        analyzer.Process(chunk);
        drain();
        if (!o.plot.empty())
            envelope.Add(chunk);
        progress.Update(source->OriginalFramesRead());
    }
    if (samples == 0)
        throw InputError("no audio in it (empty stream)");
    analyzer.Flush();
    drain();

    const double durationS = static_cast<double>(samples) / rate;
    w.Write(Record{"summary", {}}
                .Add("rate", static_cast<long long>(rate))
                .Add("original_rate", static_cast<long long>(source->OriginalRate()))
                .Add("duration_s", durationS, 3)
                .Add("segments", static_cast<long long>(segments.size()))
                .Add("speech_s", speechS, 3)
                .Add("readings", readings[0] + readings[1] + readings[2] + readings[3])
                .Add("ok", readings[0])
                .Add("too_noisy", readings[1])
                .Add("too_soft", readings[2])
                .Add("too_loud", readings[3])
                .Add("peak", static_cast<long long>(peak))
                .Add("peak_dbfs", 20.0 * std::log10(std::max(peak, 1.0) / 32768.0), 1));

    if (!o.splitDir.empty())
        Split(o.splitDir, slot.name, *source, segments);
    if (!o.plot.empty()) {
        plot.title = slot.name + ": speech segments and volume meter";
        plot.durationS = durationS;
        plot.envelopeStepS = envelope.StepS(rate);
        plot.envelopeMin = envelope.Min();
        plot.envelopeMax = envelope.Max();
        plot.segments = segments;
        WriteSvg(PlotPath(o.plot, slot.index, slot.count), plot);
    }
}

}  // namespace okutool

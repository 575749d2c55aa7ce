// oku vad: speech segments and volume readings.
#include <algorithm>
#include <cmath>
#include <memory>

#include "common.h"
#include "oku.h"
#include "plot_vad.h"
#include "split.h"

namespace okutool {

namespace {

// Audio kept for --split beyond a chunk: the analyzer dates a start up to its
// speech window (plus the frames it waits for before its first decision)
// before the moment it recognises it; a few seconds with the defaults.
const double kSplitHistorySeconds = 12.0;

}  // namespace

void RunVad(const InputSlot& slot, const Run& run, Writer& w)
{
    const Options& o = run.options;
    const OpenedInput in = OpenInput(slot.name, o);
    Source& source = *in.source;
    Converter& converter = *in.converter;
    const int rate = in.rate;
    oku_vad* handle = nullptr;
    Check(oku_vad_create(rate, o.params.c_str(), &handle));
    const VadHandle vad(handle);
    std::unique_ptr<SegmentWriter> split;
    if (!o.splitDir.empty())
        split.reset(new SegmentWriter(o.splitDir, BaseName(slot.name), source, run.plan,
                                      o.chunkMs / 1000.0 + kSplitHistorySeconds));
    std::unique_ptr<VadPlot> plot;
    if (!o.plot.empty())
        plot.reset(new VadPlot(rate));

    const double originalRate = static_cast<double>(source.Rate());
    // A time of the run as a position in the input's own samples, never past its last one.
    auto original = [&](double ms) {
        return std::min(std::max(0LL, std::llround(ms * originalRate / 1000.0)), source.FramesRead());
    };
    auto seconds = [&](double ms) { return std::min(ms / 1000.0, source.FramesRead() / originalRate); };

    long long samples = 0, segments = 0, readings[OKU_ASSESSMENT_COUNT] = {};
    double peak = 0.0, speechS = 0.0, startMs = 0.0;
    long long startPosition = 0;
    oku_vad_result results[64];

    auto drain = [&]() {
        std::size_t count = 0;
        do {
            Check(oku_vad_results(vad.get(), results, 64, &count));
            for (std::size_t i = 0; i < count; ++i) {
                const oku_vad_result& r = results[i];
                if (r.type == OKU_VAD_SPEECH_START) {
                    startMs = r.time_ms;
                    startPosition = r.position;
                    if (slot.live)
                        w.Write(Record(RecordType::Start)
                                    .Set("index", segments + 1)
                                    .Set("start_s", seconds(startMs), 3)
                                    .Set("start_sample", original(startMs)));
                    if (split)
                        split->Start(original(startMs), seconds(startMs));
                } else if (r.type == OKU_VAD_SPEECH_END) {
                    // The segment's file is complete before its record says so.
                    if (split)
                        split->End(original(r.time_ms));
                    ++segments;
                    const double endS = seconds(r.time_ms), beginS = seconds(startMs);
                    speechS += endS - beginS;
                    w.Write(Record(RecordType::Segment)
                                .Set("index", segments)
                                .Set("start_s", beginS, 3)
                                .Set("end_s", endS, 3)
                                .Set("duration_s", endS - beginS, 3)
                                .Set("start_sample", original(startMs))
                                .Set("end_sample", original(r.time_ms)));
                    if (plot)
                        plot->AddSegment(startPosition, r.position);
                } else if (r.type == OKU_VAD_VOLUME) {
                    const int a = r.assessment >= 0 && r.assessment < OKU_ASSESSMENT_COUNT ? r.assessment : 0;
                    ++readings[a];
                    peak = std::max(peak, r.peak);
                    if (plot)
                        plot->AddReading(r.position, r.level_dbfs, a);
                    if (o.meter)
                        w.Write(Record(RecordType::Meter)
                                    .Set("time_s", seconds(r.time_ms), 3)
                                    .Set("peak", static_cast<long long>(r.peak))
                                    .Set("dbfs", r.level_dbfs, 1)
                                    .Set("snr_pct", r.snr_pct, 1)
                                    .Set("assessment", std::string(oku_assessment_name(a)))
                                    .Set("speech", r.speech != 0));
                }
            }
        } while (count == 64);
    };

    Stream(
        source, converter, ChunkSamples(o.chunkMs, rate), o.progress, slot.name,
        [&](const Block& block) {
            if (split)
                split->Feed(block);
        },
        [&](const std::vector<short>& chunk) {
            Check(oku_vad_process(vad.get(), chunk.data(), chunk.size()));
            if (plot)
                plot->AddAudio(chunk, samples);
            samples += static_cast<long long>(chunk.size());
            drain();
        });
    if (samples == 0)
        throw InputError("no audio in it (empty)");
    Check(oku_vad_flush(vad.get()));
    drain();
    if (split)
        split->Finish();

    // Outputs first: the summary says the input is done only when they are.
    if (plot)
        plot->Save(OutputName(o.plot, slot.index, slot.count), slot.name + ": speech segments and volume meter",
                   samples);

    long long allReadings = 0;
    for (long long n : readings)
        allReadings += n;
    Record summary(RecordType::VadSummary);
    summary.Set("rate", static_cast<long long>(rate))
        .Set("original_rate", static_cast<long long>(source.Rate()))
        .Set("duration_s", source.FramesRead() / originalRate, 3)
        .Set("segments", segments)
        .Set("speech_s", speechS, 3)
        .Set("readings", allReadings)
        .Set("peak", static_cast<long long>(peak))
        .Set("peak_dbfs", 20.0 * std::log10(std::max(peak, 1.0) / 32768.0), 1)
        .Set("nonfinite_samples", converter.NonFinite());
    for (int a = 0; a < OKU_ASSESSMENT_COUNT; ++a)
        summary.Set(oku_assessment_name(a), readings[a]);
    w.Write(summary);
    NoteNonFinite(slot.name, converter.NonFinite());
}

}  // namespace okutool

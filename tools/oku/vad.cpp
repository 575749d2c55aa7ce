// oku vad: speech segments and volume readings.
#include <algorithm>
#include <cmath>
#include <memory>

#include "common.h"
#include "oku.h"
#include "plot_vad.h"
#include "split.h"
#include "text.h"

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
    LibraryFeed& feed = *in.feed;
    oku_vad* handle = nullptr;
    if (oku_vad_open(feed.Rate(), feed.Channels(), o.params.c_str(), 0, &handle) != OKU_OK)
        throw InputError("the analyzer does not take " + std::to_string(feed.Channels()) + " channels at " +
                         std::to_string(feed.Rate()) + " Hz: " + oku_last_error());
    const VadHandle vad(handle);
    // The longest segment is checked against this input's frame length before any audio is read.
    std::vector<oku_vad_segment> pieces(1);
    if (o.maxSegmentMs > 0) {
        std::size_t count = 0;
        const oku_vad_segment none{};
        if (oku_vad_split(vad.get(), &none, o.maxSegmentMs, nullptr, 0, &count) != OKU_OK)
            throw InputError("--max-segment-ms " + Num(o.maxSegmentMs) + ": " + oku_last_error());
    }
    std::unique_ptr<SegmentWriter> split;
    if (!o.splitDir.empty())
        split.reset(new SegmentWriter(ClipOptions{o.splitDir, o.splitName, o.splitFlac}, slot.name, source, run.plan,
                                      o.chunkMs / 1000.0 + kSplitHistorySeconds));
    std::unique_ptr<VadPlot> plot;
    if (!o.plot.empty())
        plot.reset(new VadPlot(feed.Rate()));

    const double inputRate = static_cast<double>(source.Rate());
    // A position of the library as a frame of the input, and a time as seconds, never past the input's end.
    auto frame = [&](long long position) { return feed.InputFrame(position, source.FramesRead()); };
    auto seconds = [&](double ms) { return std::min(ms / 1000.0, source.FramesRead() / inputRate); };

    long long fed = 0, segments = 0, readings[OKU_ASSESSMENT_COUNT] = {};
    double peak = 0.0, speechS = 0.0;
    oku_vad_result r;
    oku_vad_segment s;

    auto drain = [&]() {
        for (;;) {
            Check(oku_vad_take(vad.get(), &r, &s));
            if (r.type == OKU_VAD_NONE)
                return;
            if (r.type == OKU_VAD_SPEECH_START) {
                if (slot.live)
                    w.Write(Record(RecordType::Start)
                                .Set("index", segments + 1)
                                .Set("start_s", seconds(r.time_ms), 3)
                                .Set("start_sample", frame(r.position)));
                if (split)
                    split->Start(frame(r.position));
            } else if (r.type == OKU_VAD_SPEECH_END) {
                if (plot)
                    plot->AddSegment(s.start, s.end);
                std::size_t count = 1;
                pieces[0] = s;
                if (o.maxSegmentMs > 0) {
                    Check(oku_vad_split(vad.get(), &s, o.maxSegmentMs, nullptr, 0, &count));
                    pieces.resize(std::max(pieces.size(), count));
                    Check(oku_vad_split(vad.get(), &s, o.maxSegmentMs, pieces.data(), pieces.size(), &count));
                }
                std::vector<ClipPiece> clips(count);
                for (std::size_t i = 0; i < count; ++i)
                    clips[i] = ClipPiece{frame(pieces[i].start), frame(pieces[i].end),
                                         static_cast<int>(segments + 1 + static_cast<long long>(i)),
                                         seconds(pieces[i].start_ms), seconds(pieces[i].end_ms)};
                // A segment's clips are complete before its records say so.
                std::vector<std::string> paths;
                if (split)
                    paths = split->End(clips);
                for (std::size_t i = 0; i < count; ++i) {
                    const ClipPiece& c = clips[i];
                    ++segments;
                    speechS += c.endS - c.startS;
                    Record segment(RecordType::Segment);
                    segment.Set("index", segments)
                        .Set("start_s", c.startS, 3)
                        .Set("end_s", c.endS, 3)
                        .Set("duration_s", c.endS - c.startS, 3)
                        .Set("start_sample", c.start)
                        .Set("end_sample", c.end);
                    if (split)
                        segment.Set("clip", paths[i]);
                    w.Write(segment);
                }
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
                                .Set("speech", r.speech != 0)
                                .Set("level_dbfs", r.level_dbfs, 1));
            }
        }
    };

    const std::size_t channels = static_cast<std::size_t>(feed.Channels());
    Stream(
        source, feed, o.progress, slot.name,
        [&](const Block& block) {
            if (split)
                split->Feed(block);
        },
        [&](const Chunk& chunk) {
            const std::size_t n = chunk.frames * channels;
            Check(chunk.shorts ? oku_vad_process(vad.get(), chunk.shorts, n)
                               : oku_vad_process_f32(vad.get(), chunk.floats, n));
            if (plot)
                plot->AddAudio(chunk, feed.Channels(), fed);
            fed += static_cast<long long>(chunk.frames);
            drain();
        });
    if (source.FramesRead() == 0)
        throw InputError("no audio in it (empty)");
    Check(oku_vad_flush(vad.get()));
    drain();
    std::uint64_t nonfinite = 0;
    Check(oku_vad_nonfinite(vad.get(), &nonfinite));
    const long long nonFinite = static_cast<long long>(nonfinite) + feed.NonFinite();
    CheckInputEnd(slot.name, source, nonFinite);

    // Outputs first: the summary says the input is done only when they are.
    if (plot)
        plot->Save(OutputName(o.plot, slot.index, slot.count), slot.name + ": speech segments and volume meter", fed);

    long long allReadings = 0;
    for (long long n : readings)
        allReadings += n;
    Record summary(RecordType::VadSummary);
    summary.Set("rate", static_cast<long long>(oku_analysis_rate(feed.Rate())))
        .Set("original_rate", static_cast<long long>(source.Rate()))
        .Set("duration_s", source.FramesRead() / inputRate, 3)
        .Set("segments", segments)
        .Set("speech_s", speechS, 3)
        .Set("readings", allReadings)
        .Set("peak", static_cast<long long>(peak))
        .Set("peak_dbfs", 20.0 * std::log10(std::max(peak, 1.0) / 32768.0), 1);
    for (int a = 0; a < OKU_ASSESSMENT_COUNT; ++a)
        summary.Set(oku_assessment_name(a), readings[a]);
    SetInputFields(summary, source, feed, nonFinite);
    w.Write(summary);
}

}  // namespace okutool

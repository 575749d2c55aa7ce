#include "common.h"

#include <algorithm>
#include <cmath>

#include "oku.h"
#include "progress.h"
#include "text.h"

namespace okutool {

void VadDeleter::operator()(oku_vad* v) const { oku_vad_destroy(v); }
void AgcDeleter::operator()(oku_agc* a) const { oku_agc_destroy(a); }

void Check(int status)
{
    if (status != OKU_OK)
        throw InputError(oku_last_error());
}

OpenedInput OpenInput(const std::string& name, const Options& options)
{
    OpenedInput in;
    in.source = OpenSource(name, options.raw ? &options.rawFormat : nullptr);
    const Source& source = *in.source;
    in.feed.reset(new LibraryFeed(source, options.chunkMs));
    const LibraryFeed& feed = *in.feed;
    const int analysis = oku_analysis_rate(feed.Rate());
    if (!options.quiet && (source.Channels() > 1 || source.Rate() != analysis)) {
        const int c = source.Channels();
        std::string note = "oku: " + name + ": " + std::to_string(c) + " channel" + (c > 1 ? "s" : "") + " at " +
                           std::to_string(source.Rate()) + " Hz";
        if (feed.Resampled())
            note += ", not an input rate of the library: resampled to " + std::to_string(feed.Rate()) +
                    " Hz with libsoxr" + (c > 1 ? ", then the library mixes the channels to one" : "");
        else if (c > 1 && source.Rate() != analysis)
            note += ": the library mixes them to one and analyses at " + std::to_string(analysis) + " Hz";
        else if (c > 1)
            note += ": the library mixes them to one";
        else
            note += ": the library analyses it at " + std::to_string(analysis) + " Hz";
        WriteStderr(note + "\n");
    }
    return in;
}

std::string BaseName(const std::string& input)
{
    if (input == "-")
        return "stdin";
    const std::string::size_type slash = input.rfind('/');
    std::string base = input.substr(slash == std::string::npos ? 0 : slash + 1);
    const std::string::size_type dot = base.rfind('.');
    return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

void CheckInputEnd(const std::string& name, const Source& source, long long nonfinite)
{
    if (source.FramesRead() == 0)
        throw InputError("no audio in it (empty)");
    if (source.Declared() >= 0 && source.Declared() != source.FramesRead())
        WriteStderr("oku: " + name + ": warning: " + std::to_string(source.FramesRead()) +
                    " frames decoded, its header declares " + std::to_string(source.Declared()) +
                    " (a truncated file?)\n");
    if (nonfinite > 0)
        WriteStderr("oku: " + name + ": " + std::to_string(nonfinite) + " sample" + (nonfinite > 1 ? "s" : "") +
                    " NaN or infinite, read as 0\n");
}

void SetInputFields(Record& summary, const Source& source, const LibraryFeed& feed, long long nonfinite)
{
    const bool converted = oku_analysis_rate(feed.Rate()) != feed.Rate();
    summary.Set("nonfinite_samples", nonfinite)
        .Set("channels", static_cast<long long>(source.Channels()))
        .Set("sample_type", std::string(feed.Floats() ? "float32" : "int16"))
        .Set("resampler", std::string(feed.Resampled() ? "libsoxr" : converted ? "library" : "none"))
        .Set("frames", source.FramesRead());
    if (source.Declared() >= 0)
        summary.Set("declared_frames", source.Declared());
    else
        summary.SetNull("declared_frames");
}

void Stream(Source& source, LibraryFeed& feed, bool progress, const std::string& name,
            const std::function<void(const Block&)>& onBlock, const std::function<void(const Chunk&)>& onChunk)
{
    Progress bar(name, source.Frames() > 60 * source.Rate() ? source.Frames() : 0, progress);
    Chunk chunk;
    Block block;
    while (source.Read(block, feed.BlockFrames())) {
        onBlock(block);
        feed.Push(block);
        while (feed.Take(chunk))
            onChunk(chunk);
        bar.Update(source.FramesRead());
    }
    feed.Finish();
    while (feed.Take(chunk))
        onChunk(chunk);
}

}  // namespace okutool

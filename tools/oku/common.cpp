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
    in.rate = oku_nearest_rate(static_cast<double>(source.Rate()));
    if (source.Channels() > 1)
        WriteStderr("oku: " + name + ": mixing " + std::to_string(source.Channels()) + " channels down to mono\n");
    if (source.Rate() != in.rate)
        WriteStderr("oku: " + name + ": resampling " + std::to_string(source.Rate()) + " Hz to " +
                    std::to_string(in.rate) + " Hz\n");
    in.converter.reset(new Converter(source, in.rate));
    return in;
}

std::size_t ChunkSamples(double chunkMs, int rate)
{
    std::size_t samples = 0;
    if (oku_chunk_samples(rate, chunkMs, &samples) != OKU_OK)
        throw InputError("--chunk-ms " + Num(chunkMs) + " at " + std::to_string(rate) + " Hz: " +
                         oku_last_error());
    return samples;
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

void NoteNonFinite(const std::string& name, long long count)
{
    if (count > 0)
        WriteStderr("oku: " + name + ": " + std::to_string(count) + " sample" + (count > 1 ? "s" : "") +
                    " NaN or infinite, read as 0\n");
}

void Stream(Source& source, Converter& converter, std::size_t chunkSamples, bool progress, const std::string& name,
            const std::function<void(const Block&)>& onBlock,
            const std::function<void(const std::vector<short>&)>& onChunk)
{
    // Blocks no longer than a chunk (of original frames), so that live input
    // is analysed as soon as a chunk of it has arrived.
    const double ratio = static_cast<double>(source.Rate()) / oku_nearest_rate(static_cast<double>(source.Rate()));
    const std::size_t blockFrames =
        std::min<std::size_t>(16384, std::max<std::size_t>(1, static_cast<std::size_t>(std::ceil(chunkSamples * ratio))));
    Progress bar(name, source.Frames() > 60 * source.Rate() ? source.Frames() : 0, progress);
    std::vector<short> chunk;
    Block block;
    while (source.Read(block, blockFrames)) {
        onBlock(block);
        converter.Push(block);
        while (converter.Take(chunk, chunkSamples))
            onChunk(chunk);
        bar.Update(source.FramesRead());
    }
    converter.Finish();
    while (converter.Take(chunk, chunkSamples))
        onChunk(chunk);
}

}  // namespace okutool

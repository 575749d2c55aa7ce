// Drives many analyzers and gain controls at once (ProcessMany,
// ComputeGainMany) beside twins fed the same chunks one call at a time, in
// every way the processor can run the filters side by side: any mix of rates,
// chunk lengths from 0 to far more than a frame, frame data on or off, gain
// estimates, flushes, and refused calls (a repeated or null object). Every
// result, gain and decision must equal the twin's, bit for bit.
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "../src/measure.h"
#include "fuzz_input.h"

namespace {

// Everything queued, as bits.
std::string Drain(oku::AudioAnalyzer& a)
{
    std::string out;
    auto put = [&out](const void* p, std::size_t n) { out.append(static_cast<const char*>(p), n); };
    oku::AnalyzerResultPtr r;
    while (a.GetResult(r)) {
        const int type = r->GetType();
        put(&type, sizeof type);
        if (type == oku::AnalyzerResult::RT_Event) {
            const auto& e = static_cast<const oku::AnalyzerEvent&>(*r);
            const double t = e.GetTimeMs();
            const int tag = e.GetTag();
            put(&t, sizeof t);
            put(&tag, sizeof tag);
        } else if (type == oku::AnalyzerResult::RT_VolumeMeter) {
            const auto& m = static_cast<const oku::AnalyzerVolumeMeter&>(*r);
            const double v[] = {m.GetTimeMs(), m.GetVolume(), m.GetVolumedBFS(), m.GetSNRVolumePct()};
            const int i[] = {m.GetInfo(), m.IsSpeechState()};
            put(v, sizeof v);
            put(i, sizeof i);
        } else {
            const auto& f = static_cast<const oku::AnalyzerAudioFrame&>(*r);
            const int i[] = {f.GetFrameIndex(), f.IsSpeechSegmentFrame()};
            put(i, sizeof i);
            put(f.GetData().data(), f.GetData().size() * sizeof(short));
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    FuzzInput in(data, size);
    std::size_t audioBytes;
    const short* audio = reinterpret_cast<const short*>(AudioBytes(&audioBytes));
    const std::size_t audioSamples = audioBytes / 2;
    const int rates[] = {8000, 11025, 16000, 22050};
    const oku::MeasureIsa ways[] = {oku::MeasureIsa::Scalar, oku::MeasureIsa::Lanes2, oku::MeasureIsa::Avx2};
    const oku::MeasureIsa before = oku::GetMeasureIsa();
    oku::SetMeasureIsa(ways[in.U8() % 3]);  // one the processor lacks is refused and the default stays

    const std::size_t n = 1 + in.U8() % 20;
    std::vector<std::unique_ptr<oku::AudioAnalyzer>> many, one;
    std::vector<std::unique_ptr<oku::AGC>> manyAgc, oneAgc;
    std::vector<float> gains(n);
    for (std::size_t i = 0; i < n; ++i) {
        const uint8_t how = in.U8();
        const int rate = rates[how % 4];
        const bool frames = (how & 4) != 0;
        many.emplace_back(new oku::AudioAnalyzer("", rate, frames));
        one.emplace_back(new oku::AudioAnalyzer("", rate, frames));
        manyAgc.emplace_back(new oku::AGC("", rate));
        oneAgc.emplace_back(new oku::AGC("", rate));
        gains[i] = static_cast<float>(in.U8() % 101) / 100.0f;
    }
    std::vector<oku::AudioAnalyzer*> analyzers;
    std::vector<oku::AGC*> agcs;
    for (std::size_t i = 0; i < n; ++i) {
        analyzers.push_back(many[i].get());
        agcs.push_back(manyAgc[i].get());
    }

    for (int round = 0; !in.Empty() && round < 40; ++round) {
        std::vector<const short*> samples(n);
        std::vector<std::size_t> counts(n);
        for (std::size_t i = 0; i < n; ++i) {
            const uint8_t pick = in.U8();
            counts[i] = pick < 40 ? 0 : pick < 200 ? in.U16() % 2000 : in.U16() % 12000;
            const std::size_t offset = in.U16() * 7u % audioSamples;
            if (offset + counts[i] > audioSamples)
                counts[i] = audioSamples - offset;
            samples[i] = counts[i] ? audio + offset : nullptr;
        }
        const uint8_t op = in.U8();
        if (op < 20 && n > 1) {  // refused: a null or a repeated object; nothing may change
            std::vector<oku::AudioAnalyzer*> bad = analyzers;
            const std::size_t j = in.U8() % n, k = (j + 1 + in.U8() % (n - 1)) % n;
            bad[j] = op < 10 ? nullptr : bad[k];
            bool refused = false;
            try {
                oku::AudioAnalyzer::ProcessMany(bad.data(), samples.data(), counts.data(), n);
            } catch (const std::invalid_argument&) {
                refused = true;
            }
            Check(refused);
            continue;
        }
        for (std::size_t i = 0; i < n; ++i)
            one[i]->Process(oku::AudioData(samples[i], samples[i] + counts[i]));
        oku::AudioAnalyzer::ProcessMany(analyzers.data(), samples.data(), counts.data(), n);
        for (std::size_t i = 0; i < n; ++i) {
            if (op > 240 && i % 3 == 0) {
                many[i]->Flush();
                one[i]->Flush();
            }
            Check(Drain(*one[i]) == Drain(*many[i]));
        }

        std::vector<float> in0(gains), out(n), expected(n);
        if (op & 1)
            in0[in.U8() % n] = 0.0f;  // asks for a starting gain
        for (std::size_t i = 0; i < n; ++i)
            expected[i] = oneAgc[i]->ComputeGain(oku::AudioData(samples[i], samples[i] + counts[i]), in0[i]);
        oku::AGC::ComputeGainMany(agcs.data(), samples.data(), counts.data(), in0.data(), out.data(), n);
        for (std::size_t i = 0; i < n; ++i) {
            Check(std::memcmp(&expected[i], &out[i], sizeof(float)) == 0);
            oku::AGC::ControlInfo a, b;
            oneAgc[i]->GetInfo(a);
            manyAgc[i]->GetInfo(b);
            Check(a.GetControlType() == b.GetControlType() && a.GetTimeMs() == b.GetTimeMs());
            Check(a.GetPauseLevel() == b.GetPauseLevel() && a.GetSpeechLevel() == b.GetSpeechLevel());
            gains[i] = out[i];
        }
    }
    oku::SetMeasureIsa(before);
    return 0;
}

// Exactness guard for optimisation: digests of everything the analyzer and the
// gain control produce for a set of signals at every rate and several chunk
// sizes. The expected digests were recorded from the plain implementation
// before any tuning; they change only if a result changes by a single bit.
// (This is the one place where recorded outputs are the expected values: the
// reason is that optimisation must not change them.)
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

#include "agc.h"
#include "analyzer_helpers.h"
#include "audioanalyzer.h"
#include "okuvad.h"
#include "signals.h"

namespace {

struct Digest {
    uint64_t h = 1469598103934665603ULL;  // FNV-1a 64
    void Bytes(const void* p, std::size_t n)
    {
        const unsigned char* b = static_cast<const unsigned char*>(p);
        for (std::size_t i = 0; i < n; ++i) {
            h ^= b[i];
            h *= 1099511628211ULL;
        }
    }
    template <typename T>
    void Add(T v)
    {
        Bytes(&v, sizeof v);
    }
};

// Speech-like test audio: tone bursts of several levels over noise that
// changes level, with full-scale clipping in one burst.
oku::AudioData Signal(double rate, unsigned seed)
{
    const int spf = static_cast<int>(20.0 * rate / 1000);
    oku::AudioData s = testsig::Tone({{70, 40.0}, {45, 9000.0}, {30, 120.0}, {25, 33000.0}, {60, 15.0},
                                      {80, 2500.0}, {40, 300.0}, {50, 700.0}, {30, 60.0}},
                                     rate, spf);
    for (short& x : s) {
        seed = seed * 1664525u + 1013904223u;
        const int v = x + static_cast<int>(seed >> 25) - 64;
        x = static_cast<short>(v > 32767 ? 32767 : (v < -32768 ? -32768 : v));
    }
    return s;
}

uint64_t AnalyzerDigest(double rate, std::size_t chunk, bool frames)
{
    const oku::AudioData s = Signal(rate, 7);
    oku::AudioAnalyzer a("", rate, frames);
    Digest d;
    auto drain = [&] {
        oku::AnalyzerResultPtr r;
        while (a.GetResult(r)) {
            d.Add(static_cast<int>(r->GetType()));
            if (auto e = std::dynamic_pointer_cast<oku::AnalyzerEvent>(r)) {
                d.Add(static_cast<int>(e->GetTag()));
                d.Add(e->GetTimeMs());
            } else if (auto m = std::dynamic_pointer_cast<oku::AnalyzerVolumeMeter>(r)) {
                d.Add(static_cast<int>(m->GetInfo()));
                d.Add(m->GetVolumedBFS());
                d.Add(m->GetVolume());
                d.Add(m->GetSNRVolumePct());
                d.Add(m->GetTimeMs());
                d.Add(m->IsSpeechState());
            } else if (auto f = std::dynamic_pointer_cast<oku::AnalyzerAudioFrame>(r)) {
                d.Add(f->GetFrameIndex());
                d.Add(f->IsSpeechSegmentFrame());
                d.Bytes(f->GetData().data(), f->GetData().size() * sizeof(short));
            }
        }
    };
    for (std::size_t i = 0; i < s.size(); i += chunk) {
        a.Process(testsig::Slice(s, i, std::min(chunk, s.size() - i)));
        drain();
    }
    a.Flush();
    drain();
    return d.h;
}

uint64_t ExportedDigest(double rate, std::size_t chunk)
{
    const oku::AudioData s = Signal(rate, 11);
    Digest d;
    EXPECT_EQ(0, OKUVAD_Init(rate));
    EXPECT_EQ(0, OKUAGC_Init(static_cast<int>(rate)));
    long volume = 30000;
    for (std::size_t i = 0; i + chunk <= s.size(); i += chunk) {
        int start = 1, result = 0, info = 0;
        double value = 0;
        do {
            EXPECT_EQ(0, OKUVAD_GetResult(start, &s[i], static_cast<unsigned int>(chunk * 2), &result, &value, &info));
            start = 0;
            d.Add(result);
            d.Add(value);
            d.Add(info);
        } while (result != 0);
        EXPECT_EQ(0, OKUAGC_ComputeGain(&s[i], static_cast<unsigned int>(chunk * 2), volume, 65535, &volume));
        d.Add(volume);
        double t;
        float p, q;
        int type;
        EXPECT_EQ(0, OKUAGC_GetInfo(&t, &p, &q, &type));
        d.Add(t);
        d.Add(p);
        d.Add(q);
        d.Add(type);
    }
    OKUVAD_Deinit();
    OKUAGC_Deinit();
    return d.h;
}

uint64_t AgcDigest(int rate, std::size_t chunk)
{
    const oku::AudioData s = Signal(rate, 3);
    oku::AGC agc("", rate);
    auto log = std::make_shared<std::ostringstream>();
    agc.SetLogStream(log);
    Digest d;
    float gain = 0.2f;
    for (std::size_t i = 0; i + chunk <= s.size(); i += chunk) {
        oku::AudioData part = testsig::Slice(s, i, chunk);
        for (short& x : part)  // the microphone follows the gain
            x = static_cast<short>(static_cast<float>(x) * gain);
        gain = agc.ComputeGain(part, gain);
        d.Add(gain);
    }
    const std::string text = log->str();
    d.Bytes(text.data(), text.size());
    return d.h;
}

}  // namespace

TEST(Exactness, AnalyzerAgcAndExportedResultsAreUnchanged)
{
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    std::ostringstream got;
    for (double rate : rates) {
        const std::size_t frame = static_cast<std::size_t>(rate / 50);
        for (std::size_t chunk : {frame / 2, frame, 5 * frame + 3}) {
            got << std::hex << AnalyzerDigest(rate, chunk, true) << " " << AnalyzerDigest(rate, chunk, false) << " "
                << ExportedDigest(rate, chunk) << " " << AgcDigest(static_cast<int>(rate), chunk) << "\n";
        }
    }
    // Recorded from the plain implementation (one line per rate and chunk size).
    const char* expected =
        "713910683f5c3445 c034b0b631f25d89 855456b6c723a0cc 9691053e68ba6bc\n"
        "713910683f5c3445 c034b0b631f25d89 dd30b7fe101dd298 eafeffbab47f7408\n"
        "63aa8b0226907cd1 66b4f448337a8901 b0317ddaf343025c 53cf3e8f167f2da3\n"
        "a3006e04219e8c73 836504c0a89d631f c7c22dd84bb0a36a a76ea1ac3b94f1da\n"
        "a3006e04219e8c73 836504c0a89d631f 100c93d29cb7b5b3 6a459269b064d06e\n"
        "eed124dc1c7eb160 bfcf9087370bd2b0 8d57f10e07630c91 d94f8e6e76a3819\n"
        "86a701755e449825 8bf3cfd755d82f38 a21e091088cb0853 44d03e45d7551d0a\n"
        "86a701755e449825 8bf3cfd755d82f38 2bed80eb708741b1 7a62c6d0461f90e6\n"
        "77c87ef886d777cc 80bc52cbdcb07bd1 d0701179b3e95066 c32282401116356b\n"
        "8680a5d8883e7d58 8f787bd8d3eb0463 714eec39cc94048 c934664c8074f383\n"
        "8680a5d8883e7d58 8f787bd8d3eb0463 df0189715681b0d3 232c646ba64b5771\n"
        "a79ecb54e8ad3cfe 1dcff7a086b4c7a1 647169c932f30ca5 3cce9231f049b253\n";
    EXPECT_EQ(expected, got.str());
}

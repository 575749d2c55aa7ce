// Instances share no state: eight analyzers and eight gain controls on eight
// threads give exactly what they give one after another (run under
// ThreadSanitizer by `make tsan`).
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agc.h"
#include "analyzer_helpers.h"
#include "audioanalyzer.h"
#include "signals.h"

namespace {

// A different recording for each worker: bursts of a tone at its own level,
// length and rate.
oku::AudioData Recording(int k, double rate)
{
    const int spf = static_cast<int>(20.0 * rate / 1000);
    return testsig::Tone({{60 + 7 * k, 30.0 + 5 * k}, {40 + 3 * k, 2000.0 * (k + 1)}, {50, 30.0 + 5 * k},
                          {25 + k, 1500.0 * (k + 1)}, {60, 20.0}},
                         rate, spf);
}

// Everything one analyzer and one gain control report for one recording.
std::string Work(int k)
{
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    const double rate = rates[k % 4];
    const oku::AudioData signal = Recording(k, rate);
    oku::AudioAnalyzer vad(k % 2 ? "EOSTimeoutMs=600" : "", rate, true);
    oku::AGC agc("", static_cast<int>(rate));
    auto log = std::make_shared<std::ostringstream>();
    agc.SetLogStream(log);
    std::ostringstream out;
    float gain = 0.3f;
    const std::size_t chunk = static_cast<std::size_t>(rate / 50) + static_cast<std::size_t>(k);
    for (std::size_t i = 0; i < signal.size(); i += chunk) {
        const oku::AudioData part = testsig::Slice(signal, i, std::min(chunk, signal.size() - i));
        vad.Process(part);
        gain = agc.ComputeGain(part, gain);
        out << gain << "\n";
    }
    vad.Flush();
    testsig::Drained d = testsig::Drain(vad);
    for (const auto& e : d.events)
        out << "event " << e->GetTag() << " " << e->GetTimeMs() << "\n";
    for (const auto& m : d.meters)
        out << "meter " << m->GetInfo() << " " << m->GetVolumedBFS() << " " << m->GetSNRVolumePct() << "\n";
    for (const auto& f : d.frames)
        out << "frame " << f->GetFrameIndex() << " " << f->IsSpeechSegmentFrame() << " " << f->GetData().size() << "\n";
    return out.str() + log->str();
}

}  // namespace

TEST(Threads, EightAnalyzersAndGainControlsMatchASerialRun)
{
    std::vector<std::string> serial(8), parallel(8);
    for (int k = 0; k < 8; ++k)
        serial[static_cast<std::size_t>(k)] = Work(k);
    std::vector<std::thread> threads;
    for (int k = 0; k < 8; ++k)
        threads.emplace_back([&parallel, k] { parallel[static_cast<std::size_t>(k)] = Work(k); });
    for (std::thread& t : threads)
        t.join();
    for (int k = 0; k < 8; ++k) {
        EXPECT_NE(std::string::npos, serial[static_cast<std::size_t>(k)].find("event 1 ")) << "speech ended in " << k;
        EXPECT_EQ(serial[static_cast<std::size_t>(k)], parallel[static_cast<std::size_t>(k)]) << k;
    }
}

// Golden results: every result the analyzer and the gain control give for the
// generated recordings of recordings.h at every rate, through the classes and
// the exported functions, as text (one line per result, numbers with enough
// digits to round-trip) compared with the files in tests/golden/. The files
// hold the results of the implementation checked by hand and against the
// timing rules; when a change is meant to alter results, `make golden`
// rewrites them, and the diff is reviewed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "agc.h"
#include "audioanalyzer.h"
#include "oku.h"
#include "okuvad.h"
#include "recordings.h"

#ifndef OKU_GOLDEN_DIR
#error "OKU_GOLDEN_DIR must name the folder of the golden files"
#endif

namespace {

const double kRates[] = {8000.0, 11025.0, 16000.0, 22050.0};
const bool kUpdate = std::getenv("OKU_GOLDEN_UPDATE") != nullptr;

std::string Format(const char* format, double x)
{
    char buf[40];
    std::snprintf(buf, sizeof buf, format, x);
    return buf;
}
std::string D(double x) { return Format("%.17g", x); }
std::string F(float x) { return Format("%.9g", static_cast<double>(x)); }

// Frame results are written as runs of consecutive frames with the same flag.
struct FrameRuns {
    std::ostream& os;
    int first = 0, last = 0, count = 0;
    bool speech = false;
    long long samples = 0, sum = 0;

    void Add(const oku::AnalyzerAudioFrame& f)
    {
        if (count > 0 && (f.GetFrameIndex() != last + 1 || f.IsSpeechSegmentFrame() != speech))
            End();
        if (count++ == 0) {
            first = f.GetFrameIndex();
            speech = f.IsSpeechSegmentFrame();
        }
        last = f.GetFrameIndex();
        samples += static_cast<long long>(f.GetData().size());
        sum = std::accumulate(f.GetData().begin(), f.GetData().end(), sum);
    }

    void End()
    {
        if (count > 0)
            os << "frames " << first << "-" << last << " " << (speech ? "speech" : "pause") << " samples=" << samples
               << " sum=" << sum << "\n";
        count = 0;
        samples = sum = 0;
    }
};

void AnalyzerClass(std::ostream& os, const oku::AudioData& s, double rate)
{
    static const char* const tags[] = {"speech_start", "speech_end", "below_vor", "above_vor"};
    oku::AudioAnalyzer a("", rate, true);
    const std::size_t chunk = static_cast<std::size_t>(7 * a.GetSamplesPerFrame() + 3);
    os << "## analyzer class: chunks of " << chunk << " samples, frame data on, flushed at the end\n";
    FrameRuns runs{os};
    auto drain = [&] {
        oku::AnalyzerResultPtr r;
        while (a.GetResult(r)) {
            if (r->GetType() == oku::AnalyzerResult::RT_AudioFrame) {
                runs.Add(static_cast<const oku::AnalyzerAudioFrame&>(*r));
                continue;
            }
            runs.End();
            if (r->GetType() == oku::AnalyzerResult::RT_Event) {
                const auto& e = static_cast<const oku::AnalyzerEvent&>(*r);
                os << "event " << tags[e.GetTag()] << " " << D(e.GetTimeMs()) << "\n";
            } else {
                const auto& m = static_cast<const oku::AnalyzerVolumeMeter&>(*r);
                os << "meter " << D(m.GetTimeMs()) << " " << oku_assessment_name(m.GetInfo()) << " peak=" << D(m.GetVolume())
                   << " dbfs=" << D(m.GetVolumedBFS()) << " snr_pct=" << D(m.GetSNRVolumePct())
                   << " speech=" << (m.IsSpeechState() ? 1 : 0) << "\n";
            }
        }
    };
    for (std::size_t i = 0; i < s.size(); i += chunk) {
        a.Process(oku::AudioData(s.begin() + static_cast<long>(i), s.begin() + static_cast<long>(std::min(i + chunk, s.size()))));
        drain();
    }
    os << "flush\n";
    a.Flush();
    drain();
    runs.End();
}

void Exported(std::ostream& os, const oku::AudioData& s, double rate)
{
    const std::size_t chunk = static_cast<std::size_t>(rate / 50);
    os << "## exported functions: chunks of " << chunk
       << " samples; every analyzer report, and the gain control's volume (bound 65535, fed back) with GetInfo\n"
       << "## after each call that decided (a call that only collects audio records control 0, levels 0)\n";
    if (OKUVAD_Init(rate) != 0 || OKUAGC_Init(static_cast<int>(rate)) != 0) {
        os << "init failed\n";
        return;
    }
    long volume = 30000;
    for (std::size_t i = 0; i + chunk <= s.size(); i += chunk) {
        int start = 1, result = 0, info = 0;
        double value = 0;
        do {
            const int status = OKUVAD_GetResult(start, &s[i], static_cast<unsigned int>(chunk * 2), &result, &value, &info);
            start = 0;
            if (status != 0) {
                os << "vad status " << status << "\n";
                break;
            }
            if (result == 1 || result == 2)
                os << "vad " << (result == 1 ? "start " : "end ") << D(value) << "\n";
            else if (result == 3)
                os << "vad volume " << D(value) << " " << oku_assessment_name(info) << "\n";
        } while (result != 0);
        const long before = volume;
        const int status = OKUAGC_ComputeGain(&s[i], static_cast<unsigned int>(chunk * 2), volume, 65535, &volume);
        double t = 0;
        float p = 0, q = 0;
        int type = 0;
        OKUAGC_GetInfo(&t, &p, &q, &type);
        if (status == 0 && volume == before && type == 0 && p == 0.0f && q == 0.0f)
            continue;
        os << "agc " << before << " " << volume << " status=" << status << " control=" << type << " time=" << D(t)
           << " pause=" << F(p) << " speech=" << F(q) << "\n";
    }
    OKUVAD_Deinit();
    OKUAGC_Deinit();
}

void AgcClass(std::ostream& os, const oku::AudioData& s, int rate)
{
    const std::size_t chunk = static_cast<std::size_t>(rate / 100);
    os << "## gain control class: chunks of " << chunk
       << " samples scaled by the gain in force (starting at 0.2), with its diagnostic log\n";
    oku::AGC agc("", rate);
    auto log = std::make_shared<std::ostringstream>();
    agc.SetLogStream(log);
    float gain = 0.2f;
    for (std::size_t i = 0; i + chunk <= s.size(); i += chunk) {
        oku::AudioData part(s.begin() + static_cast<long>(i), s.begin() + static_cast<long>(i + chunk));
        for (short& x : part)  // the microphone follows the gain
            x = static_cast<short>(static_cast<float>(x) * gain);
        const long long updates = agc.GetNumUpdates();
        const float newGain = agc.ComputeGain(part, gain);
        if (agc.GetNumUpdates() != updates || newGain != gain) {
            oku::AGC::ControlInfo info;
            agc.GetInfo(info);
            std::string line;
            std::istringstream lines(log->str());
            while (std::getline(lines, line))
                os << "log " << line << "\n";
            log->str("");
            os << "update " << F(gain) << " " << F(newGain) << " control=" << info.GetControlType()
               << " time=" << D(info.GetTimeMs()) << " pause=" << F(info.GetPauseLevel())
               << " speech=" << F(info.GetSpeechLevel()) << "\n";
        }
        gain = newGain;
    }
}

// Input rates that the library converts: each file holds both recordings,
// the bursts as float stereo (the right channel at half the left's level)
// and the gaps as 16-bit samples in three channels (the third silent),
// through the handle functions in chunks of 20 ms of input.
const int kConvertedRates[] = {12000, 24000, 32000, 44100, 48000, 64000, 88200, 96000, 176400, 192000};

void ThroughInputPath(std::ostream& os, const oku::AudioData& s, int rate, int channels, bool floats)
{
    os << "## " << channels << " channels of " << (floats ? "float" : "16-bit") << " samples, analysed at "
       << oku_analysis_rate(rate) << " Hz; the gain control's gain (starting at 0.2) fed back\n";
    oku_vad* vad = nullptr;
    oku_agc* agc = nullptr;
    if (oku_vad_open(rate, channels, nullptr, 0, &vad) != OKU_OK || oku_agc_open(rate, channels, nullptr, 0, &agc) != OKU_OK) {
        os << "open failed: " << oku_last_error() << "\n";
        oku_vad_destroy(vad);
        return;
    }
    const std::size_t frames = static_cast<std::size_t>(rate / 50), c = static_cast<std::size_t>(channels);
    std::vector<float> f(frames * c);
    std::vector<std::int16_t> i16(frames * c);
    double gain = 0.2;
    const auto drain = [&] {
        oku_vad_result r;
        oku_vad_segment seg;
        while (oku_vad_take(vad, &r, &seg) == OKU_OK && r.type != OKU_VAD_NONE) {
            os << oku_vad_result_name(r.type) << " " << r.position << " " << D(r.time_ms);
            if (r.type == OKU_VAD_SPEECH_END)
                os << " from " << seg.start;
            if (r.type == OKU_VAD_VOLUME)
                os << " " << oku_assessment_name(r.assessment) << " peak=" << D(r.peak) << " dbfs=" << D(r.level_dbfs)
                   << " snr_pct=" << D(r.snr_pct) << " speech=" << r.speech;
            os << "\n";
        }
    };
    for (std::size_t at = 0; at < s.size(); at += frames) {
        const std::size_t n = std::min(frames, s.size() - at);
        for (std::size_t k = 0; k < n; ++k)
            for (std::size_t ch = 0; ch < c; ++ch) {
                const short x = s[at + k];
                f[k * c + ch] = ch == 0 ? static_cast<float>(x) / 32768.0f : ch == 1 ? static_cast<float>(x) / 65536.0f : 0.0f;
                i16[k * c + ch] = ch == 0 ? x : ch == 1 ? static_cast<std::int16_t>(x / 2) : 0;
            }
        const int status = floats ? oku_vad_process_f32(vad, f.data(), n * c) : oku_vad_process(vad, i16.data(), n * c);
        if (status != OKU_OK)
            os << "vad status " << status << "\n";
        drain();
        double next = gain;
        oku_agc_decision d;
        if ((floats ? oku_agc_process_f32(agc, f.data(), n * c, gain, &next)
                    : oku_agc_process(agc, i16.data(), n * c, gain, &next)) != OKU_OK ||
            oku_agc_info(agc, &d) != OKU_OK)
            os << "agc failed\n";
        else if (d.updated)
            os << "agc " << F(static_cast<float>(gain)) << " " << F(static_cast<float>(next)) << " "
               << oku_agc_control_name(d.control) << " time=" << D(d.time_ms) << " pause=" << F(d.pause_db)
               << " speech=" << F(d.speech_db) << "\n";
        gain = next;
    }
    os << "flush\n";
    oku_vad_flush(vad);
    drain();
    oku_vad_destroy(vad);
    oku_agc_destroy(agc);
}

// The meter's level and SNR percentage pass through the platform's log10,
// whose last bits differ between C libraries (glibc's x86-64 build wrote the
// files); everything else (decisions, positions, peaks, gains, controls) is
// exact everywhere. Elsewhere the level compares within kLog10Ulps units in
// the last place, and the SNR percentage, a difference of two logarithms of
// some 40 to 90 dB over a scale (which can leave a value near 0 with few of
// its bits), within kSnrPctAbsolute.
#if defined(__x86_64__) && defined(__linux__)
const bool kExactLog10 = true;
#else
const bool kExactLog10 = false;
#endif
const std::int64_t kLog10Ulps = 64;
const double kSnrPctAbsolute = 1e-9;

// Distance in units in the last place between two finite doubles.
std::int64_t Ulps(double a, double b)
{
    std::int64_t ia, ib;
    std::memcpy(&ia, &a, sizeof a);
    std::memcpy(&ib, &b, sizeof b);
    // Doubles ordered as integers: negative ones counted down from zero.
    ia = ia < 0 ? std::numeric_limits<std::int64_t>::min() - ia : ia;
    ib = ib < 0 ? std::numeric_limits<std::int64_t>::min() - ib : ib;
    return ia > ib ? ia - ib : ib - ia;
}

// Whether two lines agree: equal, or (off glibc x86-64) equal but for
// dbfs= and snr_pct= values within their tolerances.
bool LinesAgree(const std::string& want, const std::string& got)
{
    if (want == got || kExactLog10)
        return want == got;
    std::istringstream a(want), b(got);
    std::string ta, tb;
    while (a >> ta) {
        if (!(b >> tb))
            return false;
        if (ta == tb)
            continue;
        const bool level = ta.rfind("dbfs=", 0) == 0 && tb.rfind("dbfs=", 0) == 0;
        const bool snr = ta.rfind("snr_pct=", 0) == 0 && tb.rfind("snr_pct=", 0) == 0;
        const double x = std::strtod(ta.c_str() + ta.find('=') + 1, nullptr);
        const double y = std::strtod(tb.c_str() + tb.find('=') + 1, nullptr);
        if (!(level && Ulps(x, y) <= kLog10Ulps) && !(snr && std::fabs(x - y) <= kSnrPctAbsolute))
            return false;
    }
    return !(b >> tb);
}

// Compares a text with its golden file, or rewrites the file under OKU_GOLDEN_UPDATE.
void CheckGolden(const std::string& name, const std::string& got)
{
    const std::string path = std::string(OKU_GOLDEN_DIR) + "/" + name + ".txt";
    if (kUpdate) {
        std::ofstream out(path, std::ios::binary);
        out << got;
        out.close();
        ASSERT_TRUE(out) << "cannot write " << path;
        return;
    }
    std::ifstream in(path, std::ios::binary);
    ASSERT_TRUE(in) << "missing golden file " << path << " (make golden writes it)";
    std::stringstream want, have(got);
    want << in.rdbuf();
    std::string la, lb;
    for (int line = 1;; ++line) {
        const bool ha = static_cast<bool>(std::getline(want, la)), hb = static_cast<bool>(std::getline(have, lb));
        if (!ha && !hb)
            return;
        ASSERT_TRUE(ha && hb && LinesAgree(la, lb)) << path << " differs at line " << line << ":\n  expected: "
                                                    << (ha ? la : "(end of file)") << "\n  got:      " << (hb ? lb : "(end of output)");
    }
}

}  // namespace

TEST(Golden, InputPathResultsEqualTheGoldenFiles)
{
    for (int rate : kConvertedRates) {
        std::ostringstream os;
        os << "# The input path at " << rate << " Hz: the generated recordings through the handle functions\n"
           << "# Regenerate with `make golden` only when a change is meant to alter results.\n";
        for (const testsig::Recording& r : testsig::GoldenRecordings()) {
            const oku::AudioData s = testsig::Render(r.stretches, rate, 7);
            const bool floats = r.name == "bursts";
            os << "# " << r.name << ", " << s.size() << " frames\n";
            ThroughInputPath(os, s, rate, floats ? 2 : 3, floats);
        }
        CheckGolden("input-" + std::to_string(rate), os.str());
    }
}

TEST(Golden, ResultsEqualTheGoldenFiles)
{
    for (const testsig::Recording& r : testsig::GoldenRecordings())
        for (double rate : kRates) {
            const oku::AudioData s = testsig::Render(r.stretches, rate, 7);
            std::ostringstream os;
            os << "# " << r.name << " at " << rate << " Hz, " << s.size() << " samples: " << r.description << "\n"
               << "# Regenerate with `make golden` only when a change is meant to alter results.\n";
            AnalyzerClass(os, s, rate);
            Exported(os, s, rate);
            AgcClass(os, s, static_cast<int>(rate));
            CheckGolden(r.name + "-" + std::to_string(static_cast<int>(rate)), os.str());
        }
}

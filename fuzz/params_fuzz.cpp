// Parameter strings of any shape for the parser, both classes and the C
// interface's checks. Whatever a string says, construction either succeeds or
// throws std::invalid_argument, an accepted configuration must then run audio
// without fault, and oku_params_check must accept exactly the strings the
// classes accept (and then give every setting's value).
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "agc.h"
#include "audioanalyzer.h"
#include "fuzz_input.h"
#include "oku.h"
#include "parameters.h"

namespace {

// The C interface's verdict on a string must be the class's, at the lowest
// rate (the one oku_params_check builds at).
template <typename Build>
void SameVerdict(int service, const std::string& text, Build build)
{
    bool built = true;
    try {
        build();
    } catch (const std::invalid_argument&) {
        built = false;
    }
    const int status = oku_params_check(service, text.c_str());
    if ((status == OKU_OK) != built || (status != OKU_OK && status != OKU_ERR_PARAMS))
        std::abort();
    std::size_t count = 0;
    const oku_setting* table = oku_settings(service, &count);
    for (std::size_t i = 0; built && i < count; ++i) {
        double value;
        if (oku_setting_value(service, text.c_str(), table[i].key, &value) != OKU_OK)
            std::abort();
    }
    oku_params_entries(text.c_str(), [](void*, const char* key, const char* value) {
        if (!*key || !*value)
            std::abort();
    }, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size < 2)
        return 0;
    const double rates[] = {8000.0, 11025.0, 16000.0, 22050.0};
    const double rate = rates[data[0] % 4];
    const std::size_t frames = 20 + data[1] % 250;  // up to well past the analyzer's 200-frame rings
    const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    std::size_t audioSize;
    const uint8_t* audio = AudioBytes(&audioSize);
    const short* samples = reinterpret_cast<const short*>(audio);
    const std::size_t total = frames * static_cast<std::size_t>(rate / 50);

    try {
        oku::Parameters p(text);
        for (const auto& entry : p) {
            try {
                (void)p.Get<int>(entry.first);
                (void)p.Get<unsigned int>(entry.first);
                (void)p.Get<double>(entry.first);
                (void)p.Get<float>(entry.first);
            } catch (const std::invalid_argument&) {
            }
        }
    } catch (const std::invalid_argument&) {
    }

    try {
        oku::AudioAnalyzer analyzer(text, rate, data[1] & 1);
        for (std::size_t i = 0; i < total; i += 997)
            analyzer.Process(oku::AudioData(samples + i, samples + std::min(total, i + 997)));
        analyzer.Flush();
        oku::AnalyzerResultPtr r;
        while (analyzer.GetResult(r))
            if (r->GetType() < 0 || r->GetType() > 2)
                std::abort();
        analyzer.UpdateParameters(text);
        analyzer.SetEOSTimeout(static_cast<int>(data[1]) - 128);
        analyzer.Process(oku::AudioData(samples, samples + total / 2));
    } catch (const std::invalid_argument&) {
    }

    try {
        oku::AGC agc(text, static_cast<int>(rate));
        float gain = 0.5f;
        const std::size_t chunk = static_cast<std::size_t>(rate / 50);
        for (std::size_t i = 0; i + chunk <= total; i += chunk) {
            gain = agc.ComputeGain(oku::AudioData(samples + i, samples + i + chunk), gain);
            if (!(gain >= 0.0f && gain <= 1.0f))
                std::abort();
        }
        (void)agc.ComputeGain(oku::AudioData(samples, samples + chunk), 0.0f);
    } catch (const std::invalid_argument&) {
    }

    if (text.find('\0') == std::string::npos) {
        SameVerdict(OKU_SERVICE_VAD, text, [&] { oku::AudioAnalyzer(text, 8000.0, false); });
        SameVerdict(OKU_SERVICE_AGC, text, [&] { oku::AGC(text, 8000); });
    }
    return 0;
}

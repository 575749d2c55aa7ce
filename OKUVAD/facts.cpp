// The facts a front end needs, from the library's own tables: version, rates,
// the names of the interface's enumerations, the volume conversion of the
// plain gain-control functions, and each service's settings.
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "agc.h"
#include "audioanalyzer.h"
#include "../src/inputpath.h"
#include "rates.h"
#include "settings.h"
#include "oku.h"
#include "status.h"

#ifndef OKU_VERSION_STRING
#error "OKU_VERSION_STRING must be the library's version"
#endif

using oku::status::Fail;
using oku::status::Guard;
using oku::status::Null;

namespace {

// The interface's enumerations hold the classes' values one to one (the
// handle functions pass them through unchanged).
constexpr bool Same(int a, int b) { return a == b; }
using Meter = oku::AnalyzerVolumeMeter;
using Control = oku::AGC::ControlInfo;
static_assert(Same(OKU_VOLUME_OK, Meter::OK) && Same(OKU_VOLUME_TOO_NOISY, Meter::TooNoisy) &&
                  Same(OKU_VOLUME_TOO_SOFT, Meter::TooSoft) && Same(OKU_VOLUME_TOO_LOUD, Meter::TooLoud),
              "assessments");
static_assert(OKU_MAX_CHANNELS == oku::kMaxChannels, "channel limit");
static_assert(Same(OKU_AGC_UNCHANGED, Control::Unchanged) && Same(OKU_AGC_PAUSE_TOO_LOW, Control::PauseTooLow) &&
                  Same(OKU_AGC_SPEECH_TOO_LOW, Control::SpeechTooLow) &&
                  Same(OKU_AGC_SPEECH_TOO_HIGH, Control::SpeechTooHigh) &&
                  Same(OKU_AGC_OPERATING_LIMIT, Control::OperatingLimit) &&
                  Same(OKU_AGC_GAIN_ESTIMATE, Control::GainEstimate),
              "control types");

const char* const kResultNames[] = {"none", "speech_start", "speech_end", "volume", "frame"};
const char* const kAssessmentNames[] = {"ok", "too_noisy", "too_soft", "too_loud"};
const char* const kControlNames[] = {"unchanged",       "pause_too_low",   "speech_too_low",
                                     "speech_too_high", "operating_limit", "gain_estimate"};

template <std::size_t N>
const char* Name(const char* const (&names)[N], int value)
{
    return value >= 0 && static_cast<std::size_t>(value) < N ? names[value] : nullptr;
}

// The C views of the library's tables, made once from the classes' own.
struct TablesView {
    int rates[oku::kSupportedRateCount];
    int inputRates[oku::kInputRateCount];
    oku_setting vad[oku::kAnalyzerSettingCount];
    oku_setting agc[oku::kAgcSettingCount];

    template <std::size_t N>
    static void Fill(oku_setting (&out)[N], const oku::Setting (&in)[N])
    {
        for (std::size_t i = 0; i < N; ++i) {
            out[i] = oku_setting{in[i].key, in[i].name, in[i].unit, in[i].meaning,
                                 in[i].type == oku::SettingType::Int ? OKU_SETTING_INT : OKU_SETTING_REAL, 0,
                                 in[i].defaultValue};
        }
    }

    TablesView()
    {
        for (std::size_t i = 0; i < oku::kSupportedRateCount; ++i)
            rates[i] = oku::kSupportedRates[i].hz;
        for (std::size_t i = 0; i < oku::kInputRateCount; ++i)
            inputRates[i] = oku::kInputRates[i].hz;
        Fill(vad, oku::kAnalyzerSettings);
        Fill(agc, oku::kAgcSettings);
    }
};

const TablesView& View()
{
    static const TablesView view;
    return view;
}

bool KnownService(int service) { return service == OKU_SERVICE_VAD || service == OKU_SERVICE_AGC; }

const oku::Setting* FindKey(int service, const std::string& key)
{
    return service == OKU_SERVICE_VAD ? oku::FindSetting(oku::kAnalyzerSettings, key)
                                      : oku::FindSetting(oku::kAgcSettings, key);
}

// A setting's value as the service reads it: the analyzer in double, the gain
// control in float; whole numbers as int. Throws "Invalid format" when the
// value does not read as its type.
double ReadAs(int service, const oku::Parameters& par, const oku::Setting& s)
{
    if (s.type == oku::SettingType::Int)
        return oku::Read<int>(par, s);
    if (service == OKU_SERVICE_AGC)
        return oku::Read<float>(par, s);
    return oku::Read<double>(par, s);
}

// Parses a parameter string; a malformed one becomes a message that says what the grammar is.
int Parse(const char* params, oku::Parameters& out)
{
    try {
        out = oku::Parameters(params ? params : "");
        return OKU_OK;
    } catch (const std::invalid_argument&) {
        return Fail(OKU_ERR_PARAMS, "Invalid format: entries must be Key=Value, separated by ';'");
    }
}

// Reads one setting, naming the key and its value when they do not go together.
int ReadSetting(int service, const oku::Parameters& par, const oku::Setting& s, double* value)
{
    try {
        *value = ReadAs(service, par, s);
        return OKU_OK;
    } catch (const std::invalid_argument&) {
        return Fail(OKU_ERR_PARAMS, std::string(s.key) + ": '" + par.at(s.key) + "' is not " +
                                        (s.type == oku::SettingType::Int ? "a whole number in the range of int"
                                                                         : "a number in range"));
    }
}

}  // namespace

extern "C" {

OKU_API const char* oku_version(void) { return OKU_VERSION_STRING; }

OKU_API const int* oku_rates(size_t* count)
{
    if (count)
        *count = oku::kSupportedRateCount;
    return View().rates;
}

OKU_API int oku_rate_supported(double rate) { return oku::FindRate(rate) != nullptr; }

OKU_API int oku_nearest_rate(double rate) { return oku::NearestRate(rate); }

OKU_API const int* oku_input_rates(size_t* count)
{
    if (count)
        *count = oku::kInputRateCount;
    return View().inputRates;
}

OKU_API int oku_analysis_rate(double rate)
{
    const oku::InputRate* r = oku::FindInputRate(rate);
    return r ? r->analysisHz : 0;
}

OKU_API int oku_max_channels(void) { return oku::kMaxChannels; }

OKU_API const char* oku_vad_result_name(int type) { return Name(kResultNames, type); }

OKU_API const char* oku_assessment_name(int assessment) { return Name(kAssessmentNames, assessment); }

OKU_API const char* oku_agc_control_name(int control) { return Name(kControlNames, control); }

OKU_API int oku_gain_from_volume(long volume, long bound, double* gain)
{
    if (!gain)
        return Null("gain");
    if (bound <= 0 || volume < 0 || volume > bound)
        return Fail(OKU_ERR_ARGUMENT, "volume must lie in 0 to bound, and bound above 0");
    *gain = oku::AGC::GainFromVolume(volume, bound);
    return OKU_OK;
}

OKU_API int oku_volume_from_gain(double gain, long bound, long* volume)
{
    if (!volume)
        return Null("volume");
    if (bound <= 0 || !(gain >= 0.0 && gain <= 1.0))
        return Fail(OKU_ERR_ARGUMENT, "gain must lie in [0, 1], and bound above 0");
    *volume = oku::AGC::VolumeFromGain(static_cast<float>(gain), bound);
    return OKU_OK;
}

OKU_API const oku_setting* oku_settings(int service, size_t* count)
{
    const TablesView& view = View();
    const std::size_t n = service == OKU_SERVICE_VAD   ? std::size_t{oku::kAnalyzerSettingCount}
                          : service == OKU_SERVICE_AGC ? std::size_t{oku::kAgcSettingCount}
                                                       : std::size_t{0};
    if (count)
        *count = n;
    if (n == 0)
        return nullptr;
    return service == OKU_SERVICE_VAD ? view.vad : view.agc;
}

OKU_API int oku_setting_value(int service, const char* params, const char* key, double* value)
{
    if (!key)
        return Null("key");
    if (!value)
        return Null("value");
    if (!KnownService(service))
        return Fail(OKU_ERR_ARGUMENT, "unknown service");
    return Guard([&]() -> int {
        const oku::Setting* s = FindKey(service, key);
        if (!s)
            return Fail(OKU_ERR_ARGUMENT, std::string(key) + " is not a setting of the " +
                                              (service == OKU_SERVICE_VAD ? "analyzer" : "gain control"));
        oku::Parameters par;
        if (Parse(params, par) != OKU_OK)
            return OKU_ERR_PARAMS;
        double v = 0.0;
        if (ReadSetting(service, par, *s, &v) != OKU_OK)
            return OKU_ERR_PARAMS;
        *value = v;
        return OKU_OK;
    });
}

OKU_API int oku_params_check(int service, const char* params)
{
    if (!KnownService(service))
        return Fail(OKU_ERR_ARGUMENT, "unknown service");
    return Guard([&]() -> int {
        oku::Parameters par;
        if (Parse(params, par) != OKU_OK)
            return OKU_ERR_PARAMS;
        for (const auto& entry : par) {
            const oku::Setting* s = FindKey(service, entry.first);
            double v;
            if (s && ReadSetting(service, par, *s, &v) != OKU_OK)
                return OKU_ERR_PARAMS;
        }
        // The services' own refusals (settings that would break them), made at
        // the lowest rate: only a histogram window within half a frame of its
        // limits could be judged differently at another.
        const std::string text = params ? params : "";
        if (service == OKU_SERVICE_VAD)
            oku::AudioAnalyzer(text, oku::kSupportedRates[0].hz, false);
        else
            oku::AGC(text, oku::kSupportedRates[0].hz);
        return OKU_OK;
    });
}

OKU_API int oku_params_unknown(int service, const char* params, oku_params_fn fn, void* user, size_t* count)
{
    if (!KnownService(service))
        return Fail(OKU_ERR_ARGUMENT, "unknown service");
    return Guard([&]() -> int {
        oku::Parameters par;
        if (Parse(params, par) != OKU_OK)
            return OKU_ERR_PARAMS;
        std::size_t unknown = 0;
        for (const auto& entry : par) {
            if (FindKey(service, entry.first))
                continue;
            ++unknown;
            if (fn)
                fn(user, entry.first.c_str(), entry.second.c_str());
        }
        if (count)
            *count = unknown;
        return OKU_OK;
    });
}

OKU_API int oku_chunk_samples(double rate, double ms, size_t* samples)
{
    if (!samples)
        return Null("samples");
    if (!(rate > 0.0 && rate <= DBL_MAX) || !(ms > 0.0 && ms <= DBL_MAX))
        return Fail(OKU_ERR_ARGUMENT, "rate and ms must be positive finite numbers");
    const double exact = ms * rate / 1000.0;
    const double limit = static_cast<double>(PTRDIFF_MAX / 2);
    if (!(exact < limit))
        return Fail(OKU_ERR_ARGUMENT, "a chunk of that length is larger than any array");
    const double n = std::floor(exact + 0.5);
    if (n < 1.0)
        return Fail(OKU_ERR_ARGUMENT, "a chunk of that length holds no sample at that rate");
    *samples = static_cast<std::size_t>(n);
    return OKU_OK;
}

OKU_API int oku_params_entries(const char* params, oku_params_fn fn, void* user)
{
    if (!fn)
        return Null("fn");
    return Guard([&]() -> int {
        oku::Parameters par;
        if (Parse(params, par) != OKU_OK)
            return OKU_ERR_PARAMS;
        for (const auto& entry : par)
            fn(user, entry.first.c_str(), entry.second.c_str());
        return OKU_OK;
    });
}

OKU_API int oku_vad_delay(double rate, const char* params, double* ms)
{
    if (!ms)
        return Null("ms");
    const int status = Guard([&]() -> int {
        const oku::InputPath input(rate, 1);
        const oku::AudioAnalyzer analyzer(params ? params : "", input.AnalysisRate(), false);
        *ms = analyzer.GetFrameDelay() * analyzer.GetFrameSizeMs() + input.LatencyMs();
        return OKU_OK;
    });
    return oku::status::NameParams(status, OKU_SERVICE_VAD, params);
}

OKU_API size_t oku_struct_size(const char* name)
{
    if (!name)
        return 0;
    if (std::strcmp(name, "oku_vad_result") == 0)
        return sizeof(oku_vad_result);
    if (std::strcmp(name, "oku_agc_decision") == 0)
        return sizeof(oku_agc_decision);
    if (std::strcmp(name, "oku_setting") == 0)
        return sizeof(oku_setting);
    if (std::strcmp(name, "oku_vad_segment") == 0)
        return sizeof(oku_vad_segment);
    return 0;
}

}  // extern "C"

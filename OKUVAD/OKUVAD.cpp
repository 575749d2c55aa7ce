// Exported entry points of the voice-activity analyzer: one process-wide
// analyzer, raw PCM bytes in, one reported result per call out.
#include "okuvad.h"

#include "audioanalyzer.h"
#include "boundary.h"

using oku::AnalyzerEvent;
using oku::AnalyzerResult;
using oku::AnalyzerResultPtr;
using oku::AnalyzerVolumeMeter;
using oku::AudioAnalyzer;

AudioAnalyzer* g_pAudioAnalyzer = nullptr;
double g_dSamplingRate = 0.0;

namespace {
oku::AudioData g_audioData;  // the chunk being analysed, reused from call to call
}

extern "C" OKUVAD_API int OKUVAD_Init(const double dSamplingRate_p)
{
    return oku::boundary::GuardPlain([&] {
        delete g_pAudioAnalyzer;
        g_pAudioAnalyzer = nullptr;
        g_pAudioAnalyzer = new AudioAnalyzer("", dSamplingRate_p, true);
        g_dSamplingRate = dSamplingRate_p;
        return 0;
    });
}

extern "C" OKUVAD_API int OKUVAD_GetResult(const int iStart_p, const void* pvData_p,
                                           const unsigned int uiDataSize_p, int* piResult_p,
                                           double* pdVolumePeakSignalInSamples_p, int* piVolumeInfo_p)
{
    if (!piResult_p || !pdVolumePeakSignalInSamples_p || !piVolumeInfo_p || !g_pAudioAnalyzer)
        return -1;
    if (iStart_p != 0 && uiDataSize_p > 0 && !pvData_p)
        return -1;
    *piResult_p = -1;
    return oku::boundary::GuardPlain([&] {
        if (iStart_p != 0) {
            *pdVolumePeakSignalInSamples_p = 0.0;
            *piVolumeInfo_p = 0;
            g_pAudioAnalyzer->Process(oku::boundary::MakeAudioData(g_audioData, pvData_p, uiDataSize_p));
            oku::boundary::TrimAudioData(g_audioData);
        }
        AnalyzerResultPtr result;
        while (g_pAudioAnalyzer->GetResult(result)) {
            switch (result->GetType()) {
            case AnalyzerResult::RT_Event: {
                const AnalyzerEvent& event = static_cast<const AnalyzerEvent&>(*result);
                if (event.GetTag() == AnalyzerEvent::SpeechStart || event.GetTag() == AnalyzerEvent::SpeechEnd) {
                    *pdVolumePeakSignalInSamples_p = event.GetTimeMs() * g_dSamplingRate / 1000.0;
                    *piResult_p = event.GetTag() == AnalyzerEvent::SpeechStart ? 1 : 2;
                    return 0;
                }
                break;  // AboveVOR and BelowVOR only accompany the start and end
            }
            case AnalyzerResult::RT_VolumeMeter: {
                const AnalyzerVolumeMeter& meter = static_cast<const AnalyzerVolumeMeter&>(*result);
                *pdVolumePeakSignalInSamples_p = meter.GetVolume();
                *piVolumeInfo_p = static_cast<int>(meter.GetInfo());
                *piResult_p = 3;
                return 0;
            }
            case AnalyzerResult::RT_AudioFrame:
                break;
            }
        }
        *piResult_p = 0;
        return 0;
    });
}

extern "C" OKUVAD_API int OKUVAD_Deinit(void)
{
    delete g_pAudioAnalyzer;
    g_pAudioAnalyzer = nullptr;
    oku::AudioData().swap(g_audioData);
    return 0;
}

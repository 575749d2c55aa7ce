// Exported entry points of the automatic gain control: one process-wide gain
// control, host volumes converted to gains and back.
#include "okuvad.h"

#include "agc.h"
#include "boundary.h"

using oku::AGC;

AGC* g_pAgc = nullptr;
int g_iSamplingRate = 0;

namespace {
AGC::AudioData g_audioData;  // the chunk being analysed, reused from call to call
}

extern "C" OKUVAD_API int OKUAGC_Init(const int iSamplingRate_p)
{
    if (iSamplingRate_p <= 0)
        return -4;
    return oku::boundary::GuardPlain([&] {
        if (g_pAgc) {
            if (iSamplingRate_p == g_iSamplingRate)
                return 0;
            delete g_pAgc;
            g_pAgc = nullptr;
            g_iSamplingRate = 0;
        }
        g_pAgc = new AGC("", iSamplingRate_p);
        g_iSamplingRate = iSamplingRate_p;
        return 0;
    });
}

extern "C" OKUVAD_API int OKUAGC_ComputeGain(const void* pvData_p, const unsigned int uiDataSize_p,
                                             const long lInVolume_p, const long lUBound_p, long* plCurrentGain_p)
{
    if (!plCurrentGain_p || !g_pAgc || lUBound_p <= 0)
        return -1;
    if (lInVolume_p < 0 || lInVolume_p > lUBound_p || (uiDataSize_p > 0 && !pvData_p))
        return -1;
    *plCurrentGain_p = 0;
    return oku::boundary::GuardPlain([&] {
        const AGC::AudioData& audioData = oku::boundary::MakeAudioData(g_audioData, pvData_p, uiDataSize_p);
        const float fCurrentGain = AGC::GainFromVolume(lInVolume_p, lUBound_p);
        const float fNewGain = g_pAgc->ComputeGain(audioData, fCurrentGain);
        oku::boundary::TrimAudioData(g_audioData);
        *plCurrentGain_p = AGC::VolumeFromGain(fNewGain, lUBound_p);
        return 0;
    });
}

extern "C" OKUVAD_API int OKUAGC_GetInfo(double* pdTimeMs_p, float* pfPauseLevel_p, float* pfSpeechLevel_p,
                                         int* piControlType_p)
{
    if (!pdTimeMs_p || !pfPauseLevel_p || !pfSpeechLevel_p || !piControlType_p || !g_pAgc)
        return -1;
    return oku::boundary::GuardPlain([&] {
        *pdTimeMs_p = 0.0;
        *pfPauseLevel_p = 0.0f;
        *pfSpeechLevel_p = 0.0f;
        AGC::ControlInfo controlInfo;
        g_pAgc->GetInfo(controlInfo);
        *pdTimeMs_p = controlInfo.GetTimeMs();
        *pfPauseLevel_p = controlInfo.GetPauseLevel();
        *pfSpeechLevel_p = controlInfo.GetSpeechLevel();
        const int type = static_cast<int>(controlInfo.GetControlType());
        if (type < AGC::ControlInfo::Unchanged || type > AGC::ControlInfo::GainEstimate) {
            *piControlType_p = 6;
            return -4;
        }
        *piControlType_p = type;
        return 0;
    });
}

extern "C" OKUVAD_API int OKUAGC_Deinit(void)
{
    delete g_pAgc;
    g_pAgc = nullptr;
    g_iSamplingRate = 0;
    AGC::AudioData().swap(g_audioData);
    return 0;
}

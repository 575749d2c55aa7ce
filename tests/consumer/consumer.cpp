// A C++ user of the installed classes.
#include <oku/agc.h>
#include <oku/audioanalyzer.h>

#include <cstdio>

int main()
{
    oku::AudioAnalyzer analyzer("EOSTimeoutMs=600", 16000.0, false);
    oku::AGC agc("", 16000);
    if (analyzer.GetEOSTimeout() != 600 || analyzer.GetSamplesPerFrame() != 320)
        return 1;
    oku::AudioData chunk(320 * 6, 0);
    analyzer.Process(chunk);
    oku::AnalyzerResultPtr result;
    if (!analyzer.GetResult(result) || result->GetType() != oku::AnalyzerResult::RT_VolumeMeter)
        return 1;
    if (agc.ComputeGain(chunk, 0.5f) <= 0.5f)  // silence: the gain goes up
        return 1;
    std::puts("consumer (C++): ok");
    return 0;
}

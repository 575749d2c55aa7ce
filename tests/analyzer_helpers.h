// Draining an analyzer's queue into plain lists for assertions.
#ifndef OKU_TESTS_ANALYZER_HELPERS_H
#define OKU_TESTS_ANALYZER_HELPERS_H

#include <memory>
#include <vector>

#include "audioanalyzer.h"

namespace testsig {

struct Drained {
    std::vector<oku::AnalyzerResultPtr> all;
    std::vector<std::shared_ptr<oku::AnalyzerEvent>> events;
    std::vector<std::shared_ptr<oku::AnalyzerAudioFrame>> frames;
    std::vector<std::shared_ptr<oku::AnalyzerVolumeMeter>> meters;

    // Events with the given tag.
    std::vector<double> Times(oku::AnalyzerEvent::EventTag tag) const
    {
        std::vector<double> t;
        for (const auto& e : events)
            if (e->GetTag() == tag)
                t.push_back(e->GetTimeMs());
        return t;
    }
};

inline Drained Drain(oku::AudioAnalyzer& analyzer)
{
    Drained d;
    oku::AnalyzerResultPtr p;
    while (analyzer.GetResult(p)) {
        d.all.push_back(p);
        switch (p->GetType()) {
        case oku::AnalyzerResult::RT_Event:
            d.events.push_back(std::dynamic_pointer_cast<oku::AnalyzerEvent>(p));
            break;
        case oku::AnalyzerResult::RT_AudioFrame:
            d.frames.push_back(std::dynamic_pointer_cast<oku::AnalyzerAudioFrame>(p));
            break;
        case oku::AnalyzerResult::RT_VolumeMeter:
            d.meters.push_back(std::dynamic_pointer_cast<oku::AnalyzerVolumeMeter>(p));
            break;
        }
    }
    return d;
}

// Feeds a signal one frame per call.
inline void FeedFrames(oku::AudioAnalyzer& analyzer, const oku::AudioData& signal)
{
    const std::size_t n = static_cast<std::size_t>(analyzer.GetSamplesPerFrame());
    for (std::size_t i = 0; i < signal.size(); i += n)
        analyzer.Process(oku::AudioData(signal.begin() + static_cast<long>(i),
                                        signal.begin() + static_cast<long>(std::min(i + n, signal.size()))));
}

}  // namespace testsig

#endif

// oku vad --plot: the waveform envelope, the speech segments as bands and the
// volume meter's level coloured by its assessment, on one time axis.
#ifndef OKU_TOOL_PLOT_VAD_H
#define OKU_TOOL_PLOT_VAD_H

#include <string>
#include <vector>

#include "input.h"
#include "timeline.h"

namespace okutool {

class VadPlot {
public:
    explicit VadPlot(int rate);
    // Positions are frames at the rate the library takes the input at (the
    // input's own, or what libsoxr made of it), from the start of the input.
    void AddAudio(const Chunk& chunk, int channels, long long position);
    void AddReading(long long position, double dbfs, int assessment);
    void AddSegment(long long start, long long end);
    void Save(const std::string& path, const std::string& title, long long samples) const;

private:
    struct Meter {
        float lo = 0, hi = 0;
        int assessment = 0;  // the highest value among the bucket's readings
        bool seen = false;
        void Add(float dbfs, int a);
        void Merge(const Meter& m);
    };
    struct Speech {
        bool speech = false;
        void Merge(const Speech& s) { speech = speech || s.speech; }
    };
    int _rate;
    Timeline<EnvelopeBucket> _envelope;
    Timeline<Meter> _meter;
    Timeline<Speech> _speech;
};

}  // namespace okutool

#endif

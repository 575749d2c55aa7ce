// oku agc --plot: the captured waveform, the speech and pause levels against
// the wanted band, and the volume over time with the decisions that changed it.
#ifndef OKU_TOOL_PLOT_AGC_H
#define OKU_TOOL_PLOT_AGC_H

#include <string>
#include <vector>

#include "input.h"
#include "timeline.h"

namespace okutool {

class AgcPlot {
public:
    AgcPlot(int rate, long bound, long startVolume);
    // Positions are frames at the rate the library takes the input at (the
    // input's own, or what libsoxr made of it), from the start of the input.
    void AddAudio(const Chunk& chunk, int channels, long long position);
    // A decision: the levels it used and the volume before and after.
    void AddDecision(long long position, int control, double pauseDb, double speechDb, long before, long after);
    // band: the wanted speech level (dB of frame power), from the gain control's settings.
    void Save(const std::string& path, const std::string& title, long long samples, double bandLow,
              double bandHigh) const;

private:
    struct Change {
        int count = 0;
        int control = 0;  // the last change's control type
        long before = 0, after = 0;
        void Merge(const Change& c);
    };
    int _rate;
    long _bound;
    Timeline<EnvelopeBucket> _envelope;
    Timeline<StepBucket> _pause, _speech, _volume;
    Timeline<Change> _changes;
};

}  // namespace okutool

#endif

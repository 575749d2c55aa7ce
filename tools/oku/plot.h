// An SVG picture of one run: waveform envelope, speech segments, volume meter
// readings and (for the gain control) the volume over time.
#ifndef OKU_TOOL_PLOT_H
#define OKU_TOOL_PLOT_H

#include <string>
#include <utility>
#include <vector>

namespace okutool {

// Minimum and maximum sample of every 10 ms of audio.
class Envelope {
public:
    explicit Envelope(int rate) : _block(rate > 100 ? rate / 100 : 1) {}
    void Add(const std::vector<short>& samples);
    double StepS(int rate) const { return static_cast<double>(_block) / rate; }
    const std::vector<short>& Min() const { return _min; }
    const std::vector<short>& Max() const { return _max; }

private:
    int _block;
    int _filled = 0;
    std::vector<short> _min, _max;
};

struct PlotData {
    std::string title;
    double durationS = 0.0;
    double envelopeStepS = 0.01;
    std::vector<short> envelopeMin, envelopeMax;
    std::vector<std::pair<double, double>> segments;  // seconds
    struct Meter {
        double timeS;
        double dbfs;
        int info;  // 0 OK, 1 too noisy, 2 too soft, 3 too loud
    };
    std::vector<Meter> meters;
    // Gain control only.
    bool agc = false;
    long bound = 0;
    long startVolume = 0;
    struct Decision {
        double timeS;
        long volumeBefore, volumeAfter;
        int type;  // control type 0..5
        float pauseDb, speechDb;  // levels the decision used (dB of frame power)
    };
    std::vector<Decision> decisions;
    float lowerBound = 57.0f, upperBound = 78.0f;  // the wanted band of the speech level
};

// Writes the picture; throws std::runtime_error when the file cannot be written.
void WriteSvg(const std::string& path, const PlotData& d);

// The plot file for input `index` of `count`: FILE.svg itself for one input,
// FILE-1.svg, FILE-2.svg, ... for several.
std::string PlotPath(const std::string& pattern, int index, int count);

}  // namespace okutool

#endif

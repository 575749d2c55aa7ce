// What both plots draw the same way: the page, panels, the waveform envelope,
// step lines, the time axis and legends. The pictures are SVG text built in
// memory (bounded: every series is a Timeline) and written in one checked write.
#ifndef OKU_TOOL_SVG_H
#define OKU_TOOL_SVG_H

#include <sstream>
#include <string>

#include "input.h"
#include "timeline.h"

namespace okutool {

// A number for coordinates: one decimal.
std::string N(double x);
// Text for SVG: valid UTF-8 with <, >, & and " escaped.
std::string Escape(const std::string& s);

class Svg {
public:
    // A page of the given height with the title on top; the time axis runs from
    // 0 to durationS over the plot width; rate converts sample positions to time.
    Svg(const std::string& title, double height, double durationS, int rate);

    static constexpr double kWidth = 1000, kLeft = 70, kRight = 20;
    double PlotWidth() const { return kWidth - kLeft - kRight; }
    // The x of a time in seconds, and of a sample position.
    double X(double seconds) const;
    double XAt(long long position) const { return X(static_cast<double>(position) / _rate); }

    std::ostringstream& Out() { return _s; }

    // A framed panel with its label on the left.
    void Panel(double top, double height, const std::string& label);
    // The waveform envelope: a vertical stroke from the lowest to the highest sample of each bucket.
    void Envelope(const Timeline<EnvelopeBucket>& t, double top, double height);
    // A step line through the buckets of t; y maps a value to a coordinate.
    template <typename Y>
    void Steps(const Timeline<StepBucket>& t, const std::string& cls, const std::string& colour, Y y)
    {
        std::string d;
        for (std::size_t i = 0; i < t.Size(); ++i) {
            const StepBucket& b = t[i];
            if (!b.seen)
                continue;
            const double x = XAt(static_cast<long long>(i) * t.Span());
            d += (d.empty() ? "M" + N(x) + " " : "H" + N(x) + "V") + N(y(b.first));
            if (b.lo < b.hi)
                d += "V" + N(y(b.lo)) + "V" + N(y(b.hi));
            d += "V" + N(y(b.last));
        }
        if (!d.empty())
            _s << "<path class=\"" << cls << "\" fill=\"none\" stroke-width=\"1.5\" stroke=\"" << colour << "\" d=\""
               << d << "H" << N(kLeft + PlotWidth()) << "\"/>\n";
    }
    // Horizontal grid lines with labels at the given values.
    template <typename Y>
    void Grid(double from, double to, double step, Y y)
    {
        for (double v = from; v <= to + 1e-9; v += step)
            _s << "<line x1=\"" << kLeft << "\" x2=\"" << kLeft + PlotWidth() << "\" y1=\"" << N(y(v)) << "\" y2=\""
               << N(y(v)) << "\" stroke=\"#eee\"/><text x=\"" << kLeft + 4 << "\" y=\"" << N(y(v) - 2)
               << "\" font-size=\"9\" fill=\"#999\">" << v << "</text>\n";
    }
    // Time ticks and the axis label below y.
    void TimeAxis(double y);
    // Legend entries at (x, y): a filled box, a short line, a dot.
    void LegendBox(double x, double y, const std::string& colour, double opacity, const std::string& label);
    void LegendLine(double x, double y, const std::string& colour, const std::string& label);
    void LegendDot(double x, double y, const std::string& colour, const std::string& label);

    // The finished picture.
    std::string Text() const { return _s.str() + "</svg>\n"; }

private:
    double _durationS;
    int _rate;
    std::ostringstream _s;
};

// Adds a chunk of interleaved frames, from input frame `position` on, to an
// envelope: every channel's samples, floats at 16-bit scale (NaN as 0).
void AddEnvelope(Timeline<EnvelopeBucket>& envelope, const Chunk& chunk, int channels, long long position);

// Writes a picture to path (checked; a failure throws OutputError naming it).
void SaveSvg(const std::string& path, const Svg& svg);

}  // namespace okutool

#endif

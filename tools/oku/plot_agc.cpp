#include "plot_agc.h"

#include <algorithm>

#include "oku.h"
#include "svg.h"

namespace okutool {

namespace {

const char* const kControlColour[] = {"#888888", "#1f77b4", "#17becf", "#d62728", "#000000", "#9467bd"};

std::string Colour(int control) { return control >= 0 && control < 6 ? kControlColour[control] : "#888888"; }

std::string Spoken(const char* name)
{
    std::string s = name ? name : "?";
    std::replace(s.begin(), s.end(), '_', ' ');
    return s;
}

}  // namespace

void AgcPlot::Change::Merge(const Change& c)
{
    if (c.count == 0)
        return;
    if (count == 0)
        before = c.before;
    count += c.count;
    control = c.control;
    after = c.after;
}

AgcPlot::AgcPlot(int rate, long bound, long startVolume)
    : _rate(rate),
      _bound(bound),
      _envelope(rate / 1000),
      _pause(rate / 1000),
      _speech(rate / 1000),
      _volume(rate / 1000),
      _changes(rate / 1000)
{
    _volume.At(0).Add(static_cast<double>(startVolume));
}

void AgcPlot::AddAudio(const Chunk& chunk, int channels, long long position)
{
    AddEnvelope(_envelope, chunk, channels, position);
}

void AgcPlot::AddDecision(long long position, int control, double pauseDb, double speechDb, long before, long after)
{
    const long long p = std::max(0LL, position - 1);
    _pause.At(p).Add(pauseDb);
    _speech.At(p).Add(speechDb);
    _volume.At(p).Add(static_cast<double>(after));
    if (after != before) {
        Change c;
        c.count = 1;
        c.control = control;
        c.before = before;
        c.after = after;
        _changes.At(p).Merge(c);
    }
}

void AgcPlot::Save(const std::string& path, const std::string& title, long long samples, double bandLow,
                   double bandHigh) const
{
    const double waveTop = 40, waveH = 160, levelTop = waveTop + waveH + 30, levelH = 120;
    const double volTop = levelTop + levelH + 30, volH = 120, axisY = volTop + volH;
    Svg svg(title, axisY + 90, static_cast<double>(samples) / _rate, _rate);
    std::ostringstream& s = svg.Out();

    svg.Panel(waveTop, waveH, "audio");
    svg.Panel(levelTop, levelH, "level (dB)");
    svg.Panel(volTop, volH, "volume");
    svg.Envelope(_envelope, waveTop, waveH);

    auto L = [&](double db) { return levelTop + levelH * (1.0 - std::min(100.0, std::max(0.0, db)) / 100.0); };
    s << "<rect class=\"band\" x=\"" << Svg::kLeft << "\" y=\"" << N(L(bandHigh)) << "\" width=\""
      << svg.PlotWidth() << "\" height=\"" << N(std::max(0.0, L(bandLow) - L(bandHigh)))
      << "\" fill=\"#2e9d44\" fill-opacity=\"0.12\"/>\n";
    svg.Grid(20, 80, 20, L);
    svg.Steps(_pause, "pause-level", "#999", L);
    svg.Steps(_speech, "speech-level", "#1f77b4", L);

    const double bound = static_cast<double>(std::max(_bound, 1L));
    auto V = [&](double v) { return volTop + volH * (1.0 - v / bound); };
    svg.Steps(_volume, "volume", "#1f3f7f", V);
    for (std::size_t i = 0; i < _changes.Size(); ++i) {
        const Change& c = _changes[i];
        if (c.count == 0)
            continue;
        const double t = static_cast<double>(static_cast<long long>(i) * _changes.Span()) / _rate;
        s << "<circle class=\"decision\" cx=\"" << N(svg.X(t)) << "\" cy=\"" << N(V(static_cast<double>(c.after)))
          << "\" r=\"3\" fill=\"" << Colour(c.control) << "\"><title>" << c.count << " change"
          << (c.count > 1 ? "s" : "") << " from " << N(t) << " s, last " << Spoken(oku_agc_control_name(c.control))
          << ": " << c.before << " to " << c.after << "</title></circle>\n";
    }
    s << "<text x=\"" << Svg::kLeft - 8 << "\" y=\"" << volTop + 10 << "\" text-anchor=\"end\" font-size=\"9\">"
      << _bound << "</text><text x=\"" << Svg::kLeft - 8 << "\" y=\"" << volTop + volH
      << "\" text-anchor=\"end\" font-size=\"9\">0</text>\n";

    svg.TimeAxis(axisY);
    const double ly = axisY + 54;
    svg.LegendBox(Svg::kLeft, ly, "#2e9d44", 0.3, "wanted speech level");
    svg.LegendLine(Svg::kLeft + 150, ly, "#1f77b4", "speech level");
    svg.LegendLine(Svg::kLeft + 260, ly, "#999", "pause level");
    for (int c = 1; c < 6; ++c)
        svg.LegendDot(Svg::kLeft + 110 * (c - 1), ly + 20, Colour(c), Spoken(oku_agc_control_name(c)));
    SaveSvg(path, svg);
}

}  // namespace okutool

#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "output.h"
#include "text.h"

namespace okutool {

namespace {

// A "nice" tick step for a span shown over about `ticks` intervals.
double TickStep(double span, int ticks)
{
    const double raw = span / ticks;
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (raw <= m * magnitude)
            return m * magnitude;
    return 10.0 * magnitude;
}

}  // namespace

std::string N(double x)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", x);
    return buf;
}

std::string Escape(const std::string& s)
{
    std::string out;
    for (char c : ValidUtf8(s)) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else if (static_cast<unsigned char>(c) >= 0x20 || c == '\t')
            out += c;
    }
    return out;
}

Svg::Svg(const std::string& title, double height, double durationS, int rate)
    : _durationS(std::max(durationS, 1e-3)), _rate(rate)
{
    _s << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
       << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << height
       << "\" viewBox=\"0 0 " << kWidth << " " << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
       << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
       << "<text x=\"" << kLeft << "\" y=\"22\" font-size=\"15\" font-weight=\"bold\">" << Escape(title)
       << "</text>\n";
}

double Svg::X(double seconds) const
{
    return kLeft + PlotWidth() * std::min(std::max(seconds / _durationS, 0.0), 1.0);
}

void Svg::Panel(double top, double height, const std::string& label)
{
    _s << "<rect x=\"" << kLeft << "\" y=\"" << top << "\" width=\"" << PlotWidth() << "\" height=\"" << height
       << "\" fill=\"none\" stroke=\"#999\"/>\n"
       << "<text x=\"" << kLeft - 8 << "\" y=\"" << top + height / 2 << "\" text-anchor=\"end\" "
       << "dominant-baseline=\"middle\">" << Escape(label) << "</text>\n";
}

void Svg::Envelope(const Timeline<EnvelopeBucket>& t, double top, double height)
{
    const double mid = top + height / 2, scale = height / 2 / 32768.0;
    std::string d;
    for (std::size_t i = 0; i < t.Size(); ++i) {
        if (!t[i].seen)
            continue;
        const double x = XAt(static_cast<long long>(i) * t.Span());
        d += "M" + N(x) + " " + N(mid - t[i].hi * scale) + "V" + N(mid - t[i].lo * scale + 0.5);
    }
    if (!d.empty())
        _s << "<path class=\"envelope\" stroke=\"#335\" stroke-width=\"1\" fill=\"none\" d=\"" << d << "\"/>\n";
}

void AddEnvelope(Timeline<EnvelopeBucket>& envelope, const Chunk& chunk, int channels, long long position)
{
    const std::size_t c = static_cast<std::size_t>(channels);
    for (std::size_t f = 0; f < chunk.frames; ++f) {
        EnvelopeBucket& b = envelope.At(position + static_cast<long long>(f));
        for (std::size_t i = f * c; i < (f + 1) * c; ++i) {
            if (chunk.shorts) {
                b.Add(chunk.shorts[i]);
            } else {
                const float x = std::isnan(chunk.floats[i]) ? 0.0f : chunk.floats[i] * 32768.0f;
                b.Add(static_cast<short>(std::max(-32768.0f, std::min(32767.0f, x))));
            }
        }
    }
}

void Svg::TimeAxis(double y)
{
    const double step = TickStep(_durationS, 10);
    for (int k = 0; k * step <= _durationS + 1e-9; ++k) {
        const double t = k * step;
        _s << "<line x1=\"" << N(X(t)) << "\" x2=\"" << N(X(t)) << "\" y1=\"" << y << "\" y2=\"" << y + 5
           << "\" stroke=\"#333\"/><text x=\"" << N(X(t)) << "\" y=\"" << y + 18 << "\" text-anchor=\"middle\">"
           << Num(t) << "</text>\n";
    }
    _s << "<text x=\"" << kLeft + PlotWidth() / 2 << "\" y=\"" << y + 34
       << "\" text-anchor=\"middle\">time (s)</text>\n";
}

void Svg::LegendBox(double x, double y, const std::string& colour, double opacity, const std::string& label)
{
    _s << "<rect x=\"" << x << "\" y=\"" << y - 9 << "\" width=\"14\" height=\"10\" fill=\"" << colour
       << "\" fill-opacity=\"" << opacity << "\"/><text x=\"" << x + 18 << "\" y=\"" << y << "\">" << Escape(label)
       << "</text>\n";
}

void Svg::LegendLine(double x, double y, const std::string& colour, const std::string& label)
{
    _s << "<rect x=\"" << x << "\" y=\"" << y - 6 << "\" width=\"14\" height=\"3\" fill=\"" << colour
       << "\"/><text x=\"" << x + 18 << "\" y=\"" << y << "\">" << Escape(label) << "</text>\n";
}

void Svg::LegendDot(double x, double y, const std::string& colour, const std::string& label)
{
    _s << "<circle cx=\"" << x + 6 << "\" cy=\"" << y - 4 << "\" r=\"4\" fill=\"" << colour << "\"/><text x=\""
       << x + 14 << "\" y=\"" << y << "\">" << Escape(label) << "</text>\n";
}

void SaveSvg(const std::string& path, const Svg& svg)
{
    OutFile file(path);
    file.Write(svg.Text());
    file.Close();
}

}  // namespace okutool

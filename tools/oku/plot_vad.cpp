#include "plot_vad.h"

#include <algorithm>

#include "oku.h"
#include "svg.h"

namespace okutool {

namespace {

const char* const kAssessmentColour[] = {"#2e9d44", "#e08a00", "#7b4fd0", "#d62728"};

// A library name for people: "too_noisy" as "too noisy".
std::string Spoken(const char* name)
{
    std::string s = name ? name : "?";
    std::replace(s.begin(), s.end(), '_', ' ');
    return s;
}

}  // namespace

void VadPlot::Meter::Add(float dbfs, int a)
{
    lo = seen ? std::min(lo, dbfs) : dbfs;
    hi = seen ? std::max(hi, dbfs) : dbfs;
    assessment = seen ? std::max(assessment, a) : a;
    seen = true;
}

void VadPlot::Meter::Merge(const Meter& m)
{
    if (m.seen) {
        Add(m.lo, m.assessment);
        Add(m.hi, m.assessment);
    }
}

VadPlot::VadPlot(int rate) : _rate(rate), _envelope(rate / 1000), _meter(rate / 1000), _speech(rate / 1000) {}

void VadPlot::AddAudio(const Chunk& chunk, int channels, long long position)
{
    AddEnvelope(_envelope, chunk, channels, position);
}

void VadPlot::AddReading(long long position, double dbfs, int assessment)
{
    _meter.At(std::max(0LL, position - 1)).Add(static_cast<float>(dbfs), std::min(std::max(assessment, 0), 3));
}

void VadPlot::AddSegment(long long start, long long end)
{
    _speech.Cover(start, end, [](Speech& s) { s.speech = true; });
}

void VadPlot::Save(const std::string& path, const std::string& title, long long samples) const
{
    const double waveTop = 40, waveH = 160, meterTop = waveTop + waveH + 30, meterH = 120;
    const double axisY = meterTop + meterH;
    Svg svg(title, axisY + 70, static_cast<double>(samples) / _rate, _rate);
    std::ostringstream& s = svg.Out();

    // Speech: one band across both panels per run of buckets in speech.
    for (std::size_t i = 0; i < _speech.Size();) {
        if (!_speech[i].speech) {
            ++i;
            continue;
        }
        std::size_t j = i;
        while (j < _speech.Size() && _speech[j].speech)
            ++j;
        const long long from = static_cast<long long>(i) * _speech.Span();
        const long long to = std::min(samples, static_cast<long long>(j) * _speech.Span());
        s << "<rect class=\"segment\" x=\"" << N(svg.XAt(from)) << "\" y=\"" << waveTop << "\" width=\""
          << N(std::max(1.0, svg.XAt(to) - svg.XAt(from))) << "\" height=\"" << axisY - waveTop
          << "\" fill=\"#4a90d9\" fill-opacity=\"0.15\"><title>speech " << N(static_cast<double>(from) / _rate)
          << " s to " << N(static_cast<double>(to) / _rate) << " s</title></rect>\n";
        i = j;
    }

    svg.Panel(waveTop, waveH, "audio");
    svg.Panel(meterTop, meterH, "dBFS");
    svg.Envelope(_envelope, waveTop, waveH);

    // The meter: per bucket a bar over the range of its readings' levels,
    // reaching to the next reading, coloured by the bucket's assessment.
    auto y = [&](double dbfs) { return meterTop + meterH * std::min(1.0, std::max(0.0, -dbfs / 90.0)); };
    svg.Grid(-80, 0, 20, y);
    std::vector<std::size_t> seen;
    for (std::size_t i = 0; i < _meter.Size(); ++i)
        if (_meter[i].seen)
            seen.push_back(i);
    std::string d[4];
    for (std::size_t k = 0; k < seen.size(); ++k) {
        const Meter& m = _meter[seen[k]];
        const std::size_t next = k + 1 < seen.size() ? seen[k + 1] : seen[k] + 1;
        const double x0 = svg.XAt(static_cast<long long>(seen[k]) * _meter.Span());
        const double x1 = std::max(svg.XAt(static_cast<long long>(next) * _meter.Span()), x0 + 0.5);
        d[m.assessment] += "M" + N(x0) + " " + N(y(m.hi) - 1) + "H" + N(x1) + "V" + N(y(m.lo) + 1) + "H" + N(x0) + "Z";
    }
    for (int a = 0; a < 4; ++a)
        if (!d[a].empty())
            s << "<path class=\"meter\" data-assessment=\"" << oku_assessment_name(a) << "\" fill=\""
              << kAssessmentColour[a] << "\" d=\"" << d[a] << "\"/>\n";

    svg.TimeAxis(axisY);
    const double ly = axisY + 54;
    svg.LegendBox(Svg::kLeft, ly, "#4a90d9", 0.3, "speech");
    for (int a = 0; a < 4; ++a)
        svg.LegendLine(Svg::kLeft + 80 + 95 * a, ly, kAssessmentColour[a], Spoken(oku_assessment_name(a)));
    SaveSvg(path, svg);
}

}  // namespace okutool

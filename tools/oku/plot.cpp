#include "plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace okutool {

void Envelope::Add(const std::vector<short>& samples)
{
    for (short s : samples) {
        if (_filled == 0) {
            _min.push_back(s);
            _max.push_back(s);
        } else {
            _min.back() = std::min(_min.back(), s);
            _max.back() = std::max(_max.back(), s);
        }
        _filled = (_filled + 1) % _block;
    }
}

std::string PlotPath(const std::string& pattern, int index, int count)
{
    if (count <= 1)
        return pattern;
    const std::string::size_type dot = pattern.rfind('.');
    const std::string::size_type slash = pattern.rfind('/');
    const bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    const std::string suffix = "-" + std::to_string(index + 1);
    return hasExtension ? pattern.substr(0, dot) + suffix + pattern.substr(dot) : pattern + suffix;
}

namespace {

const char* const kAssessmentColour[] = {"#2e9d44", "#e08a00", "#7b4fd0", "#d62728"};
const char* const kAssessmentName[] = {"OK", "too noisy", "too soft", "too loud"};
const char* const kControlColour[] = {"#888888", "#1f77b4", "#17becf", "#d62728", "#000000", "#9467bd"};
const char* const kControlName[] = {"unchanged", "pause too low", "speech too low", "speech too high",
                                    "operating limit", "gain estimate"};

std::string Escape(const std::string& s)
{
    std::string out;
    for (char c : s) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

std::string Num(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", v);
    return buf;
}

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

void WriteSvg(const std::string& path, const PlotData& d)
{
    const double width = 1000, left = 70, right = 20, plotW = width - left - right;
    const double waveTop = 40, waveH = 160, meterTop = waveTop + waveH + 30, meterH = 120;
    const double volTop = meterTop + meterH + 30, volH = d.agc ? 120 : 0;
    const double axisY = (d.agc ? volTop + volH : meterTop + meterH);
    const double height = axisY + (d.agc ? 90 : 70);
    const double duration = std::max(d.durationS, 1e-3);
    auto X = [&](double t) { return left + plotW * std::min(std::max(t / duration, 0.0), 1.0); };

    std::ostringstream s;
    s << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << height
      << "\" viewBox=\"0 0 " << width << " " << height << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << left << "\" y=\"22\" font-size=\"15\" font-weight=\"bold\">" << Escape(d.title) << "</text>\n";

    // Speech segments: shaded bands across every panel.
    const double bandBottom = axisY;
    for (const auto& seg : d.segments)
        s << "<rect class=\"segment\" x=\"" << Num(X(seg.first)) << "\" y=\"" << waveTop << "\" width=\""
          << Num(std::max(1.0, X(seg.second) - X(seg.first))) << "\" height=\"" << bandBottom - waveTop
          << "\" fill=\"#4a90d9\" fill-opacity=\"0.15\"><title>speech " << Num(seg.first) << " s to "
          << Num(seg.second) << " s</title></rect>\n";

    // Panel frames and labels.
    auto panel = [&](double top, double h, const std::string& label) {
        s << "<rect x=\"" << left << "\" y=\"" << top << "\" width=\"" << plotW << "\" height=\"" << h
          << "\" fill=\"none\" stroke=\"#999\"/>\n"
          << "<text x=\"" << left - 8 << "\" y=\"" << top + h / 2 << "\" text-anchor=\"end\" "
          << "dominant-baseline=\"middle\">" << label << "</text>\n";
    };
    panel(waveTop, waveH, "audio");
    panel(meterTop, meterH, d.agc ? "level (dB)" : "dBFS");
    if (d.agc)
        panel(volTop, volH, "volume");

    // Waveform envelope: one vertical line per pixel column.
    if (!d.envelopeMin.empty()) {
        const std::size_t n = d.envelopeMin.size();
        const int columns = static_cast<int>(plotW);
        s << "<path class=\"envelope\" stroke=\"#335\" stroke-width=\"1\" fill=\"none\" d=\"";
        for (int c = 0; c < columns; ++c) {
            const std::size_t from = static_cast<std::size_t>(static_cast<double>(c) / columns * n);
            const std::size_t to = std::max(from + 1, static_cast<std::size_t>(static_cast<double>(c + 1) / columns * n));
            if (from >= n)
                break;
            short lo = d.envelopeMin[from], hi = d.envelopeMax[from];
            for (std::size_t i = from; i < std::min(to, n); ++i) {
                lo = std::min(lo, d.envelopeMin[i]);
                hi = std::max(hi, d.envelopeMax[i]);
            }
            const double mid = waveTop + waveH / 2, scale = waveH / 2 / 32768.0;
            s << "M" << Num(left + c + 0.5) << " " << Num(mid - hi * scale) << "V" << Num(mid - lo * scale + 0.5);
        }
        s << "\"/>\n";
    }

    if (!d.agc) {
        // Volume meter: level in dBFS from -90 to 0, one short segment per reading, coloured by assessment.
        for (int db = -80; db <= 0; db += 20) {
            const double y = meterTop + meterH * (-db / 90.0);
            s << "<line x1=\"" << left << "\" x2=\"" << left + plotW << "\" y1=\"" << Num(y) << "\" y2=\"" << Num(y)
              << "\" stroke=\"#eee\"/><text x=\"" << left + 4 << "\" y=\"" << Num(y - 2)
              << "\" font-size=\"9\" fill=\"#999\">" << db << "</text>\n";
        }
        for (std::size_t i = 0; i < d.meters.size(); ++i) {
            const auto& m = d.meters[i];
            const double x0 = i == 0 ? X(0) : X(d.meters[i - 1].timeS);
            const double y = meterTop + meterH * std::min(1.0, std::max(0.0, -m.dbfs / 90.0));
            s << "<line class=\"meter\" x1=\"" << Num(x0) << "\" x2=\"" << Num(std::max(X(m.timeS), x0 + 0.5))
              << "\" y1=\"" << Num(y) << "\" y2=\"" << Num(y) << "\" stroke=\"" << kAssessmentColour[m.info & 3]
              << "\" stroke-width=\"3\"/>\n";
        }
    } else {
        // Gain control levels, 0 to 100 dB: the wanted band of the speech level
        // shaded, the speech and pause levels of every decision as step lines.
        auto L = [&](double db) { return meterTop + meterH * (1.0 - std::min(100.0, std::max(0.0, db)) / 100.0); };
        s << "<rect x=\"" << left << "\" y=\"" << Num(L(d.upperBound)) << "\" width=\"" << plotW << "\" height=\""
          << Num(L(d.lowerBound) - L(d.upperBound)) << "\" fill=\"#2e9d44\" fill-opacity=\"0.12\"/>\n";
        for (int db = 20; db <= 80; db += 20)
            s << "<text x=\"" << left + 4 << "\" y=\"" << Num(L(db) - 2) << "\" font-size=\"9\" fill=\"#999\">" << db
              << "</text>\n";
        for (int which = 0; which < 2; ++which) {
            if (d.decisions.empty())
                break;
            s << "<path class=\"" << (which ? "speech-level" : "pause-level") << "\" fill=\"none\" stroke-width=\"1.5\" "
              << "stroke=\"" << (which ? "#1f77b4" : "#999") << "\" d=\"";
            double x = X(0);
            for (std::size_t i = 0; i < d.decisions.size(); ++i) {
                const double y = L(which ? d.decisions[i].speechDb : d.decisions[i].pauseDb);
                s << (i == 0 ? "M" : "L") << Num(x) << " " << Num(y) << "H" << Num(X(d.decisions[i].timeS));
                x = X(d.decisions[i].timeS);
            }
            s << "\"/>\n";
        }
    }

    // Gain control: the volume as a step line, decisions that changed it marked.
    if (d.agc) {
        const double bound = std::max<long>(d.bound, 1);
        auto Y = [&](long v) { return volTop + volH * (1.0 - v / bound); };
        s << "<path class=\"volume\" stroke=\"#1f3f7f\" stroke-width=\"1.5\" fill=\"none\" d=\"M" << Num(X(0)) << " "
          << Num(Y(d.startVolume));
        for (const auto& dec : d.decisions)
            s << "H" << Num(X(dec.timeS)) << "V" << Num(Y(dec.volumeAfter));
        s << "H" << Num(X(duration)) << "\"/>\n";
        for (const auto& dec : d.decisions) {
            if (dec.volumeAfter == dec.volumeBefore)
                continue;
            s << "<circle class=\"decision\" cx=\"" << Num(X(dec.timeS)) << "\" cy=\"" << Num(Y(dec.volumeAfter))
              << "\" r=\"3\" fill=\"" << kControlColour[dec.type % 6] << "\"><title>" << kControlName[dec.type % 6]
              << " at " << Num(dec.timeS) << " s: " << dec.volumeBefore << " to " << dec.volumeAfter
              << "</title></circle>\n";
        }
        s << "<text x=\"" << left - 8 << "\" y=\"" << volTop + 10 << "\" text-anchor=\"end\" font-size=\"9\">"
          << d.bound << "</text><text x=\"" << left - 8 << "\" y=\"" << volTop + volH << "\" text-anchor=\"end\" "
          << "font-size=\"9\">0</text>\n";
    }

    // Time axis.
    const double step = TickStep(duration, 10);
    for (double t = 0; t <= duration + 1e-9; t += step)
        s << "<line x1=\"" << Num(X(t)) << "\" x2=\"" << Num(X(t)) << "\" y1=\"" << axisY << "\" y2=\"" << axisY + 5
          << "\" stroke=\"#333\"/><text x=\"" << Num(X(t)) << "\" y=\"" << axisY + 18
          << "\" text-anchor=\"middle\">" << t << "</text>\n";
    s << "<text x=\"" << left + plotW / 2 << "\" y=\"" << axisY + 34 << "\" text-anchor=\"middle\">time (s)</text>\n";

    // Legend.
    double lx = left;
    const double ly = axisY + 54;
    if (!d.agc) {
        s << "<rect x=\"" << lx << "\" y=\"" << ly - 9 << "\" width=\"14\" height=\"10\" fill=\"#4a90d9\" "
          << "fill-opacity=\"0.3\"/><text x=\"" << lx + 18 << "\" y=\"" << ly << "\">speech</text>\n";
        lx += 80;
    } else {
        s << "<rect x=\"" << lx << "\" y=\"" << ly - 9 << "\" width=\"14\" height=\"10\" fill=\"#2e9d44\" "
          << "fill-opacity=\"0.3\"/><text x=\"" << lx + 18 << "\" y=\"" << ly << "\">wanted speech level</text>\n"
          << "<rect x=\"" << lx + 150 << "\" y=\"" << ly - 6 << "\" width=\"14\" height=\"3\" fill=\"#1f77b4\"/>"
          << "<text x=\"" << lx + 168 << "\" y=\"" << ly << "\">speech level</text>\n"
          << "<rect x=\"" << lx + 260 << "\" y=\"" << ly - 6 << "\" width=\"14\" height=\"3\" fill=\"#999\"/>"
          << "<text x=\"" << lx + 278 << "\" y=\"" << ly << "\">pause level</text>\n";
        lx = left;
    }
    const double ly2 = d.agc ? ly + 20 : ly;
    for (int i = 0; !d.agc && i < 4; ++i, lx += 95)
        s << "<rect x=\"" << lx << "\" y=\"" << ly2 - 6 << "\" width=\"14\" height=\"4\" fill=\""
          << kAssessmentColour[i] << "\"/><text x=\"" << lx + 18 << "\" y=\"" << ly2 << "\">" << kAssessmentName[i]
          << "</text>\n";
    if (d.agc)
        for (int i = 1; i < 5; ++i, lx += 110)
            s << "<circle cx=\"" << lx + 6 << "\" cy=\"" << ly2 - 4 << "\" r=\"4\" fill=\"" << kControlColour[i]
              << "\"/><text x=\"" << lx + 14 << "\" y=\"" << ly2 << "\">" << kControlName[i] << "</text>\n";
    s << "</svg>\n";

    std::ofstream f(path);
    f << s.str();
    if (!f)
        throw std::runtime_error("cannot write " + path);
}

}  // namespace okutool

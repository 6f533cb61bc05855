#pragma once
// Figures gathered in alternating rounds, and the table and machine-readable lines printed
// from them.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

namespace duvo::bench {

inline double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0.0;
    std::sort(values.begin(), values.end());
    const double rank = p * static_cast<double>(values.size() - 1);
    const auto low = static_cast<std::size_t>(rank);
    const std::size_t high = std::min(low + 1, values.size() - 1);
    return values[low] + (rank - static_cast<double>(low)) * (values[high] - values[low]);
}

inline double median(const std::vector<double>& values) { return percentile(values, 0.5); }

/// This process's resident memory, in bytes.
inline double residentBytes() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// One row of the table. Rates are better high; times and sizes better low. The ratio always
/// reads "ours relative to raw, 1.0 = the same, higher = better for us".
struct Figure {
    std::string name;
    std::string unit; // "/s", "us", "ms", "B"
    bool higherIsBetter = true;
    double target = 0.0; // 0: no target
    std::vector<double> ours;
    std::vector<double> raw;
    double oursValue = -1; // set directly where the figure is not a median of rounds (percentiles)
    double rawValue = -1;

    double ourFigure() const { return oursValue >= 0 ? oursValue : median(ours); }
    double rawFigure() const { return rawValue >= 0 ? rawValue : median(raw); }
    double ratio() const {
        const double o = ourFigure(), r = rawFigure();
        if (o <= 0 || r <= 0) return 0.0;
        return higherIsBetter ? o / r : r / o;
    }
    /// The lowest and highest ratio of a round (ours and raw measured back to back).
    std::pair<double, double> roundRange() const {
        std::vector<double> ratios;
        for (std::size_t i = 0; i < std::min(ours.size(), raw.size()); ++i)
            if (ours[i] > 0 && raw[i] > 0) ratios.push_back(higherIsBetter ? ours[i] / raw[i] : raw[i] / ours[i]);
        if (ratios.empty()) return {0.0, 0.0};
        const auto [lo, hi] = std::minmax_element(ratios.begin(), ratios.end());
        return {*lo, *hi};
    }
};

inline std::string formatValue(double v, const std::string& unit) {
    char text[64];
    if (unit == "/s" || unit == "B" || v >= 100)
        std::snprintf(text, sizeof text, "%.0f%s", v, unit.c_str());
    else
        std::snprintf(text, sizeof text, "%.1f%s", v, unit.c_str());
    return text;
}

inline void printTable(const std::vector<Figure>& figures) {
    std::printf("\n%-30s %14s %14s %7s %8s %13s\n", "operation", "ours", "raw", "ratio", "target", "round ratios");
    for (const Figure& f : figures) {
        const auto [lo, hi] = f.roundRange();
        char target[16] = "-";
        if (f.target > 0) std::snprintf(target, sizeof target, "%.2f", f.target);
        char range[32] = "-";
        if (hi > 0) std::snprintf(range, sizeof range, "%.2f-%.2f", lo, hi);
        std::printf("%-30s %14s %14s %7.2f %8s %13s\n", f.name.c_str(), formatValue(f.ourFigure(), f.unit).c_str(),
                    formatValue(f.rawFigure(), f.unit).c_str(), f.ratio(), target, range);
    }
    std::printf("\n");
    for (const Figure& f : figures)
        std::printf("bench %s ours=%s raw=%s ratio=%.2f\n", f.name.c_str(), formatValue(f.ourFigure(), f.unit).c_str(),
                    formatValue(f.rawFigure(), f.unit).c_str(), f.ratio());
    std::fflush(stdout);
}

} // namespace duvo::bench

#include "table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

// Three digits, or all before the point: 6.13, 61.3, 613, 6130.
std::string Figure(double value)
{
    char text[32];
    const int decimals = value >= 100 || value == std::floor(value) ? 0 : value >= 10 ? 1 : 2;
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string Figure(const std::optional<double> &value, const char *none)
{
    return value ? Figure(*value) : none;
}

} // namespace

double Percentile(std::vector<double> values, double percent)
{
    if (values.empty()) return 0;
    const auto at = std::min(values.size() - 1,
                             static_cast<std::size_t>(static_cast<double>(values.size()) * percent / 100));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return values[at];
}

double Median(std::vector<double> values) { return Percentile(std::move(values), 50); }

double Pairs::Ratio() const
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(keld.size(), floor.size()); ++i)
        ratios.push_back(keld[i] / floor[i]);
    return Median(std::move(ratios));
}

Row MakeRow(std::string what, std::string unit, const Pairs &pairs, Expected expected)
{
    Row row{std::move(what), std::move(unit), Median(pairs.keld), {}, {}, "", true};
    if (!pairs.floor.empty()) {
        row.floor = Median(pairs.floor);
        if (*row.floor > 0) row.ratio = pairs.Ratio();
    }
    if (expected.of == Expected::Of::Ratio) {
        row.expected = "ratio <= " + Figure(expected.atMost);
        row.met = row.ratio && *row.ratio <= expected.atMost;
    } else if (expected.of == Expected::Of::Figure) {
        row.expected = "<= " + Figure(expected.atMost);
        row.met = row.keld <= expected.atMost;
    }
    return row;
}

void PrintTable(const std::vector<Group> &groups)
{
    const char *const header = "%-48s %-5s %9s %9s %6s  %s\n";
    for (const Group &group : groups) {
        std::printf(header, group.title.c_str(), "", "keld", "floor", "ratio", "expected");
        for (const Row &row : group.rows) {
            char ratio[16] = "";
            if (row.ratio) std::snprintf(ratio, sizeof ratio, "%.2f", *row.ratio);
            std::printf(header, row.what.c_str(), row.unit.c_str(), Figure(row.keld).c_str(),
                        Figure(row.floor, "").c_str(), ratio,
                        (row.expected + (row.met ? "" : "  MISSED")).c_str());
        }
        std::printf("\n");
    }
}

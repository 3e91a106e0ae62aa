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

std::string Ratio(const std::optional<double> &ratio)
{
    char text[16] = "";
    if (ratio) std::snprintf(text, sizeof text, "%.2f", *ratio);
    return text;
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

namespace {

void Compare(const std::vector<double> &keld, const std::vector<double> &other,
             std::optional<double> *figure, std::optional<double> *ratio)
{
    if (other.empty()) return;
    *figure = Median(other);
    if (**figure <= 0) return;
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(keld.size(), other.size()); ++i)
        ratios.push_back(keld[i] / other[i]);
    *ratio = Median(std::move(ratios));
}

} // namespace

Row MakeRow(std::string what, std::string unit, const Figures &figures, Expected expected)
{
    Row row;
    row.what = std::move(what);
    row.unit = std::move(unit);
    row.keld = Median(figures.keld);
    Compare(figures.keld, figures.shape, &row.shape, &row.ratio);
    Compare(figures.keld, figures.floor, &row.floor, &row.toFloor);
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
    const char *const header = "%-50s %-5s %9s %9s %6s %9s %6s  %s\n";
    for (const Group &group : groups) {
        std::printf(header, group.title.c_str(), "", "keld", "shape", "ratio", "floor", "ratio",
                    "expected");
        for (const Row &row : group.rows)
            std::printf(header, row.what.c_str(), row.unit.c_str(), Figure(row.keld).c_str(),
                        Figure(row.shape, "").c_str(), Ratio(row.ratio).c_str(),
                        Figure(row.floor, "").c_str(), Ratio(row.toFloor).c_str(),
                        (row.expected + (row.met ? "" : "  MISSED")).c_str());
        std::printf("\n");
    }
}

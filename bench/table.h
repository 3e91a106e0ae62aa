// The one table: each figure beside its floor.
#ifndef BENCH_TABLE_H
#define BENCH_TABLE_H

#include <optional>
#include <string>
#include <vector>

double Median(std::vector<double> values);
double Percentile(std::vector<double> values, double percent);

// A figure of the daemon and of its floor, taken in turns: as many of each.
struct Pairs {
    std::vector<double> keld, floor;

    // The median of the ratios of what was taken one after the other: a machine that is busy for a while
    // is busy for both.
    double Ratio() const;
};

struct Row {
    std::string what, unit;
    double keld = 0;
    std::optional<double> floor, ratio;
    std::string expected; // "ratio <= 1.25", for people; met says whether it is
    bool met = true;
};

// What is expected of a row: nothing, at most so much of the ratio, or of the daemon's own figure.
struct Expected {
    enum class Of { Nothing, Ratio, Figure } of = Of::Nothing;
    double atMost = 0;
};

Row MakeRow(std::string what, std::string unit, const Pairs &pairs, Expected expected = {});

// The rows, each group of them under its title.
struct Group {
    std::string title;
    std::vector<Row> rows;
};
void PrintTable(const std::vector<Group> &groups);

#endif

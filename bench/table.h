// The one table: each figure beside what it is measured against.
#ifndef BENCH_TABLE_H
#define BENCH_TABLE_H

#include <optional>
#include <string>
#include <vector>

double Median(std::vector<double> values);
double Percentile(std::vector<double> values, double percent);

// A figure of the daemon, of what its shape costs at least and of the floor, taken in turns: as many of
// each.
struct Figures {
    std::vector<double> keld, shape, floor;
};

struct Row {
    std::string what, unit;
    double keld = 0;
    std::optional<double> shape, floor;
    std::optional<double> ratio, toFloor; // of the daemon's to the shape's and to the floor's
    std::string expected;                 // "ratio <= 0.45", for people; met says whether it is
    bool met = true;
};

// What is expected of a row: nothing, at most so much of the ratio, or of the daemon's own figure.
struct Expected {
    enum class Of { Nothing, Ratio, Figure } of = Of::Nothing;
    double atMost = 0;
};

// A ratio is the median of the ratios of what was taken one after the other: a machine that is busy for a
// while is busy for all.
Row MakeRow(std::string what, std::string unit, const Figures &figures, Expected expected = {});

// The rows, each group of them under its title.
struct Group {
    std::string title;
    std::vector<Row> rows;
};
void PrintTable(const std::vector<Group> &groups);

#endif

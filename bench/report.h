// What the benchmark found out, as Markdown tables and as JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/counters.h"
#include "bench/measure.h"

namespace bench {

/// What a ratio must come to.
struct Target {
    double bound;
    bool atMost;  ///< else at least
};

struct Figure {
    std::string name;
    std::string unit;
    double value = 0;
    std::optional<double> floor = {};
    std::optional<double> ratio = {};
    std::optional<Target> target = {};
};

/// What a call asked for beside what its contract demands.
struct CountFigure {
    std::string name;
    Counts found;
    Counts demanded;

    /// Allocations are demanded by nobody: as many as are written down, or fewer. All other counts are exact.
    bool isMet() const;
    /// "level checks 5, library calls 1, ..." with what is demanded behind each that differs.
    std::string text() const;
};

class Report {
public:
    /// What is added after this stands in a table under that heading.
    void section(const std::string& title);
    void add(const Figure& figure);
    /// A time in microseconds beside its floor.
    void add(const std::string& name, const Timing& timing, std::optional<Target> target = {});
    /// A throughput in MB/s beside its floor.
    void addThroughput(const std::string& name, double bytes, const Timing& timing, std::optional<Target> target = {});
    void add(const CountFigure& counts);

    /// No count off, and no target missed but for the known ones.
    bool isMet() const { return met; }
    void print() const;
    /// False when the file cannot be written.
    bool writeJson(const std::string& file) const;

private:
    struct Field {
        const char* title;
        std::string text;
        std::string json;
    };
    using Row = std::vector<Field>;
    struct Section {
        std::string title;
        std::vector<Row> rows;
    };

    static void printTable(const std::vector<Row>& rows);

    std::vector<Section> sections;
    bool met = true;
};

}  // namespace bench

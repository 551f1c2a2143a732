// bench [--quick] [--json FILE] [SECTION...]: measures the sections named, or all; the code is 1 when a count is off,
// or a target is missed that is not known to be. bench --counts: one line for each call, "ok" when it asks for no more
// and no less than its contract demands, and allocates no more than written down.
#include <algorithm>
#include <exception>
#include <iostream>
#include <string_view>

#include "bench/sections.h"

namespace {

using bench::Report;

struct Section {
    std::string_view name;
    void (*measure)(Report& report);
};
constexpr Section SECTIONS[] = {
    {"calls", bench::measureCalls},           {"growth", bench::measureGrowth},
    {"threads", bench::measureThreads},       {"token", bench::measureSoftToken},
    {"throughput", bench::measureThroughput}, {"level", bench::measureLevelCheck},
    {"footprint", bench::measureFootprint},
};

int printCounts() {
    const std::vector<bench::CountFigure> figures = bench::countCalls();
    for (const bench::CountFigure& figure : figures) {
        std::cout << (figure.isMet() ? "ok " : "not ok ") << figure.name << ": " << figure.text() << "\n";
    }
    return std::ranges::all_of(figures, &bench::CountFigure::isMet) ? 0 : 1;
}

int run(const std::vector<std::string_view>& arguments) {
    std::string json;
    std::vector<Section> wanted;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const auto* const section = std::ranges::find(SECTIONS, arguments[i], &Section::name);
        if (arguments[i] == "--counts") {
            return printCounts();
        }
        if (arguments[i] == "--role" && i + 1 < arguments.size()) {
            return bench::playRole(arguments[i + 1]);
        }
        if (arguments[i] == "--quick") {
            bench::measureQuickly();
        } else if (arguments[i] == "--json" && i + 1 < arguments.size()) {
            json = arguments[++i];
        } else if (section != std::end(SECTIONS)) {
            wanted.push_back(*section);
        } else {
            std::cerr << "bench: " << arguments[i] << " is neither an option nor a section\n";
            return 2;
        }
    }
    Report report;
    for (const Section& section : wanted.empty() ? std::vector(std::begin(SECTIONS), std::end(SECTIONS)) : wanted) {
        section.measure(report);
    }
    report.print();
    if (!json.empty() && !report.writeJson(json)) {
        std::cerr << "bench: cannot write " << json << "\n";
        return 2;
    }
    return report.isMet() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run({argv + 1, argv + argc});
    } catch (const std::exception& failure) {
        std::cerr << "bench: " << failure.what() << "\n";
        return 2;
    }
}

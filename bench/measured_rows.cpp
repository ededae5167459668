#include "measured_rows.h"

#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

namespace tolvane::bench {
namespace {

constexpr int kRepetitions = 21;
constexpr double kSecondsEach = 0.01;

std::vector<CostRow> costs;
std::vector<RatioRow> ratios;
std::vector<BareCall> bareCalls;

// Nanoseconds of processor time per turn, run by run, by name of the benchmark.
std::map<std::string, std::vector<double>> times;

void nothing() {}

// Names of the sides' benchmarks.
template <typename Row>
std::string oursOf(const Row& row) {
    return row.name + "/ours";
}
std::string baselineOf(const CostRow& row) {
    return row.name + "/baseline";
}
std::string otherOf(const RatioRow& row, const Other& other) {
    return row.name + "/" + other.name;
}

class Collector : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            if (run.error_occurred) fail(run.error_message);
            times[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
        }
    }
};

void registerSide(const std::string& name, Turn prepare, Turn turn) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [prepare, turn](benchmark::State& state) {
                                     prepare();
                                     for (auto _ : state) turn();
                                 })
        ->Repetitions(kRepetitions)
        ->MinTime(kSecondsEach);
}

// The median of some values and the two that half of them lie between.
struct Figure {
    double median;
    double low;
    double high;
};

Figure figureOf(std::vector<double> values) {
    if (values.empty()) fail("a benchmark did not run");
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return {values[n / 2], values[n / 4], values[n - 1 - n / 4]};
}

// Of each pair of runs of two benchmarks.
template <typename Combine>
Figure figureOfPairs(const std::string& a, const std::string& b, Combine combine) {
    std::vector<double> values;
    const std::size_t pairs = std::min(times[a].size(), times[b].size());
    for (std::size_t i = 0; i < pairs; ++i) values.push_back(combine(times[a][i], times[b][i]));
    return figureOf(values);
}

void print(const std::string& section, const std::string& row, const std::string& unit,
           const Figure& figure) {
    std::printf("@%s|%s|%s|%.4g|%.4g|%.4g\n", section.c_str(), row.c_str(), unit.c_str(),
                figure.median, figure.low, figure.high);
}

Figure scaled(const Figure& figure, double factor) {
    return {figure.median * factor, figure.low * factor, figure.high * factor};
}

void printTimes(const std::string& section) {
    for (const BareCall& call : bareCalls) {
        if (call.shown) print(section, call.name, "ns", scaled(figureOf(times[call.name]), 0.5));
    }
    for (const CostRow& row : costs) {
        const Figure figure = scaled(
            figureOfPairs(oursOf(row), baselineOf(row), [](double a, double b) { return a - b; }),
            1 / row.parts);
        print(section, row.name, "ns", figure);
        for (const BareCall& call : bareCalls) {
            const double bare = figureOf(times[call.name]).median / 2;
            print(section, row.name, "% of " + call.name, scaled(figure, 100 / bare));
        }
    }
    for (const RatioRow& row : ratios) {
        print(section, row.name, "ns, shim", figureOf(times[oursOf(row)]));
        for (const Other& other : row.others) {
            print(section, row.name, "ns, " + other.name, figureOf(times[otherOf(row, other)]));
            print(section, row.name, other.name + " / shim",
                  figureOfPairs(otherOf(row, other), oursOf(row),
                                [](double a, double b) { return a / b; }));
        }
    }
}

// Dumps what some turns take under a name that says which and how many; a turn
// over many parts repeats itself enough.
void countSide(const std::string& row, const std::string& side, double parts, Turn prepare,
               Turn turn) {
    constexpr int kWarmUp = 10;
    const int turns = parts > 1 ? 5 : 200;
    prepare();
    for (int i = 0; i < kWarmUp; ++i) turn();
    const std::string name = row + "|" + side + "|" + std::to_string(turns * parts);
    CALLGRIND_DUMP_STATS_AT("warm-up");  // counts of all threads begin afresh
    for (int i = 0; i < turns; ++i) turn();
    CALLGRIND_DUMP_STATS_AT(name.c_str());
}

void countInstructions() {
    for (const CostRow& row : costs) {
        countSide(row.name, "ours", row.parts, row.prepare, row.ours);
        countSide(row.name, "baseline", row.parts, row.prepare, row.baseline);
    }
    for (const RatioRow& row : ratios) {
        countSide(row.name, "ours", 1, nothing, row.ours);
        for (const Other& other : row.others) {
            countSide(row.name, other.name, 1, nothing, other.turn);
        }
    }
}

}  // namespace

void addCost(const CostRow& row) {
    costs.push_back(row);
}

void addRatio(const RatioRow& row) {
    ratios.push_back(row);
}

void addBareCall(const BareCall& call) {
    bareCalls.push_back(call);
}

int runRows(const std::string& section, int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--instructions") == 0) {
        countInstructions();
        return 0;
    }
    for (const BareCall& call : bareCalls) registerSide(call.name, nothing, call.turn);
    for (const CostRow& row : costs) {
        registerSide(oursOf(row), row.prepare, row.ours);
        registerSide(baselineOf(row), row.prepare, row.baseline);
    }
    for (const RatioRow& row : ratios) {
        registerSide(oursOf(row), nothing, row.ours);
        for (const Other& other : row.others) {
            registerSide(otherOf(row, other), nothing, other.turn);
        }
    }
    std::string program = "bench";
    std::string interleaved = "--benchmark_enable_random_interleaving=true";
    char* arguments[] = {program.data(), interleaved.data(), nullptr};
    int count = 2;
    benchmark::Initialize(&count, arguments);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    printTimes(section);
    return 0;
}

void fail(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

}  // namespace tolvane::bench

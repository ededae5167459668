// The measuring itself: Google Benchmark runs every row's two sides in turns at
// random, many times, and a row's figure is made of the pairs of runs.
#pragma once

#include <string>
#include <vector>

namespace tolvane::bench {

using Turn = void (*)();

// One figure. `ours` does what is measured and perhaps something else;
// `baseline` does everything else, and is subtracted. Before either is
// repeated, `prepare` brings about the state in which it is measured.
struct CostRow {
    std::string name;
    Turn prepare;
    Turn ours;
    Turn baseline;
    double parts = 1;  // what one turn is divided by
};
void addCost(const CostRow& row);

// The same done by the shim and by others: the figures are how many times as
// long the others take.
struct Other {
    std::string name;
    Turn turn;
};
struct RatioRow {
    std::string name;
    Turn ours;
    std::vector<Other> others;
};
void addRatio(const RatioRow& row);

// A bare system call, of which costs are also given as a share; `turn` makes two
// of them. It gets a row of its own only where `shown`.
struct BareCall {
    std::string name;
    Turn turn;
    bool shown;
};
void addBareCall(const BareCall& call);

// Runs all rows and prints their lines, in the format of figures.py, with
// `section` in front. With "--instructions" as the only argument, under
// callgrind, it has callgrind dump its counts for each side instead.
int runRows(const std::string& section, int argc, char** argv);

// Ends the program with a message.
[[noreturn]] void fail(const std::string& what);

}  // namespace tolvane::bench

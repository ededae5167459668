// paired_ratios BASE: reads rows of measure, variant, round and value, and
// compares each variant with the variant BASE, round by round. Prints per
// measure and variant, separated by tabs:
//
//   measure, variant, median,
//   median of the differences and the ends of its 95 % interval,
//   median of the ratios and the ends of its 95 % interval
//
// The intervals come from drawing the rounds anew a thousand times.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Series {
    std::string measure;
    std::string variant;
    std::map<std::string, double> values;  // by round
};

double quantile(std::vector<double> values, double share) {
    auto index = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + index, values.end());
    return values[static_cast<std::size_t>(index)];
}

double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

void printWithInterval(const std::vector<double>& values) {
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> any(0, values.size() - 1);
    std::vector<double> medians;
    std::vector<double> drawn(values.size());
    for (int draw = 0; draw < 1000; ++draw) {
        for (double& value : drawn) value = values[any(random)];
        medians.push_back(median(drawn));
    }
    std::printf("\t%.6g\t%.6g\t%.6g", median(values), quantile(medians, 0.025),
                quantile(medians, 0.975));
}

void compare(const Series& series, const Series& base) {
    std::vector<double> values;
    std::vector<double> differences;
    std::vector<double> ratios;
    for (const auto& [round, value] : series.values) {
        auto other = base.values.find(round);
        if (other == base.values.end()) continue;
        values.push_back(value);
        differences.push_back(value - other->second);
        ratios.push_back(value / other->second);
    }
    if (values.empty()) return;
    std::printf("%s\t%s\t%.6g", series.measure.c_str(), series.variant.c_str(), median(values));
    printWithInterval(differences);
    printWithInterval(ratios);
    std::printf("\n");
}

Series& find(std::vector<Series>& all, const std::string& measure, const std::string& variant) {
    for (Series& series : all) {
        if (series.measure == measure && series.variant == variant) return series;
    }
    return all.emplace_back(Series{measure, variant, {}});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: paired_ratios BASE < rows\n");
        return 2;
    }
    std::vector<Series> all;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream row(line);
        std::string measure, variant, round, value;
        std::getline(row, measure, '\t');
        std::getline(row, variant, '\t');
        std::getline(row, round, '\t');
        std::getline(row, value, '\t');
        find(all, measure, variant).values[round] = std::atof(value.c_str());
    }
    for (const Series& series : all) {
        for (const Series& other : all) {
            if (other.measure == series.measure && other.variant == argv[1]) {
                compare(series, other);
            }
        }
    }
}

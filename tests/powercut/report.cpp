// The report: one line per driver and scenario, then what the checker
// fixed by kind, then the failures.
#include <cstdio>
#include <string>

#include "tests/powercut/harness.h"

namespace PowerCut {
namespace {

// A figure, or "-" where the row has no such measure.
std::string Figure(bool measured, int value) { return measured ? std::to_string(value) : "-"; }

void PrintLine(const ScenarioReport& r) {
    std::printf("%-10s %-17s %6llu %5d %7d %8d %6d %5d %7d %5d %9d %6s %7s %8s  %s\n", r.driver.c_str(),
                r.scenario.c_str(), static_cast<unsigned long long>(r.writes), r.cuts, r.refused, r.repaired,
                r.second_pass, r.torn, r.unclean, r.walk_failures, r.untouched_lost,
                Figure(r.has_reader, r.reader_lost).c_str(), Figure(r.tolerates_torn, r.torn_blocks).c_str(),
                Figure(r.tolerates_torn, r.torn_block_lost).c_str(), r.passed() ? "ok" : "FAIL");
}

}  // namespace

void PrintReport(const std::vector<ScenarioReport>& reports) {
    std::printf("%-10s %-17s %6s %5s %7s %8s %6s %5s %7s %5s %9s %6s %7s %8s\n", "driver", "scenario", "W", "cuts",
                "refused", "repaired", "2 runs", "torn", "unclean", "walk", "untouched", "reader", "tornblk",
                "tornlost");
    for (const ScenarioReport& r : reports) {
        if (r.cuts != 0 || !r.failures.empty()) PrintLine(r);
    }
    std::printf("\nreader: files outside the scenario the independent reader lost after the repair\n"
                "tornblk: cuts that left a torn block; tornlost: files outside the scenario lost on those cuts\n");
    std::printf("\nwhat the checker fixed, by kind (findings over all cuts):\n");
    for (const ScenarioReport& r : reports) {
        if (r.kinds.empty()) continue;
        std::printf("  %s %s:", r.driver.c_str(), r.scenario.c_str());
        for (const auto& [kind, count] : r.kinds) std::printf(" %s %d;", kind.c_str(), count);
        std::printf("\n");
    }
    for (const ScenarioReport& r : reports) {
        for (const std::string& failure : r.failures) {
            std::printf("FAIL %s %s: %s\n", r.driver.c_str(), r.scenario.c_str(), failure.c_str());
        }
    }
}

}  // namespace PowerCut

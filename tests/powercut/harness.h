#pragma once
// The power-cut harness: every scenario on every driver row, cut after
// each chosen number of sector writes, judged by our own mount, by the
// independent checker and by the files the scenario left alone.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/powercut/driver_row.h"

namespace PowerCut {

struct Options {
    unsigned sample = 0;  // cut points per scenario, spread evenly over 0..W; 0 = every one
    std::string driver;   // only this row; empty = all
    std::vector<std::string> skip;  // scenarios left out, by name
    std::string work;     // a folder for the images
    bool strict = false;  // only the rows that tolerate no torn block
};

struct ScenarioReport {
    std::string driver;
    std::string scenario;
    std::uint64_t writes = 0;       // W, sector writes of the whole scenario
    int cuts = 0;                   // cut points tried
    int refused = 0;                // our mount refused the cut volume as corrupt
    int repaired = 0;               // the checker had to repair
    int torn = 0;                   // a file the scenario touched read as neither its old nor its new bytes
    std::map<std::string, int> kinds;  // what the checker fixed, by kind, over all cuts
    int unclean = 0;                // the repair did not leave a clean volume
    int second_pass = 0;            // the checker needed more than one repair run
    int walk_failures = 0;          // a crash, a hang, or a code other than FILE_CORRUPT
    int untouched_lost = 0;         // files outside the scenario that our walk found changed or missing
    bool has_reader = false;        // the row has an independent reader
    int reader_lost = 0;            // files outside the scenario that the independent reader lost
    bool tolerates_torn = false;    // the row counts torn blocks instead of failing on them
    int torn_blocks = 0;            // cuts that left a torn block
    int torn_block_lost = 0;        // files outside the scenario lost on those cuts
    std::vector<std::string> failures;  // the first few, for the reader

    bool passed() const {
        return unclean == 0 && walk_failures == 0 && untouched_lost == 0 && reader_lost == 0 && failures.empty();
    }
};

std::vector<std::uint64_t> CutPoints(std::uint64_t writes, unsigned sample);

std::vector<ScenarioReport> RunHarness(const std::vector<DriverRow>& rows, const Options& options);

void PrintReport(const std::vector<ScenarioReport>& reports);

}  // namespace PowerCut

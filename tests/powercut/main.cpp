// powercut [--sample K] [--driver NAME] [--skip SCENARIO]... [--strict]: the
// power-cut harness. Exits 1 when a cut volume crashed, hung or answered a
// wrong code, when the checker's repair left it unclean, or when a file
// outside the scenario changed or went missing, for our walk or for the
// row's independent reader; on the rows that tolerate torn blocks, the cuts
// that left one only count.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/powercut/harness.h"
#include "tests/support/temp_folder.h"

int main(int argc, char** argv) {
    PowerCut::Options options;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--sample") == 0 && i + 1 < argc) {
            options.sample = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        } else if (std::strcmp(argv[i], "--skip") == 0 && i + 1 < argc) {
            options.skip.push_back(argv[++i]);
        } else if (std::strcmp(argv[i], "--strict") == 0) {
            options.strict = true;
        } else if (std::strcmp(argv[i], "--driver") == 0 && i + 1 < argc) {
            options.driver = argv[++i];
        } else {
            std::fprintf(stderr, "usage: powercut [--sample K] [--driver NAME] [--skip SCENARIO]... [--strict]\n"
                                 "  K cut points per scenario, spread evenly from 0 to all its writes; 0: every one\n"
                                 "  --strict: only the rows that tolerate no torn block\n");
            return 2;
        }
    }
    // The mtools of the image makers would otherwise refuse odd geometries.
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
    TestSupport::TempFolder work;
    options.work = work.Path();
    std::vector<PowerCut::ScenarioReport> reports = PowerCut::RunHarness(PowerCut::DriverRows(options.strict), options);
    PowerCut::PrintReport(reports);
    bool passed = !reports.empty();
    for (const auto& report : reports) passed = passed && report.passed();
    return passed ? 0 : 1;
}

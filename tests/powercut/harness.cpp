// One scenario is run whole once to count its sector writes W, then again
// for each cut point N, after which the cut volume is walked by our driver,
// repaired and checked by the independent checker, and walked again.
#include "tests/powercut/harness.h"

#include <algorithm>
#include <memory>
#include <set>
#include <stdexcept>

#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "tests/powercut/image_file.h"
#include "tests/powercut/scenario.h"
#include "tests/powercut/transfer_log.h"
#include "tests/powercut/volume_walk.h"
#include "tests/support/power_cut_disk.h"
#include "tests/support/volume_fixture.h"

namespace PowerCut {
namespace {

constexpr unsigned kWalkSeconds = 20;
constexpr std::size_t kFailuresKept = 6;

using Sums = std::map<std::string, std::string>;

struct CutRun {
    std::string refusal;  // the step the volume refused before the power went, if any
    std::uint64_t writes = 0;
    std::vector<unsigned char> bytes;
    std::shared_ptr<TransferLog> transfers;  // the writes as the driver asked for them
};

// The scenario on a fresh copy of the volume, the power going after `allowed`
// sector writes. After the cut the driver goes on against a disk that keeps
// nothing; what it then refuses is no fault, as no real machine gets there.
CutRun RunCut(const DriverRow& row, const Scenario& scenario, const std::vector<unsigned char>& original,
              std::uint64_t allowed) {
    CutRun run;
    auto disk = TestSupport::DiskOf(original, row.sector_size);
    TestSupport::PowerCutDisk cut(*disk, allowed);
    run.transfers = std::make_shared<TransferLog>(cut);
    try {
        FileSystemDriver* driver = row.mount(*run.transfers);
        ++driver->references;
        try {
            std::unique_ptr<rio_dir> root(driver->open_root());
            scenario.act(*root);
        } catch (const std::runtime_error& refused) {
            if (!cut.cut()) run.refusal = refused.what();
        }
        release(driver);
    } catch (const Common::Error& error) {
        run.refusal = "mount: code " + std::to_string(error.Code());
    }
    run.writes = cut.writes();
    run.bytes = std::move(disk->bytes);
    return run;
}

ScenarioReport Named(const std::string& driver, const std::string& scenario) {
    ScenarioReport report;
    report.driver = driver;
    report.scenario = scenario;
    return report;
}

std::string Find(const Sums& sums, const std::string& path) {
    auto at = sums.find(path);
    return at == sums.end() ? std::string() : at->second;
}

// What one cut did to the files outside the scenario, each lost path with
// what was found: by our walk, before or after the repair, and by the
// independent reader.
struct Losses {
    std::map<std::string, std::string> walk;
    std::map<std::string, std::string> reader;
};

class ScenarioCuts {
public:
    ScenarioCuts(const DriverRow& row, const Scenario& scenario, const std::vector<unsigned char>& original,
                 const Sums& host, const Sums& before, ImageFile& image, ScenarioReport& report)
        : row_(row), scenario_(scenario), original_(original), host_(host), before_(before), image_(image),
          report_(report) {
        for (const auto& [path, sum] : host_) {
            if (!Touches(scenario_, path)) untouched_paths_.push_back(path);
        }
    }

    // The whole scenario: W and the files as it leaves them.
    bool prepare() {
        CutRun whole = RunCut(row_, scenario_, original_, TestSupport::PowerCutDisk::kNoCut);
        report_.writes = whole.writes;
        if (!whole.refusal.empty()) return fail("the scenario itself failed: " + whole.refusal), false;
        after_ = WalkVolume(row_, whole.bytes, kWalkSeconds).files;
        transfers_ = whole.transfers;
        return true;
    }

    void try_cut(std::uint64_t allowed) {
        ++report_.cuts;
        at_ = "cut " + std::to_string(allowed) + ": ";
        losses_ = Losses();
        CutRun run = RunCut(row_, scenario_, original_, allowed);
        if (!run.refusal.empty()) fail("refused before the cut: " + run.refusal);
        if (allowed == 0 && run.bytes != original_) fail("no write let through, yet the disk changed");
        WalkResult cut = look(run.bytes, "before repair");
        if (cut.outcome == WalkResult::kRefused) ++report_.refused;
        if (cut.outcome == WalkResult::kMounted) report_.torn += torn(cut.files) ? 1 : 0;
        if (!image_.store(run.bytes)) return fail("cannot write " + image_.path());
        CheckerVerdict verdict = RepairThenCheck(row_.checker, image_.path());
        report_.repaired += verdict.repaired ? 1 : 0;
        report_.second_pass += verdict.passes > 1 ? 1 : 0;
        for (const auto& [kind, count] : verdict.kinds) report_.kinds[kind] += count;
        if (allowed >= report_.writes && verdict.repaired) fail("the whole scenario left a volume needing repair");
        if (!verdict.clean_after) {
            ++report_.unclean;
            fail("still unclean after repair: " + verdict.check_output.substr(0, 300));
        }
        WalkResult repaired = look(image_.load(), "after repair");
        read_independently();
        const bool torn_block = row_.tolerates_torn_blocks && transfers_->may_tear(allowed) &&
                                left_torn_block(cut, verdict);
        if (repaired.outcome != WalkResult::kMounted && !torn_block) fail("the repaired volume does not mount");
        if (torn_block) count_torn_block();
        else count_losses();
    }

private:
    void fail(const std::string& text) {
        if (report_.failures.size() < kFailuresKept) report_.failures.push_back(at_ + text);
    }

    WalkResult look(const std::vector<unsigned char>& bytes, const std::string& stage) {
        WalkResult walk = WalkVolume(row_, bytes, kWalkSeconds);
        if (!walk.acceptable()) {
            ++report_.walk_failures;
            const char* outcome = walk.outcome == WalkResult::kHung ? "hung" : "crashed";
            fail(stage + ": walk " + (walk.wrong_codes.empty() ? outcome : walk.wrong_codes.front().substr(0, 120)));
        }
        if (walk.outcome == WalkResult::kMounted) untouched(walk.files, stage);
        if (walk.outcome == WalkResult::kRefused && stage == "after repair") {
            for (const std::string& path : untouched_paths_) losses_.walk.emplace(path, stage + ": refused");
        }
        return walk;
    }

    void untouched(const Sums& files, const std::string& stage) {
        for (const std::string& path : untouched_paths_) {
            const std::string found = Find(files, path);
            if (found == Find(host_, path)) continue;
            const std::string what = found.empty() ? " is missing" : " reads " + found.substr(0, 16);
            losses_.walk.emplace(path, stage + ": /" + path + what);
        }
    }

    // The other reader's view of the repaired image: every file outside the
    // scenario must read with its original sum there too.
    void read_independently() {
        if (!row_.independent_reader) return;
        const std::vector<std::string> sums = row_.independent_reader(image_.path(), untouched_paths_);
        for (std::size_t i = 0; i < untouched_paths_.size(); ++i) {
            const std::string& path = untouched_paths_[i];
            const std::string& sum = i < sums.size() ? sums[i] : std::string();
            if (sum == Find(host_, path)) continue;
            losses_.reader.emplace(path, "independent reader: /" + path +
                                             (sum.empty() ? " is unreadable" : " reads " + sum.substr(0, 16)));
        }
    }

    // The cut fell between writes to neighbouring sectors (checked by the
    // caller), and our walk refused the cut volume, or a file or folder of
    // it, as corrupt, or the checker told of a torn record or a damaged index.
    bool left_torn_block(const WalkResult& cut, const CheckerVerdict& verdict) const {
        const std::string corrupt = "<error " + std::to_string(Common::FILE_CORRUPT) + ">";
        if (cut.outcome == WalkResult::kRefused && cut.refusal == Common::FILE_CORRUPT) return true;
        for (const auto& [path, sum] : cut.files) {
            if (sum == corrupt) return true;
        }
        for (const std::string& kind : row_.torn_block_kinds) {
            if (verdict.kinds.count(kind) != 0) return true;
        }
        return false;
    }

    void count_torn_block() {
        ++report_.torn_blocks;
        std::set<std::string> lost;
        for (const auto& [path, note] : losses_.walk) lost.insert(path);
        for (const auto& [path, note] : losses_.reader) lost.insert(path);
        report_.torn_block_lost += static_cast<int>(lost.size());
    }

    void count_losses() {
        report_.untouched_lost += static_cast<int>(losses_.walk.size());
        report_.reader_lost += static_cast<int>(losses_.reader.size());
        for (const auto& [path, note] : losses_.walk) fail(note);
        for (const auto& [path, note] : losses_.reader) fail(note);
    }

    // A file of the scenario that reads neither as before nor as after it.
    bool torn(const Sums& files) const {
        for (const auto& [path, sum] : files) {
            if (Touches(scenario_, path) && sum != Find(before_, path) && sum != Find(after_, path)) return true;
        }
        return false;
    }

    const DriverRow& row_;
    const Scenario& scenario_;
    const std::vector<unsigned char>& original_;
    const Sums& host_;
    const Sums& before_;
    ImageFile& image_;
    ScenarioReport& report_;
    std::vector<std::string> untouched_paths_;
    Sums after_;
    std::string at_;
    Losses losses_;
    std::shared_ptr<TransferLog> transfers_;
};

// The independent reader must read every file as made, and must say so of
// one that is not there: a reader that never fails would judge nothing.
void CheckReaderAsMade(const DriverRow& row, const Sums& host, ImageFile& image, ScenarioReport& report) {
    static const std::string kAbsent = "no such file.bin";
    std::vector<std::string> paths;
    for (const auto& [path, sum] : host) paths.push_back(path);
    paths.push_back(kAbsent);
    const std::vector<std::string> sums = row.independent_reader(image.path(), paths);
    for (std::size_t i = 0; i < paths.size(); ++i) {
        const std::string expected = paths[i] == kAbsent ? std::string() : host.at(paths[i]);
        if (i >= sums.size() || sums[i] != expected) {
            report.failures.push_back("the independent reader is wrong about /" + paths[i] + " as made");
        }
    }
}

// The volume as made must read as the host files it was made from: this
// holds our walk to the host files' sums before any cut is judged.
ScenarioReport CheckAsMade(const DriverRow& row, const std::vector<unsigned char>& original, const Sums& host,
                           ImageFile& image, Sums& walked) {
    ScenarioReport report = Named(row.name, "(as made)");
    if (original.empty()) report.failures.push_back("the tools made no image at " + image.path());
    if (host.size() != StandardTree().files.size()) report.failures.push_back("sha256sum did not sum every file");
    if (!RepairThenCheck(row.checker, image.path()).clean_after) report.failures.push_back("not clean as made");
    // A repair may rewrite a clean volume (ntfsfix always rewrites $Volume):
    // the image file must be known as it now stands, or the first cut would
    // be stored over those bytes unseen.
    image.load();
    walked = WalkVolume(row, original, kWalkSeconds).files;
    for (const auto& [path, sum] : host) {
        if (Find(walked, path) != sum) report.failures.push_back("/" + path + " does not read as made");
    }
    if (row.independent_reader) CheckReaderAsMade(row, host, image, report);
    return report;
}

void RunRow(const DriverRow& row, const Options& options, const std::string& tree, const Sums& host,
            std::vector<ScenarioReport>& reports) {
    ImageFile image(options.work + "/" + row.name + ".img");
    if (!row.make_image(tree, image.path())) {
        reports.push_back(Named(row.name, "(as made)"));
        reports.back().failures.push_back("the tools could not make the image");
        return;
    }
    const std::vector<unsigned char> original = image.load();
    Sums before;
    reports.push_back(CheckAsMade(row, original, host, image, before));
    if (!reports.back().passed()) return;
    for (const Scenario& scenario : Scenarios()) {
        if (std::find(options.skip.begin(), options.skip.end(), scenario.name) != options.skip.end()) continue;
        ScenarioReport report = Named(row.name, scenario.name);
        report.has_reader = static_cast<bool>(row.independent_reader);
        report.tolerates_torn = row.tolerates_torn_blocks;
        ScenarioCuts cuts(row, scenario, original, host, before, image, report);
        if (cuts.prepare()) {
            for (std::uint64_t allowed : CutPoints(report.writes, options.sample)) cuts.try_cut(allowed);
        }
        reports.push_back(report);
        std::fprintf(stderr, "powercut: %s %s: %d cuts\n", row.name.c_str(), scenario.name, report.cuts);
    }
}

}  // namespace

std::vector<std::uint64_t> CutPoints(std::uint64_t writes, unsigned sample) {
    std::vector<std::uint64_t> points;
    if (sample == 0 || sample > writes) {
        for (std::uint64_t n = 0; n <= writes; ++n) points.push_back(n);
        return points;
    }
    const std::uint64_t spans = sample < 2 ? 1 : sample - 1;
    for (std::uint64_t i = 0; i <= spans; ++i) {
        std::uint64_t n = (i * writes + spans / 2) / spans;
        if (points.empty() || points.back() != n) points.push_back(n);
    }
    return points;
}

std::vector<ScenarioReport> RunHarness(const std::vector<DriverRow>& rows, const Options& options) {
    const std::string tree = options.work + "/tree";
    WriteTree(StandardTree(), tree);
    const Sums host = HostSums(tree);
    std::vector<ScenarioReport> reports;
    for (const DriverRow& row : rows) {
        if (options.driver.empty() || options.driver == row.name) RunRow(row, options, tree, host, reports);
    }
    return reports;
}

}  // namespace PowerCut

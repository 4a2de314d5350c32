// Runs the checker and sorts its findings.
#include "tests/powercut/checker.h"

#include <sys/wait.h>

#include <cstdio>
#include <sstream>
#include <vector>

namespace PowerCut {
namespace {

// The command's exit status and everything it printed.
int Run(const std::string& command, std::string& output) {
    output.clear();
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return -1;
    char chunk[4096];
    while (std::size_t n = std::fread(chunk, 1, sizeof(chunk), pipe)) output.append(chunk, n);
    int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool Has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// One finding of fsck.fat, by the words it is told in.
std::string FatKind(const std::string& text) {
    if (Has(text, "Reclaimed")) return "lost clusters";
    if (Has(text, "Free cluster summary")) return "free cluster count";
    if (Has(text, "Dirty bit")) return "dirty bit";
    if (Has(text, "FATs differ")) return "FAT copies differ";
    if (Has(text, "File size is")) return "size vs chain";
    if (Has(text, "free cluster") || Has(text, "bad cluster") || Has(text, "beyond")) return "chain into free/bad";
    if (Has(text, "share")) return "shared clusters";
    if (Has(text, "Expected a valid")) return "directory without . or ..";
    if (Has(text, "Orphan") || Has(text, "Deleting") || Has(text, "Bad ") || Has(text, "Invalid") ||
        Has(text, "Unused") || Has(text, "non-zero size") || Has(text, "Duplicate")) {
        return "orphaned/invalid entry";
    }
    return "other: " + text.substr(0, 48);
}

// The header, the summary and the notes of writing are not findings.
bool FatFrame(const std::string& line) {
    return line.empty() || line.rfind("fsck.fat ", 0) == 0 || Has(line, "Filesystem was changed") ||
           line == "Writing changes." || line == "Performing changes." || Has(line, " files, ");
}

}  // namespace

std::map<std::string, int> FatFindings(const std::string& output) {
    std::map<std::string, int> kinds;
    std::vector<std::string> lines = Lines(output);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (FatFrame(line) || line[0] == ' ') continue;
        // Paths alone (two of them for shared clusters) name the entries; the
        // indented line below them says what is wrong.
        std::size_t detail = i;
        while (lines[detail][0] == '/' && detail + 1 < lines.size() && lines[detail + 1][0] != ' ') ++detail;
        bool path = line[0] == '/' && detail + 1 < lines.size() && lines[detail + 1].rfind("  ", 0) == 0;
        ++kinds[FatKind(path ? lines[detail + 1] : line)];
        if (path) i = detail;
    }
    return kinds;
}

CheckerVerdict RepairThenCheck(const CheckerRow& checker, const std::string& image) {
    CheckerVerdict verdict;
    while (verdict.passes < kMostRepairPasses && !verdict.clean_after) {
        ++verdict.passes;
        std::string output;
        int status = Run(checker.repair + " '" + image + "'", output);
        for (const auto& kind : checker.kinds(output)) verdict.kinds[kind.first] += kind.second;
        verdict.repaired = verdict.repaired || status != 0 || !verdict.kinds.empty();
        status = Run(checker.check + " '" + image + "'", verdict.check_output);
        // A checker that lists findings in read-only mode has not found the volume clean, whatever its status.
        verdict.clean_after = status == 0 && checker.kinds(verdict.check_output).empty();
    }
    return verdict;
}

}  // namespace PowerCut

// The tree on every volume and the scenarios of the table.
#include "tests/powercut/scenario.h"

#include <memory>
#include <stdexcept>

#include "files/utf_conversion.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace PowerCut {
namespace {

using TestSupport::Pattern;

std::u16string Wide(const std::string& path) { return utf8_to_utf16(path); }

void Expect(file_object& object, const std::string& step) {
    if (object.failed()) throw std::runtime_error(step + ": code " + std::to_string(object.error().Code()));
}

// Writes `data` at the file's position in pieces of `step` bytes, as a copy
// from a host file does.
void WriteInPieces(rio_file& file, const std::string& data, std::size_t step) {
    for (std::size_t done = 0; done < data.size(); done += step) {
        std::uint64_t written = 0;
        std::size_t piece = std::min(step, data.size() - done);
        file.write(data.data() + done, piece, written);
        Expect(file, "write");
        if (written != piece) throw std::runtime_error("short write");
    }
}

void Create(rio_dir& root, const std::string& path, const std::string& data) {
    std::unique_ptr<rio_file> file(root.create_file(Wide(path).c_str()));
    if (file == nullptr) Expect(root, "create " + path);
    if (file == nullptr) throw std::runtime_error("create " + path + ": no file");
    WriteInPieces(*file, data, 3000);
}

void Append(rio_dir& root, const std::string& path, const std::string& data) {
    std::unique_ptr<rio_file> file(root.open_for_update(Wide(path).c_str(), false));
    if (file == nullptr) Expect(root, "open " + path);
    if (file == nullptr) throw std::runtime_error("open " + path + ": no file");
    file->seek_end(0);
    WriteInPieces(*file, data, 3000);
}

void Rename(rio_dir& root, const std::string& from, const std::string& to) {
    root.rename(Wide(from).c_str(), Wide(to).c_str());
    Expect(root, "rename " + from);
}

void RemoveFile(rio_dir& root, const std::string& path) {
    root.remove_file(Wide(path).c_str());
    Expect(root, "remove " + path);
}

void RemoveFolder(rio_dir& root, const std::string& path) {
    root.remove_dir(Wide(path).c_str());
    Expect(root, "remove folder " + path);
}

Tree MakeTree() {
    Tree tree;
    tree.folders = {"keep", "keep/sub", "work", "work/gone", "work/gone/inner", "dest"};
    tree.files = {
        {"README.TXT", "Left alone by every scenario.\n"},
        {"Kept long name.txt", Pattern(1500, 1)},
        {"keep/big.bin", Pattern(20000, 2)},
        {"keep/empty.bin", ""},
        {"keep/sub/deep.txt", "deep and untouched\n"},
        {"work/neighbour.txt", Pattern(50, 3)},
        {"work/grow.bin", Pattern(3000, 4)},
        {"work/old name.txt", Pattern(100, 5)},
        {"work/victim.bin", Pattern(5000, 6)},
        {"work/moveme.bin", Pattern(4000, 7)},
        {"work/gone/a.bin", Pattern(2000, 8)},
        {"work/gone/b.txt", "b\n"},
        {"work/gone/inner/c.txt", "c\n"},
        {"dest/stay.txt", Pattern(20, 9)},
    };
    return tree;
}

std::vector<Scenario> MakeScenarios() {
    return {
        {"new file", {"work/new file.bin"},
         [](rio_dir& root) { Create(root, "work/new file.bin", Pattern(24000, 20)); }},
        {"grow file", {"work/grow.bin"}, [](rio_dir& root) { Append(root, "work/grow.bin", Pattern(6000, 21)); }},
        {"mkdir", {"work/made"},
         [](rio_dir& root) {
             root.make_dir(u"work/made");
             Expect(root, "mkdir");
         }},
        {"rename in folder", {"work/old name.txt", "work/A New Longer Name.txt"},
         [](rio_dir& root) { Rename(root, "work/old name.txt", "work/A New Longer Name.txt"); }},
        {"move across", {"work/moveme.bin", "dest/moved.bin"},
         [](rio_dir& root) { Rename(root, "work/moveme.bin", "dest/moved.bin"); }},
        {"delete file", {"work/victim.bin"}, [](rio_dir& root) { RemoveFile(root, "work/victim.bin"); }},
        {"delete folder", {"work/gone"},
         [](rio_dir& root) {
             RemoveFile(root, "work/gone/a.bin");
             RemoveFile(root, "work/gone/b.txt");
             RemoveFile(root, "work/gone/inner/c.txt");
             RemoveFolder(root, "work/gone/inner");
             RemoveFolder(root, "work/gone");
         }},
    };
}

}  // namespace

const Tree& StandardTree() {
    static const Tree tree = MakeTree();
    return tree;
}

void WriteTree(const Tree& tree, const std::string& folder) {
    for (const std::string& sub : tree.folders) TestSupport::RunQuietly("mkdir -p '" + folder + "/" + sub + "'");
    for (const TreeFile& file : tree.files) {
        TestSupport::StoreFile(folder + "/" + file.path,
                               std::vector<unsigned char>(file.content.begin(), file.content.end()));
    }
}

std::map<std::string, std::string> HostSums(const std::string& folder) {
    std::map<std::string, std::string> sums;
    std::string listing = TestSupport::CaptureOutput("cd '" + folder + "' && find . -type f -print0 | xargs -0 sha256sum");
    std::size_t at = 0;
    while (at < listing.size()) {
        std::size_t end = listing.find('\n', at);
        if (end == std::string::npos) end = listing.size();
        std::string line = listing.substr(at, end - at);
        at = end + 1;
        // "<64 hex>  ./path"
        if (line.size() > 68) sums.emplace(line.substr(68), line.substr(0, 64));
    }
    return sums;
}

const std::vector<Scenario>& Scenarios() {
    static const std::vector<Scenario> scenarios = MakeScenarios();
    return scenarios;
}

bool Touches(const Scenario& scenario, const std::string& path) {
    for (const std::string& touched : scenario.touched) {
        if (path == touched || path.rfind(touched + "/", 0) == 0) return true;
    }
    return false;
}

}  // namespace PowerCut

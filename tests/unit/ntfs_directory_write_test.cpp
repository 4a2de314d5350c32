// Directory changes on volumes that mkntfs makes and ntfs-3g fills: new
// files and directories, removals, renames, hard links, short names and
// junctions. What the driver wrote is read back by ntfsls, ntfscat and
// ntfsinfo, listed through a read-only ntfs-3g mount and checked by ntfsfix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fsdriver/directory_object.h"
#include "fsdriver/file_object.h"
#include "fsdriver/iterator_object.h"
#include "loader/common/error_codes.h"
#include "ntfs/junction.h"
#include "ntfs/ntfs_driver.h"
#include "tests/support/ntfs_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

std::vector<unsigned char> MakeBase() {
    return TestSupport::MakeNtfsImage(
        "truncate -s 32M volume.img; mkntfs -F -f -q -c 4096 volume.img; mkdir mnt;"
        " ntfs-3g volume.img mnt; cd mnt; printf 'hello\\n' > hello.txt; mkdir dir empty;"
        " printf 'inner\\n' > dir/inner.txt; mkdir dir/sub; head -c 20000 /dev/zero | tr '\\0' x > dir/sub/leaf;"
        " setfattr -n system.ntfs_object_id -v 0x11111111222233334444555555555555 hello.txt;"
        " setfattr -n system.ntfs_object_id -v 0xaaaaaaaabbbbccccddddeeeeeeeeeeee dir/inner.txt;"
        " cd ..; umount mnt");
}

const std::vector<unsigned char>& Base() {
    static const std::vector<unsigned char> base = MakeBase();
    return base;
}

std::size_t SetBits(const std::string& bytes) {
    std::size_t count = 0;
    for (unsigned char byte : bytes) count += static_cast<std::size_t>(__builtin_popcount(byte));
    return count;
}

class NtfsDirectoryWrite : public ::testing::Test {
protected:
    void SetUp() override {
        if (Base().empty()) GTEST_SKIP() << "mkntfs or ntfs-3g over FUSE isn't available";
        image_.store(Base());
        volume_ = std::make_unique<Volume>(image_.path);
        ASSERT_NE(volume_->driver, nullptr);
    }

    NTFSDriver& driver() { return *volume_->driver; }
    FileSystemDriver::DirectoryObject& at(const std::u16string& path) { return *driver().get_directory(path); }
    std::uint32_t create(const std::u16string& parent, const std::u16string& name) {
        return RaisedCode([&] { std::unique_ptr<FileSystemDriver::FileObject> made(at(parent).create_file(name)); });
    }

    std::string run(const std::string& command) const { return TestSupport::CaptureOutput(command); }
    // What ntfsls lists, sorted, without "." and "..".
    std::vector<std::string> listed(const std::string& directory) const {
        std::istringstream lines(run("ntfsls " + image_.path + " -p '" + directory + "' 2>&1"));
        std::vector<std::string> names;
        for (std::string line; std::getline(lines, line);) {
            if (line != "." && line != "..") names.push_back(line);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string cat(const std::string& path) const { return run("ntfscat " + image_.path + " '" + path + "' 2>&1"); }
    std::string info(const std::string& path) const {
        return run("ntfsinfo -F '" + path + "' " + image_.path + " 2>&1");
    }
    // The number after `label` in what ntfsinfo says of `path`; ~0 when absent.
    std::uint64_t number(const std::string& path, const std::string& label) const {
        const std::string text = info(path);
        const std::size_t at = text.find(label);
        return at == std::string::npos ? ~0ull : std::stoull(text.substr(at + label.size()));
    }
    bool sound() const { return run("ntfsfix -n " + image_.path + " >/dev/null 2>&1; echo $?") == "0\n"; }
    // Every path under the root, as a read-only ntfs-3g mount shows them.
    std::string mounted_tree() const {
        const std::string mnt = image_.folder.Path() + "/mnt";
        return run("mkdir -p " + mnt + " && ntfs-3g -o ro " + image_.path + " " + mnt + " && (cd " + mnt +
                   " && find . | sort); umount " + mnt + " 2>/dev/null");
    }
    // Clusters in use ($Bitmap) and records in use (the MFT's bitmap).
    std::pair<std::size_t, std::size_t> in_use() const {
        return {SetBits(cat("$Bitmap")), SetBits(run("ntfscat -a 0xb0 " + image_.path + " '$MFT' 2>/dev/null"))};
    }

    TestSupport::ImageFile image_;
    std::unique_ptr<Volume> volume_;
};

using Names = std::vector<std::string>;

TEST_F(NtfsDirectoryWrite, NewFilesAndDirectoriesAreSeenByTheOtherTools) {
    ASSERT_EQ(RaisedCode([&] { at(u"/").make_directory(u"made"); }), 0u);
    ASSERT_EQ(RaisedCode([&] { at(u"/made").make_directory(u"deeper"); }), 0u);
    EXPECT_EQ(create(u"/made", u"new.txt"), 0u);
    EXPECT_EQ(create(u"/dir", u"another.txt"), 0u);
    EXPECT_EQ(create(u"/made/deeper", u"Mixed Case.bin"), 0u);
    // A name there in any case, as a file or a directory, is not made again.
    EXPECT_EQ(RaisedCode([&] { at(u"/").make_directory(u"DIR"); }), Common::FILE_EXISTS);
    EXPECT_EQ(RaisedCode([&] { at(u"/").make_directory(u"HELLO.TXT"); }), Common::FILE_EXISTS);
    EXPECT_EQ(create(u"/", u"Empty"), Common::FILE_EXISTS);
    EXPECT_EQ(create(u"/", u"HELLO.TXT"), 0u);  // opened and cut to nothing
    EXPECT_EQ(RaisedCode([&] { at(u"/").make_directory(std::u16string(256, u'x')); }), Common::FILE_CREATE);
    // The listing of the driver itself, before anything is written back.
    const auto root = volume_->list(u"");
    EXPECT_EQ(root.entries.count(u"made"), 1u);
    EXPECT_EQ(root.entries.at(u"made").kind, KIND_DIRECTORY);
    volume_->unmount();

    EXPECT_EQ(listed("/made"), (Names{"deeper", "new.txt"}));
    EXPECT_EQ(listed("/made/deeper"), (Names{"Mixed Case.bin"}));
    EXPECT_EQ(listed("/dir"), (Names{"another.txt", "inner.txt", "sub"}));
    EXPECT_EQ(cat("/made/new.txt"), "");
    EXPECT_EQ(cat("/hello.txt"), "");
    EXPECT_EQ(listed("/"), (Names{"dir", "empty", "hello.txt", "made"}));
    EXPECT_NE(info("/made/deeper").find("$INDEX_ROOT"), std::string::npos);
    EXPECT_TRUE(sound());
    EXPECT_EQ(mounted_tree(),
              ".\n./dir\n./dir/another.txt\n./dir/inner.txt\n./dir/sub\n./dir/sub/leaf\n./empty\n./hello.txt\n"
              "./made\n./made/deeper\n./made/deeper/Mixed Case.bin\n./made/new.txt\n");
}

TEST_F(NtfsDirectoryWrite, RemovalsNeedTheRightKindAndAnEmptyDirectory) {
    const auto before = in_use();
    struct Row {
        const char* what;
        std::function<void()> change;
        std::uint32_t code;
    };
    const std::vector<Row> rows = {
        {"a file as a directory", [&] { at(u"/").remove_directory_entry(u"hello.txt"); }, Common::FILE_DELETE},
        {"a directory as a file", [&] { at(u"/").remove_file(u"empty"); }, Common::FILE_DELETE},
        {"a directory with entries", [&] { at(u"/").remove_directory_entry(u"dir"); }, Common::FILE_DELETE},
        {"an absent name", [&] { at(u"/").remove_file(u"absent"); }, Common::FILE_NOT_FOUND},
        {"a hidden system file", [&] { at(u"/").remove_file(u"$MFT"); }, Common::FILE_NOT_FOUND},
        {"a system file shown", [&] {
             unsigned char show[8] = {'S', 'Y', 'P', 'R', 1, 0};
             driver().control(show);
             at(u"/").remove_file(u"$LogFile");
         }, Common::FILE_READ_ONLY},
        {"made, then removed", [&] {
             at(u"/").make_directory(u"tmp");
             create(u"/tmp", u"x");
             at(u"/tmp").remove_file(u"X");
             driver().remove_dir(u"/tmp");
         }, 0},
        {"a file in any case", [&] { at(u"/").remove_file(u"HELLO.txt"); }, 0},
        {"the files and directories below", [&] {
             at(u"/dir/sub").remove_file(u"leaf");
             driver().remove_dir(u"/dir/sub");
             at(u"/dir").remove_file(u"inner.txt");
             driver().remove_dir(u"/dir");
             driver().remove_dir(u"/empty");
         }, 0},
    };
    for (const Row& row : rows) EXPECT_EQ(RaisedCode(row.change), row.code) << row.what;
    unsigned char hide[8] = {'S', 'Y', 'P', 'R', 1, 1};
    driver().control(hide);
    EXPECT_EQ(volume_->list(u"").entries.size(), 0u);
    volume_->unmount();

    EXPECT_EQ(listed("/"), Names{});
    EXPECT_TRUE(sound());
    // Every cluster and record that ntfs-3g had given the files is free again.
    const auto after = in_use();
    EXPECT_EQ(after.first + 5, before.first);    // the 20000 bytes of leaf
    EXPECT_EQ(after.second + 6, before.second);  // hello.txt, dir, empty, inner.txt, sub, leaf
}

TEST_F(NtfsDirectoryWrite, ADeletedFileTakesItsObjectIdAlong) {
    ASSERT_EQ(RaisedCode([&] { at(u"/").remove_file(u"hello.txt"); }), 0u);
    volume_->unmount();
    const std::string index = run("ntfsinfo -v -F '/$Extend/$ObjId' " + image_.path + " 2>&1");
    const struct {
        const char* owner;
        const char* guid;
        bool kept;
    } cases[] = {
        {"hello.txt, deleted", "11111111-2222-3333-4444-555555555555", false},
        {"dir/inner.txt, kept", "aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(index.find(std::string("Key GUID:\t\t ") + c.guid) != std::string::npos, c.kept) << c.owner;
    }
    EXPECT_TRUE(sound());
}

TEST_F(NtfsDirectoryWrite, RenamesWithinAndAcrossDirectories) {
    struct Row {
        const char16_t* from;
        const char16_t* to;
        std::uint32_t code;
    };
    const Row rows[] = {
        {u"/hello.txt", u"/renamed.txt", 0},
        {u"/dir/inner.txt", u"/moved.txt", 0},
        {u"/renamed.txt", u"/MOVED.txt", Common::FILE_EXISTS},  // over an existing name
        {u"/moved.txt", u"/Moved.TXT", Common::FILE_EXISTS},    // only the case differs
        {u"/empty", u"/dir/sub/was empty", 0},                  // a directory, across
        {u"/absent", u"/new", Common::FILE_NOT_FOUND},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(RaisedCode([&] { driver().rename(row.from, row.to); }), row.code)
            << std::string(row.to, row.to + std::char_traits<char16_t>::length(row.to));
    }
    volume_->unmount();

    EXPECT_EQ(listed("/"), (Names{"dir", "moved.txt", "renamed.txt"}));
    EXPECT_EQ(listed("/dir/sub"), (Names{"leaf", "was empty"}));
    EXPECT_EQ(cat("/renamed.txt"), "hello\n");
    EXPECT_EQ(cat("/moved.txt"), "inner\n");
    // The moved directory names its new parent, and each file has one name left.
    EXPECT_EQ(number("/dir/sub/was empty", "Parent directory:\t "), number("/dir/sub", "Dumping Inode "));
    const std::string renamed = info("/renamed.txt");
    EXPECT_NE(renamed.find("'renamed.txt'"), std::string::npos);
    EXPECT_EQ(renamed.find("'hello.txt'"), std::string::npos);
    EXPECT_TRUE(sound());
}

// "Case.txt" is a Win32 name with its DOS twin, "case.txt" beside it a
// POSIX name that only its case tells apart. A lookup ignores case, so a
// rename takes whichever of the two it meets first, and the other one next:
// the Win32 name goes with its twin, the POSIX name alone.
TEST_F(NtfsDirectoryWrite, APosixNameBesideAWin32OneIsRenamedAlone) {
    volume_.reset();
    const std::vector<unsigned char> twins = TestSupport::MakeNtfsImage(
        "truncate -s 16M volume.img; mkntfs -F -f -q volume.img; mkdir mnt; ntfs-3g volume.img mnt;"
        " printf win > mnt/Case.txt; setfattr -n system.ntfs_dos_name -v CASE~1.TXT mnt/Case.txt;"
        " printf posix > mnt/case.txt; umount mnt");
    if (twins.empty()) GTEST_SKIP() << "ntfs-3g over FUSE isn't available";
    image_.store(twins);
    volume_ = std::make_unique<Volume>(image_.path);
    ASSERT_NE(volume_->driver, nullptr);
    const struct {
        const char16_t* from;
        const char16_t* to;
        Names left;
    } steps[] = {
        {u"/case.txt", u"/first.txt", {"case.txt", "first.txt"}},
        {u"/CASE.TXT", u"/second.txt", {"first.txt", "second.txt"}},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(RaisedCode([&] { driver().rename(step.from, step.to); }), 0u);
        volume_->unmount();
        Names left = listed("/");
        // Whichever spelling stayed, it is listed as it was written.
        for (std::string& name : left) {
            if (name == "Case.txt") name = "case.txt";
        }
        EXPECT_EQ(left, step.left);
        volume_ = std::make_unique<Volume>(image_.path);
    }
    volume_->unmount();
    Names contents = {cat("/first.txt"), cat("/second.txt")};
    std::sort(contents.begin(), contents.end());
    EXPECT_EQ(contents, (Names{"posix", "win"}));
    for (const char* name : {"/first.txt", "/second.txt"}) {
        const std::string record = info(name);
        EXPECT_EQ(record.find("CASE~1.TXT"), std::string::npos) << record;
        EXPECT_EQ(record.find("ase.txt'"), std::string::npos) << record;
    }
    EXPECT_TRUE(sound());
}

TEST_F(NtfsDirectoryWrite, HardLinksComeAndGo) {
    struct Row {
        const char16_t* from;
        const char16_t* to;
        std::uint32_t code;
    };
    const Row rows[] = {
        {u"/hello.txt", u"/dir/second.txt", 0},
        {u"/hello.txt", u"/third.txt", 0},
        {u"/hello.txt", u"/THIRD.TXT", Common::FILE_EXISTS},
        {u"/dir", u"/dir link", Common::FILE_CREATE},  // directories have one name
    };
    for (const Row& row : rows) EXPECT_EQ(RaisedCode([&] { driver().link(row.from, row.to); }), row.code);
    volume_->unmount();
    EXPECT_EQ(cat("/dir/second.txt"), "hello\n");
    EXPECT_EQ(cat("/third.txt"), "hello\n");
    EXPECT_NE(info("/third.txt").find("Number of Hard Links:\t 3"), std::string::npos) << info("/third.txt");
    EXPECT_TRUE(sound());

    // A name between the other two goes, from the index and from the
    // record; the file stays under the other two.
    volume_ = std::make_unique<Volume>(image_.path);
    ASSERT_NE(volume_->driver, nullptr);
    EXPECT_EQ(RaisedCode([&] { at(u"/dir").remove_file(u"second.txt"); }), 0u);
    volume_->unmount();
    EXPECT_EQ(listed("/dir"), (Names{"inner.txt", "sub"}));
    const std::string names = info("/hello.txt");
    EXPECT_NE(names.find("Number of Hard Links:\t 2"), std::string::npos) << names;
    EXPECT_NE(names.find("'hello.txt'"), std::string::npos);
    EXPECT_NE(names.find("'third.txt'"), std::string::npos);
    EXPECT_EQ(names.find("'second.txt'"), std::string::npos);
    EXPECT_TRUE(sound());
}

TEST_F(NtfsDirectoryWrite, ShortNamesPairWithTheLongName) {
    ASSERT_EQ(create(u"/", u"A Long File Name.text"), 0u);
    EXPECT_EQ(RaisedCode([&] { at(u"/").set_short_name(u"A Long File Name.text", u"ALONGF~1.TEX"); }), 0u);
    // The short name is taken now; a second one replaces the first.
    EXPECT_EQ(RaisedCode([&] { at(u"/").set_short_name(u"hello.txt", u"alongf~1.tex"); }), Common::FILE_RENAME);
    EXPECT_EQ(RaisedCode([&] { at(u"/").set_short_name(u"a long file name.TEXT", u"ALONG~22.TEX"); }), 0u);
    std::unique_ptr<FileSystemDriver::IteratorObject> entry;
    EXPECT_EQ(RaisedCode([&] { entry.reset(at(u"/").find(u"A Long File Name.text")); }), 0u);
    ASSERT_NE(entry, nullptr);
    std::u16string short_name;
    EXPECT_EQ(RaisedCode([&] { short_name = entry->short_name(); }), 0u);
    EXPECT_EQ(short_name, u"ALONG~22.TEX");
    EXPECT_EQ(entry->links(), 1u);
    entry.reset();
    EXPECT_EQ(volume_->list(u"").entries.count(u"ALONG~22.TEX"), 0u);  // listed once, by its long name
    volume_->unmount();

    EXPECT_EQ(listed("/"), (Names{"A Long File Name.text", "dir", "empty", "hello.txt"}));
    const std::string names = info("/A Long File Name.text");
    EXPECT_NE(names.find("Namespace:\t\t Win32"), std::string::npos) << names;
    EXPECT_NE(names.find("Namespace:\t\t DOS"), std::string::npos) << names;
    EXPECT_EQ(names.find("ALONGF~1"), std::string::npos);
    EXPECT_NE(info("/ALONG~22.TEX").find("A Long File Name.text"), std::string::npos);
    EXPECT_TRUE(sound());

    // A rename leaves one POSIX name and no short one.
    volume_ = std::make_unique<Volume>(image_.path);
    ASSERT_NE(volume_->driver, nullptr);
    EXPECT_EQ(RaisedCode([&] { driver().rename(u"/A Long File Name.text", u"/dir/plain"); }), 0u);
    volume_->unmount();
    EXPECT_EQ(listed("/dir"), (Names{"inner.txt", "plain", "sub"}));
    EXPECT_EQ(info("/dir/plain").find("DOS"), std::string::npos);
    EXPECT_TRUE(sound());
}

TEST_F(NtfsDirectoryWrite, IteratorsFindTheirPlaceAgainAfterAChange) {
    std::unique_ptr<FileSystemDriver::IteratorObject> walk(at(u"/").begin());
    ASSERT_NE(walk, nullptr);
    EXPECT_EQ(walk->name(), u"dir");
    // Names before and after the iterator's change the tree under it.
    EXPECT_EQ(create(u"/", u"aaa"), 0u);
    EXPECT_EQ(create(u"/", u"dzz"), 0u);
    ASSERT_TRUE(walk->next());
    EXPECT_EQ(walk->name(), u"dzz");
    // The entry under the iterator goes: its next step has lost its place.
    EXPECT_EQ(RaisedCode([&] { at(u"/").remove_file(u"dzz"); }), 0u);
    EXPECT_EQ(RaisedCode([&] { walk->next(); }), Common::FILE_NOT_FOUND);
}

TEST_F(NtfsDirectoryWrite, JunctionsPointAtTheirTarget) {
    const std::vector<unsigned char> data = ntfs::JunctionData(u"C:\\data");
    ASSERT_EQ(data.size(), (11u + 7u) * 2 + 20);
    EXPECT_EQ(RaisedCode([] { ntfs::JunctionData(std::u16string(5000, u'x')); }), Common::FILE_CREATE);

    EXPECT_EQ(RaisedCode([&] { at(u"/").symlink_entry(u"jump", u"C:\\data"); }), 0u);
    std::unique_ptr<FileSystemDriver::IteratorObject> entry(at(u"/").find(u"jump"));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->link_target(), u"C:\\data");
    EXPECT_EQ(entry->kind(), 150u);
    entry.reset();
    volume_->unmount();
    EXPECT_NE(info("/jump").find("$REPARSE_POINT"), std::string::npos);
    EXPECT_TRUE(sound());
}

}  // namespace

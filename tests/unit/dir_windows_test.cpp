// Directories of the drive-letter flavour over the in-memory tree: paths
// composed on the directory, the path walk behind open_parent, iterators,
// stored errors that clear on success, and the flavour's refusals.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "fsdriver/file_reference.h"
#include "fsdriver/file_system_driver_windows.h"
#include "fsdriver/iterator_reference.h"
#include "tests/unit/driver_test_disk.h"

namespace {

using WinTree = driver_test::NotingTreeDriverOf<FileSystemDriverWindows>;

struct WinVolume : driver_test::NotingVolume<FileSystemDriverWindows> {
    WinVolume() : NotingVolume(u"/empty") {}
};

TEST(DirWindows, RootAndItsOwnEntry) {
    WinVolume v;
    auto root = v.root();
    EXPECT_EQ(root->path(), u"C:\\");
    std::unique_ptr<i_dir::iterator> self(root->self());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->name(), u"C:");
    EXPECT_EQ(self->kind(), 131u);
    EXPECT_EQ(self->size(), 0u);
    std::unique_ptr<file_identifier> id(self->identifier());
    EXPECT_EQ(std::u16string(static_cast<the_identifier*>(id.get())->name()), u"");
    EXPECT_FALSE(self->next());
    EXPECT_EQ(self->error().Code(), Common::FILE_UNSUPPORTED);

    // Below the root, self() is the parent's entry of the directory.
    std::unique_ptr<rio_dir> grub(root->open_dir(u"boot\\grub"));
    std::unique_ptr<i_dir::iterator> entry(grub->self());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->name(), u"grub");
    EXPECT_EQ(entry->kind(), unsigned(KIND_DIRECTORY));
}

TEST(DirWindows, OpenParentWalksToTheLastComponent) {
    WinVolume v;
    auto root = v.root();
    const char16_t* path = u"vmlinuz";
    std::unique_ptr<rio_dir> same(root->open_parent(path));
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(same->path(), u"C:\\");
    EXPECT_EQ(std::u16string(path), u"vmlinuz");
    EXPECT_NE(same.get(), root.get());

    const char16_t* deep = u"boot/grub/grub.cfg";
    std::unique_ptr<rio_dir> grub(root->open_parent(deep));
    ASSERT_NE(grub, nullptr);
    EXPECT_EQ(grub->path(), u"C:\\boot\\grub\\");
    EXPECT_EQ(std::u16string(deep), u"grub.cfg");

    // The walk of the loader: parent, then the file in it.
    const char16_t* kernel = u"\\boot\\vmlinuz";
    std::unique_ptr<rio_dir> boot(root->open_parent(kernel));
    std::unique_ptr<ri_file> file(boot->open_file(kernel, false));
    ASSERT_NE(file, nullptr);
    EXPECT_FALSE(boot->failed());
}

TEST(DirWindows, OpeningIsLazyAndFailuresAreStoredUntilASuccess) {
    WinVolume v;
    auto root = v.root();
    // Nothing is read to open a directory; the first use finds it missing.
    std::unique_ptr<rio_dir> missing(root->open_dir(u"nowhere"));
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(missing->begin(), nullptr);
    EXPECT_EQ(missing->error().Code(), Common::FILE_OPEN);

    EXPECT_EQ(root->open_file(u"boot\\nothing", false), nullptr);
    EXPECT_EQ(root->error().Code(), Common::FILE_OPEN);
    std::unique_ptr<ri_file> file(root->open_file(u"boot/vmlinuz", false));
    EXPECT_NE(file, nullptr);
    EXPECT_FALSE(root->failed());

    // Another drive composes, but the volume is drive C only.
    EXPECT_EQ(root->open_dir(u"D:\\foo"), nullptr);
    EXPECT_EQ(root->error().Code(), Common::FILE_OPEN);
    std::unique_ptr<rio_dir> up(root->open_dir(u".."));
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(up->path(), u"C:\\");
}

TEST(DirWindows, RefusalCodesOfEmptyAndRefusedPaths) {
    WinVolume v;
    auto root = v.root();
    struct Case {
        const char* what;
        void (*call)(rio_dir&);
        std::uint32_t code;
    } const cases[] = {
        {"open_file", [](rio_dir& d) { delete d.open_file(u"", false); }, Common::FILE_OPEN},
        {"open_dir", [](rio_dir& d) { delete d.open_dir(static_cast<const char16_t*>(nullptr)); }, Common::FILE_OPEN},
        {"open_for_write", [](rio_dir& d) { delete d.open_for_write(u"a*b", false); }, Common::FILE_OPEN},
        {"create_file", [](rio_dir& d) { delete d.create_file(u""); }, Common::FILE_CREATE},
        {"make_dir", [](rio_dir& d) { d.make_dir(u"bad?"); }, Common::FILE_CREATE},
        {"remove_file", [](rio_dir& d) { d.remove_file(u""); }, Common::FILE_DELETE},
        {"remove_dir", [](rio_dir& d) { d.remove_dir(u""); }, Common::FILE_DELETE},
        {"remove_dir of the root", [](rio_dir& d) { d.remove_dir(u"\\"); }, Common::FILE_DELETE},
        {"rename", [](rio_dir& d) { d.rename(u"", u"x"); }, Common::FILE_RENAME},
        {"find", [](rio_dir& d) { delete d.find(u"a\\b"); }, Common::FILE_OPEN},
        {"label below the root", [](rio_dir& d) {
             std::unique_ptr<rio_dir> boot(d.open_dir(u"boot"));
             char16_t buffer[4] = {u'x', 0, 0, 0};
             boot->label(buffer, 4);
             EXPECT_EQ(buffer[0], 0);
             d.set_error(boot->error());
         }, Common::FILE_UNSUPPORTED},
    };
    for (const Case& c : cases) {
        c.call(*root);
        EXPECT_EQ(root->error().Code(), c.code) << c.what;
        root->set_error(Common::Error());
    }
}

TEST(DirWindows, ListingAndTheEmptyDirectory) {
    WinVolume v;
    auto root = v.root();
    std::unique_ptr<i_dir::iterator> walk(root->begin());
    ASSERT_NE(walk, nullptr);
    std::u16string names;
    for (bool more = !walk->failed(); more; more = walk->next()) names += walk->name() + u";";
    EXPECT_EQ(names, u"boot;empty;");
    EXPECT_EQ(walk->error().Code(), Common::FILE_EOF);

    std::unique_ptr<rio_dir> empty(root->open_dir(u"empty"));
    std::unique_ptr<i_dir::iterator> none(empty->begin());
    ASSERT_NE(none, nullptr);  // a reference in the failed state, not a null answer
    EXPECT_EQ(none->error().Code(), Common::FILE_EOF);
    EXPECT_FALSE(empty->failed());

    std::unique_ptr<i_dir::iterator> found(root->find(u"boot"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->name(), u"boot");
    std::unique_ptr<rio_dir> boot(root->open_dir(*found));
    ASSERT_NE(boot, nullptr);
    EXPECT_EQ(boot->path(), u"C:\\boot\\");
}

TEST(DirWindows, TreeChangesThroughTheReference) {
    WinVolume v;
    auto root = v.root();
    root->make_dir(u"new");
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->nodes[0].entries.count(u"new"), 1u);
    root->rename(u"new", u"boot\\moved");
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->nodes[0].entries.count(u"new"), 0u);
    std::unique_ptr<rio_dir> moved(root->open_dir(u"boot\\moved"));
    std::unique_ptr<i_dir::iterator> self(moved->self());
    EXPECT_EQ(self->name(), u"moved");
    root->remove_dir(u"boot\\moved");
    EXPECT_FALSE(root->failed());
    root->remove_dir(u"boot");  // not empty
    EXPECT_EQ(root->error().Code(), Common::FILE_DELETE);
}

TEST(DirWindows, RelationsAndRequests) {
    WinVolume v;
    WinVolume other;
    auto root = v.root();
    std::unique_ptr<rio_dir> boot(root->open_dir(u"boot"));
    std::unique_ptr<rio_dir> grub(root->open_dir(u"boot\\grub"));
    std::unique_ptr<rio_dir> empty(root->open_dir(u"empty"));
    std::unique_ptr<rio_dir> again(root->clone());
    auto foreign = other.root();
    EXPECT_EQ(root->relation(*root), 0u);
    EXPECT_EQ(root->relation(*again), 0u);
    EXPECT_EQ(root->relation(*grub), 1u);
    EXPECT_EQ(boot->relation(*grub), 1u);
    EXPECT_EQ(grub->relation(*boot), 2u);
    EXPECT_EQ(boot->relation(*empty), 2u);
    EXPECT_EQ(root->relation(*foreign), 2u);

    struct {
        std::uint32_t word, pad;
        nocache_dir* part;
    } request = {0x5244434E, 0, nullptr};  // "NCDR"
    grub->control(&request);
    ASSERT_NE(request.part, nullptr);
    EXPECT_EQ(request.part->block_size(), 512u);
    EXPECT_EQ(request.part->create_nocache(u"a:b"), nullptr);
    EXPECT_EQ(grub->error().Code(), Common::FILE_UNSUPPORTED);

    // Words the directory doesn't know go on to the driver.
    std::uint32_t type[8] = {0x54534647};  // "GFST"
    root->control(type);
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(reinterpret_cast<char16_t*>(type + 1)[0], u'F');
    std::uint32_t unknown[2] = {0x58585858, 0};
    root->control(unknown);
    EXPECT_EQ(root->error().Code(), Common::FILE_UNSUPPORTED);
}

TEST(DirWindows, ShortNameAndFormatRequests) {
    WinVolume v;
    auto root = v.root();
    std::unique_ptr<rio_dir> grub(root->open_dir(u"boot\\grub"));
    delete grub->begin();  // the walk enters the path cache
    ASSERT_FALSE(v.driver->path_cache.empty());

    struct {
        std::uint32_t word, pad;
        const char16_t* name;
        const char16_t* short_name;
    } request = {0x4E465353, 0, u"boot", u"BOOT~1"};  // "SSFN"
    root->control(&request);
    EXPECT_FALSE(root->failed());
    EXPECT_TRUE(v.driver->path_cache.empty());
    for (auto names : {std::make_pair(u"a:b", u"AB"), std::make_pair(u"boot", u"B*"), std::make_pair(u"", u"X")}) {
        request.name = names.first;
        request.short_name = names.second;
        root->control(&request);
        EXPECT_EQ(root->error().Code(), Common::FILE_RENAME);
    }
    EXPECT_EQ(v.driver->notes, std::vector<std::string>{"short boot BOOT~1"});

    // "MKFF" belongs to the root, and goes on to the driver from there only.
    std::uint32_t make_ff[4] = {0x46464B4D};
    grub->control(make_ff);
    EXPECT_EQ(grub->error().Code(), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(v.driver->notes.size(), 1u);
    root->control(make_ff);
    EXPECT_EQ(v.driver->notes.back(), "driver MKFF");

    // "SRSQ" is both flavours'; "STME" is the other flavour's.
    const char data[] = "sd";
    struct {
        std::uint32_t word, pad;
        const char16_t* path;
        const void* data;
        std::uint64_t size;
    } security = {0x51535253, 0, u"\\boot\\vmlinuz", data, 2}, times = {0x454D5453, 0, u"boot", nullptr, 0};
    root->control(&security);
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->notes.back(), "security vmlinuz sd");
    root->control(&times);
    EXPECT_EQ(root->error().Code(), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(v.driver->notes.back(), "driver STME");
}

TEST(DirWindows, DirectoriesKeepTheDriverAlive) {
    bool destroyed = false;
    auto* disk = new driver_test::MemoryDisk(512, 64, &destroyed);
    auto* driver = new WinTree(disk);
    driver->flags |= MOUNT_OWNS_DEVICE;
    ++driver->references;
    std::unique_ptr<rio_dir> root(driver->open_root());
    std::unique_ptr<rio_dir> path(driver->open_path(u"a\\b"));
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(path->path(), u"C:\\a\\b\\");
    EXPECT_EQ(driver->open_path(u"a|b"), nullptr);
    release(driver);
    root.reset();
    EXPECT_FALSE(destroyed);
    path.reset();
    EXPECT_TRUE(destroyed);
}

}  // namespace

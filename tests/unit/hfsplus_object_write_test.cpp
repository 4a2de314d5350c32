// The HFS+ directory and file objects taking changes on volumes that
// mkfs.hfsplus makes: files written, renamed, linked and deleted, folders
// made and removed, through the framework as the loader uses it; judged by
// fsck.hfsplus and sleuthkit after the unmount and read back by a new
// mount. Then the rules: files open elsewhere, names that may not be
// touched, and the refusals, which change nothing that can be seen.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using TestSupport::HfsplusFsckComplaints;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;
using FileObject = FileSystemDriver::FileObject;
using DirectoryObject = FileSystemDriver::DirectoryObject;


// The catalog id sleuthkit gives the entry at `path` ("d/name"), 0 if none.
std::string InodeOf(const std::string& image, const std::string& path) {
    const std::string listing = TestSupport::CaptureOutput("fls -r -p " + image);
    const std::string tail = ":\t" + path + "\n";
    const std::size_t at = listing.find(tail);
    if (at == std::string::npos) return "0";
    const std::size_t start = listing.rfind(' ', at) + 1;
    return listing.substr(start, at - start);
}

std::string Content(const std::string& image, const std::string& path) {
    return TestSupport::CaptureOutput("icat " + image + " " + InodeOf(image, path));
}

// Writes `data` to a new file at `path` through the framework.
void WriteNew(Volume& volume, const std::u16string& path, const std::string& data) {
    std::unique_ptr<rio_file> file(volume.root->create_file(path.c_str()));
    ASSERT_NE(file, nullptr);
    ASSERT_FALSE(file->failed()) << file->error().Code();
    std::uint64_t written = 0;
    file->write(data.data(), data.size(), written);
    EXPECT_EQ(written, data.size());
    EXPECT_FALSE(file->failed()) << file->error().Code();
}

struct VolumeCase {
    const char* what;
    const char* size;
    const char* mkfs;
};

const VolumeCase kVolumes[] = {
    {"plain", "16M", ""},
    {"journaled", "128M", "-J"},
    {"HFSX", "16M", "-s"},
};

TEST(HfsPlusObjectWrite, ChangesPassTheCheckersAndReadBack) {
    const std::string small = "small file, written through the framework\n";
    const std::string big = TestSupport::Pattern(3 * 1024 * 1024 + 123, 5);
    const std::string rewritten = TestSupport::Pattern(70000, 9);
    for (const VolumeCase& c : kVolumes) {
        SCOPED_TRACE(c.what);
        TestSupport::ImageFile image;
        ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, c.size, c.mkfs));
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            rio_dir& root = *volume.root;
            root.make_dir(u"d");
            root.make_dir(u"d/sub");
            root.make_dir(u"gone");
            WriteNew(volume, u"small.txt", small);
            WriteNew(volume, u"d/big.bin", big);
            WriteNew(volume, u"tmp.txt", "temporary");
            // Attributes on a file, a folder, and a file that goes with them.
            auto& top = dynamic_cast<HFSPlusDirectoryObject&>(*volume.driver->get_directory(u"/"));
            ASSERT_TRUE(volume.driver->metadata().HasComponent(5));
            top.AddInlineAttribute(u"small.txt", u"user.note", "kept", 4);
            top.AddInlineAttribute(u"d", u"user.folder", "on a folder", 11);
            top.AddInlineAttribute(u"tmp.txt", u"user.gone", "goes", 4);
            EXPECT_EQ(RaisedCode([&] { top.AddInlineAttribute(u"small.txt", u"user.note", "again", 5); }),
                      Common::FILE_EXISTS);
            EXPECT_EQ(RaisedCode([&] { top.AddInlineAttribute(u"d", u"com.apple.FinderInfo", "x", 1); }),
                      Common::FILE_UNSUPPORTED);
            WriteNew(volume, u"over.bin", big.substr(0, 200000));
            // Creating over a file empties it.
            WriteNew(volume, u"over.bin", rewritten);
            root.rename(u"small.txt", u"d/moved.txt");
            root.rename(u"d/big.bin", u"d/large.bin");
            root.link(u"d/large.bin", u"hard.bin");
            root.link(u"hard.bin", u"d/sub/third.bin");
            root.symlink(u"sym", u"d/moved.txt");
            root.remove_dir(u"gone");
            root.remove_file(u"tmp.txt");
            root.remove_file(u"d/sub/third.bin");
            root.set_permissions(u"d/moved.txt", 0100600);
            // A link's owner is its inode's.
            root.set_owner(u"hard.bin", 1000, 100);
            EXPECT_FALSE(root.failed()) << root.error().Code();
            volume.unmount();
        }
        EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
        const std::string names = TestSupport::CaptureOutput("fls -r -p " + image.path);
        for (const char* present : {"d/moved.txt", "d/large.bin", "hard.bin", "sym", "d/sub", "over.bin"}) {
            EXPECT_NE(names.find(std::string("\t") + present + "\n"), std::string::npos) << present << "\n" << names;
        }
        for (const char* absent : {"gone", "tmp.txt", "third.bin", "small.txt", "big.bin"}) {
            EXPECT_EQ(names.find(absent), std::string::npos) << absent;
        }
        // Both names reach one inode, which counts them.
        EXPECT_EQ(InodeOf(image.path, "hard.bin"), InodeOf(image.path, "d/large.bin"));
        const std::string inode = TestSupport::CaptureOutput("istat " + image.path + " " + InodeOf(image.path, "hard.bin"));
        EXPECT_NE(inode.find("Link count:\t2\n"), std::string::npos) << inode;
        EXPECT_NE(inode.find("uid / gid: 1000 / 100\n"), std::string::npos) << inode;
        EXPECT_NE(inode.find("Size:\t" + std::to_string(big.size()) + "\n"), std::string::npos) << inode;
        EXPECT_EQ(Content(image.path, "d/moved.txt"), small);
        EXPECT_EQ(Content(image.path, "d/large.bin"), big);
        EXPECT_EQ(Content(image.path, "hard.bin"), big);
        EXPECT_EQ(Content(image.path, "over.bin"), rewritten);
        EXPECT_EQ(Content(image.path, "sym"), "d/moved.txt");
        // What was written reads back through a new mount.
        Volume again(image.path);
        ASSERT_NE(again.driver, nullptr);
        EXPECT_EQ(again.read(u"d/moved.txt"), small);
        EXPECT_EQ(again.read(u"hard.bin"), big);
        EXPECT_EQ(again.read(u"over.bin"), rewritten);
        AttributesFile& attributes = again.driver->metadata().GetAttributesFile();
        const std::vector<unsigned char> note = attributes.GetInlineData(
            std::stoul(InodeOf(image.path, "d/moved.txt")), HFSPlusString(std::u16string(u"user.note")));
        EXPECT_EQ(std::string(note.begin(), note.end()), "kept");
        const auto kinds = again.list(u"").kinds();
        EXPECT_EQ(kinds, (std::map<std::u16string, std::uint32_t>{{u"d", KIND_DIRECTORY},
                                                                    {u"hard.bin", KIND_FILE},
                                                                    {u"over.bin", KIND_FILE},
                                                                    {u"sym", KIND_SYMLINK}}));
        auto link = again.find(u"d", u"large.bin");
        ASSERT_NE(link, nullptr);
        EXPECT_EQ(link->links(), 2u);
        EXPECT_EQ(link->size(), big.size());
        EXPECT_EQ(link->permissions() & 0777, 0644u);
        auto moved = again.find(u"d", u"moved.txt");
        ASSERT_NE(moved, nullptr);
        EXPECT_EQ(moved->permissions(), 0100600u);
        std::unique_ptr<i_dir::iterator> sym(again.root->find(u"sym"));
        ASSERT_NE(sym, nullptr);
        EXPECT_EQ(sym->link_target(), u"d/moved.txt");
    }
}

// A populated volume in memory for the rules: "a.txt", "b.txt", folder
// "sub" with "inner.txt", empty folder "empty".
struct Populated {
    Populated() {
        ok = TestSupport::MakeHfsplusVolume(image.path, "128M", "-J");
        if (!ok) return;
        Volume volume(image.path);
        volume.root->make_dir(u"sub");
        volume.root->make_dir(u"empty");
        WriteNew(volume, u"a.txt", "alpha");
        WriteNew(volume, u"b.txt", "beta");
        WriteNew(volume, u"sub/inner.txt", "inner");
        ok = !volume.root->failed();
        volume.unmount();
        ok = ok && HfsplusFsckComplaints(image.path).empty();
    }
    TestSupport::ImageFile image;
    bool ok = false;
};

TEST(HfsPlusObjectWrite, OpenFilesNamesAndRefusals) {
    Populated volume_files;
    ASSERT_TRUE(volume_files.ok);
    const std::string& path = volume_files.image.path;
    {
        Volume volume(path);
        ASSERT_NE(volume.driver, nullptr);
        DirectoryObject* root = volume.driver->get_directory(u"/");
        DirectoryObject* sub = volume.driver->get_directory(u"/sub");
        std::unique_ptr<FileObject> a(root->open_file(u"a.txt"));
        const unsigned char security[16] = {};
        const std::vector<std::pair<std::function<void()>, std::uint32_t>> refused = {
            {[&] { root->remove_file(u"a.txt"); }, Common::FILE_DELETE},
            {[&] { delete root->create_file(u"a.txt"); }, Common::FILE_DELETE},
            {[&] { root->rename_entry(u"a.txt", *sub, u"a.txt"); }, Common::FILE_RENAME},
            {[&] { delete root->create_file(u"sub"); }, Common::FILE_DELETE},
            {[&] { root->make_directory(u"sub"); }, Common::FILE_CREATE},
            {[&] { root->make_directory(u"b.txt"); }, Common::FILE_EXISTS},
            {[&] { root->remove_directory_entry(u"sub"); }, Common::FILE_DELETE},
            {[&] { root->remove_directory_entry(u"b.txt"); }, Common::FILE_DELETE},
            {[&] { root->remove_file(u"sub"); }, Common::FILE_DELETE},
            {[&] { root->remove_file(u".journal"); }, Common::FILE_DELETE},
            {[&] { delete root->create_file(u".journal"); }, Common::FILE_DELETE},
            {[&] { root->rename_entry(u".journal_info_block", *sub, u"j"); }, Common::FILE_RENAME},
            {[&] { root->rename_entry(u"b.txt", *root, u".journal"); }, Common::FILE_RENAME},
            {[&] { root->remove_file(u"absent"); }, Common::FILE_NOT_FOUND},
            {[&] { root->rename_entry(u"sub", *sub, u"sub2"); }, Common::FILE_RENAME},
            {[&] { root->rename_entry(u"b.txt", *root, u"a.txt"); }, Common::FILE_EXISTS},
            {[&] { root->rename_entry(u"absent", *root, u"x"); }, Common::FILE_RENAME},
            {[&] { root->rename_entry(u"b.txt", *root, u".."); }, Common::FILE_RENAME},
            {[&] { root->set_security(u"b.txt", security, 15); }, Common::FILE_CORRUPT},
            {[&] { root->symlink_entry(u"s", u""); }, Common::FILE_UNSUPPORTED},
            {[&] { root->symlink_entry(u"b.txt", u"x"); }, Common::FILE_CREATE},
            {[&] { delete root->create_file(u".."); }, Common::FILE_CREATE},
            {[&] { delete root->create_file(std::u16string(256, u'n')); }, Common::FILE_CREATE},
            {[&] { root->link_entry(u"sub", *root, u"l"); }, Common::FILE_CREATE},
            {[&] { root->link_entry(u"b.txt", *root, u"a.txt"); }, Common::FILE_DELETE},
            {[&] { root->make_node(u"n", KIND_FIFO, 0644, 0, 0); }, Common::FILE_UNSUPPORTED},
        };
        for (std::size_t i = 0; i < refused.size(); ++i) {
            EXPECT_EQ(RaisedCode(refused[i].first), refused[i].second) << "case " << i;
        }
        // "a" to "A" in one folder finds the entry itself and ends in the
        // catalog's refusal of a case change on a case-folding volume.
        EXPECT_EQ(RaisedCode([&] { root->rename_entry(u"b.txt", *root, u"B.txt"); }), Common::FILE_RENAME);

        // The first link turns the open file into a link: the object stays
        // valid and shares its content with the new name.
        std::uint64_t done = 0;
        a->write("ALPHA!", 0, 6, done);
        ASSERT_EQ(done, 6u);
        root->link_entry(u"a.txt", *sub, u"a-link.txt");
        // The first link made the private directory; it may not go, and
        // doesn't show.
        EXPECT_EQ(RaisedCode([&] { root->remove_directory_entry(u"HFS+ Private Data"); }), Common::FILE_DELETE);
        std::unique_ptr<FileObject> other(sub->open_file(u"a-link.txt"));
        char seen[7] = {};
        other->read(seen, 0, 6, done);
        EXPECT_EQ(std::string(seen, done), "ALPHA!");
        other->write("beta", 0, 4, done);
        a->read(seen, 0, 6, done);
        EXPECT_EQ(std::string(seen, done), "betaA!");
        // Two links: one of them may go though the inode is open; the last
        // may not.
        other.reset();
        sub->remove_file(u"a-link.txt");
        EXPECT_EQ(RaisedCode([&] { root->remove_file(u"a.txt"); }), Common::FILE_DELETE);
        a.reset();
        // Changes by name: a folder's record, and an open file's through its
        // object.
        std::unique_ptr<FileObject> held(sub->open_file(u"inner.txt"));
        const unsigned char mode[16] = {0, 0, 0, 7, 0, 0, 0, 8, 0, 0, 0x81, 0xA4};
        sub->set_security(u"inner.txt", mode, 16);
        held.reset();
        root->remove_file(u"b.txt");
        sub->rename_entry(u"inner.txt", *root, u"inner.txt");
        root->remove_directory_entry(u"empty");
        root->set_owner(u"sub", 501, 20);
        root->set_times(u"sub", 1000000000000ull, 946684800000ull, 1000000005000ull);
        volume.unmount();
    }
    EXPECT_EQ(HfsplusFsckComplaints(path), "");
    Volume again(path);
    ASSERT_NE(again.driver, nullptr);
    EXPECT_EQ(again.read(u"a.txt"), "betaA!");
    EXPECT_EQ(again.read(u"inner.txt"), "inner");
    EXPECT_EQ(again.list(u"").kinds(), (std::map<std::u16string, std::uint32_t>{
                                           {u"a.txt", KIND_FILE}, {u"inner.txt", KIND_FILE}, {u"sub", KIND_DIRECTORY}}));
    EXPECT_TRUE(again.list(u"sub").entries.empty());
    std::unique_ptr<i_dir::iterator> inner(again.root->find(u"inner.txt"));
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(inner->owner(), 7u);
    EXPECT_EQ(inner->group(), 8u);
    EXPECT_EQ(inner->permissions(), 0100644u);
    std::unique_ptr<i_dir::iterator> folder(again.root->find(u"sub"));
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(folder->modified(), 1000000000000ull);
    EXPECT_EQ(folder->created(), 946684800000ull);
    EXPECT_EQ(folder->accessed(), 1000000005000ull);
    EXPECT_EQ(folder->owner(), 501u);
    EXPECT_EQ(folder->group(), 20u);
}

TEST(HfsPlusObjectWrite, ReadOnlyVolumeRefusesEveryChangeAndWritesNothing) {
    Populated volume_files;
    ASSERT_TRUE(volume_files.ok);
    // A bitmap given at the mount stands for the volume's own and holds it read only.
    const std::vector<unsigned char> bitmap(4096, 0xFF);
    Volume volume(TestSupport::DiskOf(volume_files.image.path), bitmap.data(), bitmap.size());
    ASSERT_NE(volume.driver, nullptr);
    DirectoryObject* root = volume.driver->get_directory(u"/");
    DirectoryObject* sub = volume.driver->get_directory(u"/sub");
    std::unique_ptr<FileObject> file(root->open_file(u"a.txt"));
    const unsigned char security[16] = {};
    std::uint64_t written = 1;
    const std::vector<std::function<void()>> changes = {
        [&] { delete root->create_file(u"new.txt"); },
        [&] { root->remove_file(u"a.txt"); },
        [&] { root->remove_directory_entry(u"empty"); },
        [&] { root->make_directory(u"made"); },
        [&] { root->rename_entry(u"b.txt", *sub, u"moved.txt"); },
        [&] { root->link_entry(u"b.txt", *sub, u"link"); },
        [&] { root->symlink_entry(u"sym", u"a.txt"); },
        [&] { root->set_security(u"a.txt", security, 16); },
        [&] { root->set_permissions(u"a.txt", 0600); },
        [&] { root->set_owner(u"a.txt", 1, 1); },
        [&] { root->set_times(u"a.txt", 1, 1, 1); },
        [&] { volume.driver->refuse_if_unchangeable(); },
        [&] { file->write("x", 0, 1, written); },
        [&] { file->set_size(0); },
        [&] { file->set_times(1, 1, 1); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        EXPECT_EQ(RaisedCode(changes[i]), Common::FILE_READ_ONLY) << "change " << i;
    }
    EXPECT_EQ(written, 0u);
    file.reset();
    EXPECT_EQ(volume.read(u"a.txt"), "alpha");
    EXPECT_EQ(volume.disk->writes(), 0u);
}

}  // namespace

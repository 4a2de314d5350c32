// The driver core over a tiny in-memory tree: the path walk with its cache
// and its bound on idle directory objects, the tree-changing operations,
// dismount, driver requests and the driver's lifetime.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <new>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/directory_object.h"
#include "fsdriver/file_object.h"
#include "fsdriver/file_reference.h"
#include "fsdriver/iterator_reference.h"
#include "fsdriver/iterator_object.h"
#include "loader/common/messages.h"
#include "tests/support/raised_code.h"
#include "tests/unit/driver_test_disk.h"

namespace {

using driver_test::MemoryDisk;

using driver_test::Node;
using driver_test::Raise;
// The tree on the bare core, without a path flavour.
class TreeDriver : public driver_test::TreeDriverOf<FileSystemDriver> {
public:
    using TreeDriverOf::TreeDriverOf;
    rio_dir* open_root() override { return nullptr; }
    rio_dir* open_path(const char16_t*) override { return nullptr; }
};

struct Mounted {
    Mounted() : disk(512, 64), driver(new TreeDriver(&disk)) {}
    MemoryDisk disk;
    std::unique_ptr<TreeDriver> driver;
};

std::uint32_t CodeOf(void (*call)(TreeDriver&), TreeDriver& driver) {
    return TestSupport::RaisedCode([&] { call(driver); });
}

TEST(DriverCore, WalkFindsTheRootWithoutALookupAndCachesEveryPrefix) {
    Mounted m;
    m.driver->make_path(u"/A/B/C");
    FileSystemDriver::DirectoryObject* root = m.driver->get_directory(u"/");
    EXPECT_EQ(root->id, 0u);
    EXPECT_EQ(m.driver->lookups, 0);
    EXPECT_EQ(m.driver->get_directory(u"")->id, 0u);

    std::uint32_t c = m.driver->id_of(u"/A/B/C");
    EXPECT_EQ(m.driver->lookups, 3);
    EXPECT_EQ(m.driver->path_cache.size(), 3u);
    EXPECT_EQ(m.driver->path_cache.at(u"A/B/C"), c);
    // Shorter and equal paths come from the cache: A is not read again.
    EXPECT_EQ(m.driver->id_of(u"/A/B"), m.driver->nodes[m.driver->nodes[0].entries[u"A"]].entries[u"B"]);
    EXPECT_EQ(m.driver->id_of(u"/A/B/C"), c);
    EXPECT_EQ(m.driver->lookups, 3);

    // A longer path starts behind the longest known prefix.
    m.driver->make_path(u"/A/B/C/D");
    m.driver->id_of(u"/A/B/C/D");
    EXPECT_EQ(m.driver->lookups, 4);

    // A missing component and a file raise what lookup_directory raises.
    m.driver->make_file(0, u"file");
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.get_directory(u"/A/missing"); }, *m.driver), Common::FILE_OPEN);
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.get_directory(u"/file"); }, *m.driver), Common::FILE_OPEN);
}

TEST(DriverCore, PathCacheIsClearedWholesaleAbove256Entries) {
    Mounted m;
    for (int i = 0; i < 300; ++i) m.driver->make_path(u"/d" + std::u16string(1, char16_t(u'A' + i / 26)) +
                                                      std::u16string(1, char16_t(u'a' + i % 26)));
    int i = 0;
    for (const auto& entry : std::map<std::u16string, std::uint32_t>(m.driver->nodes[0].entries)) {
        EXPECT_EQ(m.driver->id_of(u"/" + entry.first), entry.second);
        ++i;
        if (i <= 256) {
            EXPECT_EQ(m.driver->path_cache.size(), std::size_t(i));
        } else if (i == 257) {
            EXPECT_TRUE(m.driver->path_cache.empty());
        }
    }
    EXPECT_EQ(m.driver->path_cache.size(), 300u - 257u);
}

TEST(DriverCore, IdleDirectoryObjectsAreBoundedLeastRecentlyUsedFirst) {
    Mounted m;
    for (char16_t c = u'a'; c <= u'k'; ++c) m.driver->make_path(std::u16string(u"/") + c);
    // Pinned by someone: kept although it is the least recently used.
    FileSystemDriver::DirectoryObject* a = m.driver->get_directory(u"/a");
    ++a->references;
    for (char16_t c = u'b'; c <= u'h'; ++c) m.driver->get_directory(std::u16string(u"/") + c);
    // root, a..h: nine objects; b, the least recently used idle one, went.
    EXPECT_EQ(m.driver->directory_count, 8u);
    EXPECT_EQ(m.driver->directories.count(a->id), 1u);
    EXPECT_EQ(m.driver->directories.count(m.driver->nodes[0].entries[u"b"]), 0u);
    EXPECT_EQ(m.driver->directories.count(m.driver->nodes[0].entries[u"c"]), 1u);
    m.driver->get_directory(u"/i");
    EXPECT_EQ(m.driver->directories.count(m.driver->nodes[0].entries[u"c"]), 0u);
    EXPECT_EQ(m.driver->directories.count(a->id), 1u);
    --a->references;
    // The object found by the walk itself always stays.
    int opened = m.driver->opened;
    m.driver->get_directory(u"/b");
    EXPECT_EQ(m.driver->opened, opened + 1);
    EXPECT_EQ(m.driver->directories.count(m.driver->nodes[0].entries[u"b"]), 1u);
    EXPECT_EQ(m.driver->directory_count, 8u);
}

TEST(DriverCore, RemoveDirRefusesAndThenRemoves) {
    Mounted m;
    m.driver->make_path(u"/full/inner");
    m.driver->make_path(u"/empty");
    m.driver->make_path(u"/held");
    struct Case {
        const char* what;
        void (*call)(TreeDriver&);
    } const refused[] = {
        {"root", [](TreeDriver& d) { d.remove_dir(u"/"); }},
        {"empty path", [](TreeDriver& d) { d.remove_dir(u""); }},
        {"not empty", [](TreeDriver& d) { d.remove_dir(u"/full"); }},
        {"held", [](TreeDriver& d) {
             ++d.get_directory(u"/held")->references;
             d.remove_dir(u"/held");
         }},
    };
    for (const Case& c : refused) {
        std::size_t entries = m.driver->nodes[0].entries.size();
        EXPECT_EQ(CodeOf(c.call, *m.driver), Common::FILE_DELETE) << c.what;
        EXPECT_EQ(m.driver->nodes[0].entries.size(), entries) << c.what;
    }
    std::uint32_t empty = m.driver->id_of(u"/empty");
    m.driver->remove_dir(u"/empty");
    EXPECT_EQ(m.driver->nodes[0].entries.count(u"empty"), 0u);
    EXPECT_EQ(m.driver->directories.count(empty), 0u);
    EXPECT_EQ(m.driver->path_cache.count(u"empty"), 0u);
    EXPECT_EQ(m.driver->path_cache.count(u"full"), 1u);  // others stay
}

TEST(DriverCore, RenameKeepsDirectoriesOutOfThemselves) {
    Mounted m;
    m.driver->make_path(u"/A/B/C");
    m.driver->make_file(0, u"f");
    std::map<std::u16string, std::uint32_t> before = m.driver->nodes[0].entries;
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.rename(u"/A", u"/A/B/C"); }, *m.driver), Common::FILE_RENAME);
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.rename(u"/A", u"/A/x"); }, *m.driver), Common::FILE_RENAME);
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.rename(u"/", u"/x"); }, *m.driver), Common::FILE_RENAME);
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.rename(u"/f", u"/"); }, *m.driver), Common::FILE_RENAME);
    EXPECT_EQ(m.driver->nodes[0].entries, before);

    std::uint32_t file = m.driver->nodes[0].entries[u"f"];
    m.driver->rename(u"/f", u"/A/B/C/g");
    EXPECT_EQ(m.driver->nodes[0].entries.count(u"f"), 0u);
    EXPECT_EQ(m.driver->nodes[m.driver->id_of(u"/A/B/C")].entries.at(u"g"), file);
    m.driver->rename(u"/A/B/C/g", u"/A/B/C/h");
    EXPECT_TRUE(m.driver->path_cache.empty());

    // A directory may move sideways, and the cache forgets its old place.
    m.driver->make_path(u"/Z");
    std::uint32_t c = m.driver->id_of(u"/A/B/C");
    m.driver->rename(u"/A/B/C", u"/Z/C");
    EXPECT_EQ(m.driver->id_of(u"/Z/C"), c);
    EXPECT_EQ(CodeOf([](TreeDriver& d) { d.get_directory(u"/A/B/C"); }, *m.driver), Common::FILE_OPEN);
}

// A file with a writer, to see dismount reach it.
class FlushCounting : public FileSystemDriver::FileObject {
public:
    explicit FlushCounting(std::vector<int>& order, int tag) : order_(order), tag_(tag) {}
    std::uint64_t size() override { return 0; }
    std::uint64_t sector_at(std::uint64_t) override { return 0; }
    void read(void*, std::uint64_t, std::uint64_t, std::uint64_t& got) override { got = 0; }
    void write(const void*, std::uint64_t, std::uint64_t, std::uint64_t& written) override { written = 0; }
    void set_size(std::uint64_t) override {}
    void set_times(std::uint64_t m, std::uint64_t c, std::uint64_t a) override { times = {m, c, a}; }
    void flush_file() override { order_.push_back(tag_); }
    std::vector<std::uint64_t> times;

private:
    std::vector<int>& order_;
    int tag_;
};

TEST(DriverCore, DismountFlushesWritersInListOrderThenBlocks) {
    Mounted m;
    std::vector<int> order;
    FlushCounting first(order, 1), second(order, 2);
    m.driver->writer_list.push_head(&first);
    m.driver->writer_list.push_head(&second);
    {
        BlockHandle block = m.driver->get_block(3, 1, false);
        m.driver->prepare_block_write(block);
        block.data()[0] = 0x42;
        block.set_dirty();
    }
    std::uint32_t request[2] = {0x544E4D44, 0};  // "DMNT"
    m.driver->control(request);
    EXPECT_EQ(order, (std::vector<int>{2, 1}));
    EXPECT_EQ(m.disk.sector(3)[0], 0x42);
    first.unlink();
    second.unlink();
}

TEST(DriverCore, FileObjectRequests) {
    std::vector<int> order;
    FlushCounting file(order, 0);
    std::uint64_t times[4];
    std::uint32_t word = 0x4D544653;  // "SFTM"
    std::memcpy(times, &word, 4);
    times[1] = 11, times[2] = 22, times[3] = 33;
    file.control(times);
    EXPECT_EQ(file.times, (std::vector<std::uint64_t>{11, 22, 33}));
    struct {
        std::uint32_t word;
        std::uint32_t code;
    } const unsupported[] = {{0x4D434C41, Common::FILE_UNSUPPORTED} /* "ALCM" without ranges */,
                             {0x58585858, Common::FILE_UNSUPPORTED}};
    for (const auto& c : unsupported) {
        std::uint64_t block[4] = {c.word, 0, 0, 0};
        EXPECT_EQ(TestSupport::RaisedCode([&] { file.control(block); }), c.code) << std::hex << c.word;
    }
}

TEST(DriverCore, DriverRequests) {
    Mounted m;
    m.driver->mount_id = 0;
    std::uint32_t mount[2] = {0x50595347, 0xFFFF};  // "GSYP"
    m.driver->control(mount);
    EXPECT_EQ(mount[1], 0u);

    unsigned char type[4 + 8 * 2];
    std::memset(type, 0xFF, sizeof(type));
    std::uint32_t word = 0x54534647;  // "GFST"
    std::memcpy(type, &word, 4);
    m.driver->control(type);
    std::u16string name(6, u'?');
    std::memcpy(&name[0], type + 4, 12);
    EXPECT_EQ(name, std::u16string(u"FAT16\0", 6));

    EXPECT_EQ(CodeOf([](TreeDriver& d) {
                  std::uint32_t block[2] = {0x58585858, 0};
                  d.control(block);
              }, *m.driver),
              Common::FILE_UNSUPPORTED);
}

TEST(DriverCore, ReleaseDestroysTheDriverAndTheDeviceItOwns) {
    for (bool owns : {false, true}) {
        bool destroyed = false;
        auto* disk = new MemoryDisk(512, 64, &destroyed);
        FileSystemMountHandler* driver = new TreeDriver(disk);
        if (owns) driver->flags |= MOUNT_OWNS_DEVICE;
        ++driver->references;
        ++driver->references;
        release(driver);
        EXPECT_FALSE(destroyed);
        release(driver);  // the last reference: the driver goes
        EXPECT_EQ(destroyed, owns);
        if (!owns) delete disk;
    }
}

using driver_test::MemoryFile;

TEST(DriverReferences, ReadersAndWritersExcludeEachOtherByTheRules) {
    struct Opening {
        bool write, shared;
    };
    struct Case {
        const char* what;
        std::vector<Opening> existing;
        Opening wanted;
        bool allowed;
    } const cases[] = {
        {"plain reader beside plain reader", {{false, false}}, {false, false}, true},
        {"plain reader blocks shared writer", {{false, false}}, {true, true}, false},
        {"shared reader lets a shared writer in", {{false, true}}, {true, true}, true},
        {"plain writer needs no other reference", {{false, true}}, {true, false}, false},
        {"plain writer alone", {}, {true, false}, true},
        {"shared writer blocks plain reader", {{true, true}}, {false, false}, false},
        {"shared writer lets a shared reader in", {{true, true}}, {false, true}, true},
        {"plain writer blocks shared reader", {{true, false}}, {false, true}, false},
        {"two shared writers", {{true, true}}, {true, true}, true},
    };
    for (const Case& c : cases) {
        Mounted m;
        std::vector<std::string> events;
        auto* file = new MemoryFile(&events);
        std::vector<std::unique_ptr<FileSystemDriver::FileReference>> open;
        for (const Opening& o : c.existing) {
            open.emplace_back(new FileSystemDriver::FileReference(m.driver.get(), file, o.write, o.shared));
        }
        std::uint32_t references = file->references, writers = file->writers, plain = file->plain;
        std::uint32_t driver_references = m.driver->references;
        try {
            open.emplace_back(new FileSystemDriver::FileReference(m.driver.get(), file, c.wanted.write, c.wanted.shared));
            EXPECT_TRUE(c.allowed) << c.what;
            EXPECT_EQ(file->references, references + 1) << c.what;
            EXPECT_EQ(file->writers, writers + (c.wanted.write ? 1 : 0)) << c.what;
            EXPECT_EQ(file->plain, plain + (c.wanted.shared ? 0 : 1)) << c.what;
            EXPECT_EQ(m.driver->references, driver_references + 1) << c.what;
        } catch (const Common::Error& error) {
            EXPECT_FALSE(c.allowed) << c.what;
            EXPECT_EQ(error.Code(), Common::FILE_OPEN) << c.what;
            EXPECT_EQ(error.Message(), u"Error durante la apertura del archivo.");
            EXPECT_EQ(file->references, references) << c.what;
            EXPECT_EQ(m.driver->references, driver_references) << c.what;
        }
        EXPECT_EQ(file->writers != 0, m.driver->writer_list.head() == file) << c.what;
        ++m.driver->references;  // keep the driver past the references
        open.clear();
        EXPECT_EQ(events.back(), "destroyed") << c.what;
        EXPECT_TRUE(m.driver->writer_list.empty()) << c.what;
    }
}

TEST(DriverReferences, LastWriterFlushesTheFileBeforeItGoes) {
    Mounted m;
    ++m.driver->references;
    std::vector<std::string> events;
    auto* file = new MemoryFile(&events);
    auto writer = std::make_unique<FileSystemDriver::FileReference>(m.driver.get(), file, true, true);
    auto reader = std::make_unique<FileSystemDriver::FileReference>(m.driver.get(), file, false, true);
    writer.reset();
    EXPECT_EQ(events, (std::vector<std::string>{"flush_file"}));
    EXPECT_TRUE(m.driver->writer_list.empty());
    reader.reset();
    EXPECT_EQ(events, (std::vector<std::string>{"flush_file", "destroyed"}));
}

TEST(DriverReferences, StreamOperationsAndStoredErrors) {
    Mounted m;
    ++m.driver->references;
    std::vector<std::string> events;
    auto* file = new MemoryFile(&events);
    file->data = "0123456789";
    FileSystemDriver::FileReference reader(m.driver.get(), file, false, true);
    char buffer[16] = {};
    std::uint64_t got = 99;
    reader.read(buffer, 4, got);
    EXPECT_EQ(std::string(buffer, got), "0123");
    EXPECT_EQ(reader.seek_end(-2), 8);
    reader.read(buffer, 10, got);
    EXPECT_EQ(std::string(buffer, got), "89");
    EXPECT_EQ(reader.size(), 10u);
    EXPECT_EQ(reader.seek_relative(-5), 5);

    std::uint64_t sector_request[3] = {0x43455347, 0, 0xFFFF};  // "GSEC"
    reader.seek(1030);
    reader.control(sector_request);
    EXPECT_EQ(sector_request[1], 1002u);
    EXPECT_EQ(sector_request[2] & 0xFF, 0u);

    // Changes through a reference opened for reading are refused.
    std::uint64_t written = 7;
    reader.write("x", 1, written);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(reader.error().Code(), Common::FILE_READ_ONLY);
    EXPECT_EQ(file->data, "0123456789");

    // A raised error is stored, and the failed reference does nothing more.
    FileSystemDriver::FileReference second(m.driver.get(), file, false, true);
    file->fail_reads = true;
    second.read(buffer, 4, got);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(second.error().Code(), Common::FILE_CORRUPT);
    file->fail_reads = false;
    second.read(buffer, 4, got);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(second.seek(3), 0);

    // Memory running out inside an operation is an error like any other.
    FileSystemDriver::FileReference third(m.driver.get(), file, false, true);
    std::new_handler before = std::get_new_handler();
    file->ask_memory = true;
    third.read(buffer, 4, got);
    EXPECT_EQ(third.error().Code(), Common::FILE_NO_MEMORY);
    EXPECT_EQ(std::get_new_handler(), before);
}

TEST(DriverReferences, WritesAndFlushOfAnyReferenceReachTheVolume) {
    Mounted m;
    ++m.driver->references;
    std::vector<std::string> events;
    auto* file = new MemoryFile(&events);
    FileSystemDriver::FileReference writer(m.driver.get(), file, true, true);
    std::uint64_t written = 0;
    writer.seek(2);
    writer.write("abc", 3, written);
    EXPECT_EQ(written, 3u);
    EXPECT_EQ(file->data, std::string("\0\0abc", 5));
    writer.set_size(4);
    EXPECT_EQ(writer.size(), 4u);
    std::uint64_t times[4] = {0x4D544653, 1, 2, 3};  // "SFTM"
    writer.control(times);
    EXPECT_FALSE(writer.failed());

    // flush() of a reader flushes the whole volume all the same.
    {
        BlockHandle block = m.driver->get_block(9, 1, false);
        m.driver->prepare_block_write(block);
        block.data()[0] = 0x99;
        block.set_dirty();
    }
    FileSystemDriver::FileReference reader(m.driver.get(), file, false, true);
    reader.flush();
    EXPECT_EQ(m.disk.sector(9)[0], 0x99);
    EXPECT_EQ(std::count(events.begin(), events.end(), "flush_file"), 1);
    reader.control(times);
    EXPECT_EQ(reader.error().Code(), Common::FILE_READ_ONLY);
}

// A walk over names, which counts its own destruction.
class NameWalk : public FileSystemDriver::IteratorObject {
public:
    NameWalk(std::vector<std::u16string> names, int* alive) : names_(std::move(names)), alive_(alive) { ++*alive_; }
    ~NameWalk() override { --*alive_; }
    bool next() override {
        if (fail_next) Raise(Common::FILE_CORRUPT);
        return ++at_ < names_.size();
    }
    file_identifier* identifier() override { return new the_identifier(names_[at_].c_str(), nullptr, 0); }
    std::u16string name() override { return names_[at_]; }
    std::uint64_t size() override { return at_ * 10; }
    std::uint64_t allocated_size() override { return 4096; }
    std::uint32_t kind() override { return KIND_FILE; }
    file_time modified() override { return 5000; }
    file_time created() override { return 4000; }
    file_time accessed() override { return 6000; }
    bool hidden() override { return at_ == 1; }
    std::uint64_t object_id() override { return at_; }
    std::uint64_t first_sector() override { return 500 + at_; }
    bool fail_next = false;

private:
    std::vector<std::u16string> names_;
    std::size_t at_ = 0;
    int* alive_;
};

TEST(DriverReferences, IteratorReferenceWalksAndEndsInTheEofState) {
    Mounted m;
    ++m.driver->references;
    int alive = 0;
    {
        FileSystemDriver::IteratorReference empty(m.driver.get(), nullptr);
        EXPECT_EQ(empty.error().Code(), Common::FILE_EOF);
        EXPECT_FALSE(empty.next());
        EXPECT_EQ(empty.name(), u"");
    }
    FileSystemDriver::IteratorReference walk(m.driver.get(), new NameWalk({u"a", u"b"}, &alive));
    EXPECT_FALSE(walk.failed());
    EXPECT_EQ(walk.name(), u"a");
    EXPECT_EQ(walk.changed(), 5000);  // the object's default: modified()
    EXPECT_EQ(walk.display_name(), u"a");
    std::unique_ptr<file_identifier> id(walk.identifier());
    EXPECT_EQ(std::u16string(static_cast<the_identifier*>(id.get())->name()), u"a");

    struct {
        std::uint32_t word, pad;
        i_dir::iterator* entry;
        std::uint64_t sector;
    } request = {0x4C485047, 0, &walk, 0};  // "GPHL"
    m.driver->control(&request);
    EXPECT_EQ(request.sector, 500u);

    EXPECT_TRUE(walk.next());
    EXPECT_EQ(walk.name(), u"b");
    EXPECT_TRUE(walk.hidden());
    EXPECT_EQ(walk.size(), 10u);
    EXPECT_FALSE(walk.next());
    EXPECT_EQ(alive, 0);  // gone at once, not with the reference
    EXPECT_EQ(walk.error().Code(), Common::FILE_EOF);
    EXPECT_FALSE(walk.next());
    EXPECT_EQ(walk.error().Code(), Common::FILE_EOF);
    request.entry = &walk;
    EXPECT_EQ(CodeOf([](TreeDriver& d) {
                  struct {
                      std::uint32_t word, pad;
                      i_dir::iterator* entry;
                      std::uint64_t sector;
                  } none = {0x4C485047, 0, nullptr, 0};
                  d.control(&none);
              }, *m.driver),
              Common::FILE_OPEN);

    auto* failing = new NameWalk({u"a", u"b"}, &alive);
    FileSystemDriver::IteratorReference broken(m.driver.get(), failing);
    failing->fail_next = true;
    EXPECT_FALSE(broken.next());
    EXPECT_EQ(broken.error().Code(), Common::FILE_CORRUPT);
}

TEST(DriverReferences, ReferencesKeepTheDriverAlive) {
    bool destroyed = false;
    auto* disk = new MemoryDisk(512, 64, &destroyed);
    auto* driver = new TreeDriver(disk);
    driver->flags |= MOUNT_OWNS_DEVICE;
    ++driver->references;  // the loader's own, for the time of open_root
    std::vector<std::string> events;
    auto reference = std::make_unique<FileSystemDriver::FileReference>(driver, new MemoryFile(&events), false, false);
    auto walk = std::make_unique<FileSystemDriver::IteratorReference>(driver, nullptr);
    release(driver);
    reference.reset();
    EXPECT_FALSE(destroyed);
    walk.reset();  // the last reference takes the driver, and its device, along
    EXPECT_TRUE(destroyed);
}

}  // namespace

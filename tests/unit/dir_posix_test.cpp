// Directories of the single-tree flavour over the in-memory tree: paths
// composed on the directory, the root's own entry, the flavour's refusals,
// and the directory request words, with backup and restore driven between
// scripted objects and collecting streams.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/backup_object.h"
#include "fsdriver/file_system_driver_posix.h"
#include "fsdriver/iterator_reference.h"
#include "tests/unit/driver_test_disk.h"

namespace {

using driver_test::NarrowText;

using PosixTree = driver_test::NotingTreeDriverOf<FileSystemDriverPosix>;

struct PosixVolume : driver_test::NotingVolume<FileSystemDriverPosix> {
    PosixVolume() : NotingVolume(u"/bootx") {}
};

TEST(DirPosix, PathsComposeOnTheDirectory) {
    PosixVolume v;
    auto root = v.root();
    std::unique_ptr<rio_dir> grub(root->open_dir(u"boot/grub"));
    ASSERT_NE(grub, nullptr);
    struct Case {
        rio_dir* base;
        const char16_t* path;
        const char16_t* shown;  // null: refused with FILE_OPEN
    } const cases[] = {
        {root.get(), u"boot", u"/boot/"},
        {root.get(), u"/boot//grub/", u"/boot/grub/"},
        {root.get(), u"..", u"/"},
        {root.get(), u"boot/../../..", u"/"},
        {root.get(), u"a\\b:c*", u"/a\\b:c*/"},  // only "/" is reserved
        {grub.get(), u"../x", u"/boot/x/"},
        {grub.get(), u"/etc", u"/etc/"},
        {grub.get(), u".", u"/boot/grub/"},
        {root.get(), u"", nullptr},
    };
    for (const Case& c : cases) {
        std::unique_ptr<rio_dir> opened(c.base->open_dir(c.path));
        if (c.shown == nullptr) {
            EXPECT_EQ(opened, nullptr) << NarrowText(c.path);
            EXPECT_EQ(c.base->error().Code(), Common::FILE_OPEN);
            continue;
        }
        ASSERT_NE(opened, nullptr) << NarrowText(c.path);
        EXPECT_EQ(NarrowText(opened->path()), NarrowText(c.shown)) << NarrowText(c.path);
        EXPECT_FALSE(c.base->failed());
    }
    EXPECT_TRUE(root->is_separator(u'/'));
    EXPECT_FALSE(root->is_separator(u'\\'));
    EXPECT_EQ(root->separator(), u'/');

    // open_path takes its text unchecked, and touches no disk.
    int opened_before = v.driver->opened;
    std::unique_ptr<rio_dir> given(v.driver->open_path(u"/boot/grub"));
    ASSERT_NE(given, nullptr);
    EXPECT_EQ(given->path(), u"/boot/grub/");
    EXPECT_EQ(given->relation(*grub), 0u);
    std::unique_ptr<rio_dir> missing(v.driver->open_path(u"/nowhere"));
    EXPECT_EQ(v.driver->opened, opened_before);
    EXPECT_EQ(missing->begin(), nullptr);
    EXPECT_EQ(missing->error().Code(), Common::FILE_OPEN);
}

TEST(DirPosix, RootEntryAndLabel) {
    PosixVolume v;
    auto root = v.root();
    std::unique_ptr<i_dir::iterator> self(root->self());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->name(), u"/");
    EXPECT_EQ(self->kind(), 131u);
    EXPECT_EQ(self->size(), 0u);
    std::unique_ptr<file_identifier> id(self->identifier());
    EXPECT_EQ(std::u16string(static_cast<the_identifier*>(id.get())->name()), u"");
    EXPECT_FALSE(self->next());
    EXPECT_EQ(self->error().Code(), Common::FILE_UNSUPPORTED);

    // ".." at the root stays the root, and is its own entry again.
    std::unique_ptr<rio_dir> up(root->open_dir(u".."));
    std::unique_ptr<i_dir::iterator> up_self(up->self());
    EXPECT_EQ(up_self->kind(), 131u);

    std::unique_ptr<rio_dir> grub(root->open_dir(u"boot/grub"));
    std::unique_ptr<i_dir::iterator> entry(grub->self());
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->name(), u"grub");
    EXPECT_EQ(entry->kind(), unsigned(KIND_DIRECTORY));

    char16_t buffer[4] = {u'x', u'x', 0, 0};
    root->label(buffer, 4);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_FALSE(root->failed());
    buffer[0] = u'x';
    grub->label(buffer, 4);
    EXPECT_EQ(buffer[0], 0);
    EXPECT_EQ(grub->error().Code(), Common::FILE_UNSUPPORTED);
}

TEST(DirPosix, OpenParentLooksForSlashOnly) {
    PosixVolume v;
    auto root = v.root();
    const char16_t* plain = u"a\\b";
    std::unique_ptr<rio_dir> same(root->open_parent(plain));
    ASSERT_NE(same, nullptr);
    EXPECT_EQ(same->path(), u"/");
    EXPECT_EQ(std::u16string(plain), u"a\\b");

    const char16_t* kernel = u"/boot/vmlinuz";
    std::unique_ptr<rio_dir> boot(root->open_parent(kernel));
    ASSERT_NE(boot, nullptr);
    EXPECT_EQ(boot->path(), u"/boot/");
    EXPECT_EQ(std::u16string(kernel), u"vmlinuz");
    std::unique_ptr<ri_file> file(boot->open_file(kernel, false));
    EXPECT_NE(file, nullptr);
}

TEST(DirPosix, RefusalsAndTheirCodes) {
    PosixVolume v;
    auto root = v.root();
    struct Case {
        const char* what;
        void (*call)(rio_dir&);
        std::uint32_t code;
    } const cases[] = {
        {"open_file empty", [](rio_dir& d) { delete d.open_file(u"", false); }, Common::FILE_OPEN},
        {"open_file of the root", [](rio_dir& d) { delete d.open_file(u"/", false); }, Common::FILE_OPEN},
        {"open_file missing", [](rio_dir& d) { delete d.open_file(u"boot/none", false); }, Common::FILE_OPEN},
        {"create_file empty", [](rio_dir& d) { delete d.create_file(u""); }, Common::FILE_CREATE},
        {"make_dir of the root", [](rio_dir& d) { d.make_dir(u".."); }, Common::FILE_CREATE},
        {"remove_file empty", [](rio_dir& d) { d.remove_file(nullptr); }, Common::FILE_DELETE},
        {"remove_dir of the root", [](rio_dir& d) { d.remove_dir(u"/"); }, Common::FILE_DELETE},
        {"remove_dir not empty", [](rio_dir& d) { d.remove_dir(u"boot"); }, Common::FILE_DELETE},
        {"rename empty", [](rio_dir& d) { d.rename(u"boot", u""); }, Common::FILE_RENAME},
        {"find with a slash", [](rio_dir& d) { delete d.find(u"boot/grub"); }, Common::FILE_OPEN},
        {"find dot dot", [](rio_dir& d) { delete d.find(u".."); }, Common::FILE_OPEN},
        {"find empty", [](rio_dir& d) { delete d.find(u""); }, Common::FILE_OPEN},
        {"nocache dot", [](rio_dir& d) {
             auto* part = dynamic_cast<nocache_dir*>(&d);
             EXPECT_EQ(part->create_nocache(u"."), nullptr);
         }, Common::FILE_UNSUPPORTED},
        {"set_attributes is not this flavour's", [](rio_dir& d) { d.set_attributes(u"boot", 1); },
         Common::FILE_UNSUPPORTED},
    };
    for (const Case& c : cases) {
        c.call(*root);
        EXPECT_EQ(root->error().Code(), c.code) << c.what;
        root->set_error(Common::Error());
    }

    // A backslash is an ordinary character of a name: no entry, not a refusal.
    std::unique_ptr<i_dir::iterator> odd(root->find(u"a\\b"));
    ASSERT_NE(odd, nullptr);
    EXPECT_EQ(odd->error().Code(), Common::FILE_EOF);
    EXPECT_FALSE(root->failed());
}

TEST(DirPosix, TreeChangesAndRelations) {
    PosixVolume v;
    PosixVolume other;
    auto root = v.root();
    root->make_dir(u"/boot/new");
    ASSERT_FALSE(root->failed());
    root->rename(u"boot/new", u"moved");
    ASSERT_FALSE(root->failed());
    EXPECT_EQ(v.driver->nodes[0].entries.count(u"moved"), 1u);
    root->set_permissions(u"boot/vmlinuz", 0644);
    root->set_owner(u"/boot/vmlinuz", 1000, 100);
    root->make_node(u"boot/null", KIND_CHARACTER_DEVICE, 0666, 1, 3);
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->notes, (std::vector<std::string>{"permissions vmlinuz 420", "owner vmlinuz 1000 100",
                                                          "node null 1 438 1 3"}));
    root->remove_dir(u"moved");
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->nodes[0].entries.count(u"moved"), 0u);

    std::unique_ptr<rio_dir> boot(root->open_dir(u"boot"));
    std::unique_ptr<rio_dir> grub(root->open_dir(u"boot/grub"));
    std::unique_ptr<rio_dir> bootx(root->open_dir(u"bootx"));
    std::unique_ptr<rio_dir> again(boot->clone());
    auto foreign = other.root();
    struct {
        rio_dir* from;
        rio_dir* to;
        std::uint32_t relation;
    } const cases[] = {
        {root.get(), root.get(), 0}, {boot.get(), again.get(), 0}, {root.get(), grub.get(), 1},
        {boot.get(), grub.get(), 1}, {grub.get(), boot.get(), 2},  {boot.get(), bootx.get(), 2},
        {root.get(), foreign.get(), 2},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.from->relation(*c.to), c.relation) << NarrowText(c.from->path()) << " " << NarrowText(c.to->path());
    }
}

// The request block of "STME", "SRSQ" and "SSFN".
struct PathRequest {
    std::uint32_t word, pad;
    const char16_t* path;
    std::uint64_t a, b, c;
};

TEST(DirPosix, RequestWordsRouteToTheParentOrTheDriver) {
    PosixVolume v;
    auto root = v.root();
    const char data[] = "sd";

    PathRequest times{0x454D5453, 0, u"boot/vmlinuz", 11, 22, 33};  // "STME"
    root->control(&times);
    EXPECT_FALSE(root->failed());
    PathRequest security{0x51535253, 0, u"/boot/grub", reinterpret_cast<std::uint64_t>(data), 2, 0};  // "SRSQ"
    root->control(&security);
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->notes, (std::vector<std::string>{"times vmlinuz 11 22 33", "security grub sd"}));

    // A path without a leaf is refused before any directory is asked.
    v.driver->notes.clear();
    for (std::uint32_t word : {0x454D5453u, 0x51535253u}) {
        PathRequest at_root{word, 0, u"/", 0, 0, 0};
        root->control(&at_root);
        EXPECT_EQ(root->error().Code(), Common::FILE_OPEN) << word;
        PathRequest empty{word, 0, u"", 0, 0, 0};
        root->control(&empty);
        EXPECT_EQ(root->error().Code(), Common::FILE_OPEN) << word;
    }
    EXPECT_TRUE(v.driver->notes.empty());

    // The other flavour's words, and unknown ones, are the driver's.
    PathRequest short_name{0x4E465353, 0, u"boot", 0, 0, 0};  // "SSFN"
    root->control(&short_name);
    EXPECT_EQ(root->error().Code(), Common::FILE_UNSUPPORTED);
    std::uint32_t type_name[8] = {0x54534647};  // "GFST"
    root->control(type_name);
    EXPECT_FALSE(root->failed());
    EXPECT_EQ(v.driver->notes, (std::vector<std::string>{"driver SSFN", "driver GFST"}));
}

// --- backup and restore ---

struct Piece {
    std::uint32_t type;
    std::string data;
};

// Hands out its pieces one read at a time, and notes how each area was aligned.
class ScriptedBackup : public FileSystemDriver::BackupObject {
public:
    ScriptedBackup(std::vector<Piece> pieces, std::uint64_t align, std::vector<std::string>* log)
        : pieces_(std::move(pieces)), log_(log) {
        alignment = align;
        advance();
    }
    ~ScriptedBackup() override { log_->push_back("backup object gone"); }
    std::uint64_t read(void* area) override {
        if (reinterpret_cast<std::uintptr_t>(area) % alignment != 0) log_->push_back("unaligned area");
        const std::string& data = pieces_[at_++].data;
        std::memcpy(area, data.data(), data.size());
        advance();
        return data.size();
    }

private:
    void advance() {
        stream_type = at_ < pieces_.size() ? pieces_[at_].type : 0;
        chunk = at_ < pieces_.size() ? pieces_[at_].data.size() + 5 : 0;
    }
    std::vector<Piece> pieces_;
    std::size_t at_ = 0;
    std::vector<std::string>* log_;
};

class NotingRestore : public FileSystemDriver::RestoreObject {
public:
    NotingRestore(std::string what, std::vector<std::string>* log) : what_(std::move(what)), log_(log) {}
    void write(std::uint32_t type, const void* data, std::uint64_t size) override {
        std::string head = data == nullptr ? "" : std::string(static_cast<const char*>(data), std::min<std::uint64_t>(size, 4));
        log_->push_back(what_ + " " + std::to_string(type) + ":" + std::to_string(size) + ":" + head);
    }

private:
    std::string what_;
    std::vector<std::string>* log_;
};

// Collects what a backup sends, and hands out pieces to a restore.
class Streams : public BackupStreams {
public:
    class Output : public BackupOutputStream {
    public:
        Output(Streams& owner, std::uint32_t type) : owner_(owner), type_(type) {}
        ~Output() override { owner_.log.push_back("close " + std::to_string(type_)); }
        unsigned char* reserve(std::uint64_t size) override {
            area_.assign(size, 0);
            return area_.data();
        }
        void send(const unsigned char* start, std::uint64_t size) override {
            bool inside = start >= area_.data() && start + size <= area_.data() + area_.size();
            owner_.log.push_back(std::string(inside ? "send " : "outside ") +
                                 std::string(reinterpret_cast<const char*>(start), size));
        }

    private:
        Streams& owner_;
        std::uint32_t type_;
        std::vector<unsigned char> area_;
    };

    class Input : public RestoreInputStream {
    public:
        explicit Input(const Piece& piece) : piece_(piece) {}
        std::uint32_t type() override { return piece_.type; }
        Common::Error read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
            got = std::min<std::uint64_t>(size, piece_.data.size() - at_);
            std::memcpy(buffer, piece_.data.data() + at_, got);
            at_ += got;
            return Common::Error();
        }

    private:
        Piece piece_;
        std::size_t at_ = 0;
    };

    Common::Error open_output(std::uint32_t type, BackupOutputStream*& stream) override {
        log.push_back("open " + std::to_string(type));
        if (type == refuse_type) return Common::Error(1, Common::FILE_DISK_FULL);
        stream = new Output(*this, type);
        return Common::Error();
    }
    RestoreInputStream* next_input() override {
        if (next_ == inputs.size()) return nullptr;
        return new Input(inputs[next_++]);
    }
    Common::Error error() override { return failure; }

    std::vector<std::string> log;
    std::vector<Piece> inputs;
    std::uint32_t refuse_type = 0;
    Common::Error failure;

private:
    std::size_t next_ = 0;
};

class Progress : public BackupProgress {
public:
    void done(std::uint64_t bytes) override { told.push_back(bytes); }
    bool cancelled() override { return ++asked > cancel_after; }
    std::vector<std::uint64_t> told;
    int asked = 0;
    int cancel_after = 1000;
};

TEST(DirPosix, BackupFeedsOneStreamPerTypeChange) {
    PosixVolume v;
    auto root = v.root();
    Streams streams;
    Progress progress;
    std::vector<std::string> log;
    BackupRequest request{0x50554B42, 0, {&streams, &progress, 7}, {nullptr}};  // "BKUP"

    root->control(&request);
    EXPECT_EQ(root->error().Code(), Common::FILE_UNSUPPORTED);  // the driver offers no backups

    std::vector<std::string> asked;
    v.driver->backup = [&](const std::string& what) {
        asked.push_back(what);
        return new ScriptedBackup({{1, "attr"}, {1, "more"}, {2, ""}, {2, "data"}, {1, "x"}}, 64, &log);
    };
    root->control(&request);
    ASSERT_FALSE(root->failed()) << NarrowText(root->error().Message());
    EXPECT_EQ(streams.log, (std::vector<std::string>{"open 1", "send attr", "send more", "close 1", "open 2", "send ",
                                                     "send data", "close 2", "open 1", "send x", "close 1"}));
    EXPECT_EQ(progress.told, (std::vector<std::uint64_t>{4, 8, 12, 13}));
    EXPECT_EQ(log, std::vector<std::string>{"backup object gone"});

    // An entry: a file is backed up through its own object, a directory
    // as itself.
    std::unique_ptr<rio_dir> boot(root->open_dir(u"boot"));
    for (const char16_t* name : {u"vmlinuz", u"grub"}) {
        std::unique_ptr<i_dir::iterator> entry(boot->find(name));
        request.entry = entry.get();
        boot->control(&request);
        EXPECT_FALSE(boot->failed());
    }
    EXPECT_EQ(asked, (std::vector<std::string>{"dir:0", "file:vmlinuz", "dir:2"}));

    // A refused stream and a cancel end the backup with their codes.
    streams.refuse_type = 2;
    request.entry = nullptr;
    root->control(&request);
    EXPECT_EQ(root->error().Code(), Common::FILE_DISK_FULL);
    streams.refuse_type = 0;
    progress.asked = 0;
    progress.cancel_after = 2;
    streams.log.clear();
    root->control(&request);
    EXPECT_EQ(root->error().Code(), Common::FILE_CANCELLED);
    EXPECT_EQ(streams.log, (std::vector<std::string>{"open 1", "send attr", "send more", "close 1"}));
    EXPECT_EQ(std::count(log.begin(), log.end(), "unaligned area"), 0);
}

TEST(DirPosix, RestoreMakesTheEntryFromItsAttributes) {
    std::string big(0x40000 + 10, 'b');
    big.replace(0x40000, 4, "tail");
    struct Case {
        const char* what;
        std::vector<Piece> inputs;
        const char16_t* path;
        std::uint32_t code;
        std::vector<std::string> writes;
    } const cases[] = {
        {"a new file, data in steps", {{1, " abc"}, {3, big}}, u"boot/restored", 0,
         {"file:restored 1:4: abc", "file:restored 3:262144:bbbb", "file:restored 3:10:tail",
          "file:restored 0:0:"}},
        {"an empty stream is handed on once", {{1, "\x01zzz"}, {4, ""}}, u"/x", 0,
         {"file:x 1:4:\x01zzz", "file:x 4:0:", "file:x 0:0:"}},
        {"an existing directory", {{1, "\x10..."}, {2, "acl"}}, u"/boot/grub", 0,
         {"dir:2 1:4:\x10...", "dir:2 2:3:acl", "dir:2 0:0:"}},
        {"a directory that isn't there", {{1, "\x10..."}}, u"/boot/none", Common::FILE_NOT_FOUND, {}},
        {"a parent that isn't there", {{1, "...."}}, u"/none/x", Common::FILE_NOT_FOUND, {}},
        {"attributes must come first", {{2, "data"}}, u"/x", Common::FILE_CORRUPT, {}},
        {"attributes too short", {{1, "abc"}}, u"/x", Common::FILE_CORRUPT, {}},
        {"nothing at all", {}, u"/x", Common::FILE_CORRUPT, {}},
        {"no leaf", {{1, "...."}}, u"/", Common::FILE_OPEN, {}},
    };
    for (const Case& c : cases) {
        PosixVolume v;
        auto root = v.root();
        std::vector<std::string> writes;
        v.driver->restore = [&](const std::string& what) { return new NotingRestore(what, &writes); };
        Streams streams;
        streams.inputs = c.inputs;
        BackupRequest request{0x52545352, 0, {&streams, nullptr, 0}, {nullptr}};  // "RSTR"
        request.path = c.path;
        root->control(&request);
        EXPECT_EQ(root->error().Code(), c.code) << c.what;
        EXPECT_EQ(writes, c.writes) << c.what;
    }

    // The streams' own failure, a cancel, and a driver that can't restore.
    PosixVolume v;
    auto root = v.root();
    std::vector<std::string> writes;
    Streams streams;
    streams.inputs = {{1, "...."}};
    streams.failure = Common::Error(1, Common::FILE_READ);
    BackupRequest request{0x52545352, 0, {&streams, nullptr, 0}, {nullptr}};
    request.path = u"y";
    root->control(&request);
    EXPECT_EQ(root->error().Code(), Common::FILE_UNSUPPORTED);
    v.driver->restore = [&](const std::string& what) { return new NotingRestore(what, &writes); };
    root->control(&request);
    EXPECT_EQ(root->error().Code(), Common::FILE_READ);
    EXPECT_EQ(writes, std::vector<std::string>{"file:y 1:4:...."});
    Progress progress;
    progress.cancel_after = 0;
    request.record.progress = &progress;
    root->control(&request);
    EXPECT_EQ(root->error().Code(), Common::FILE_CANCELLED);
}

}  // namespace

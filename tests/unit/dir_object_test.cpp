// The directory family's defaults and the shared identifier record, on
// classes that supply only what a concrete directory or iterator must.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "files/dir_object.h"
#include "loader/common/error_codes.h"

namespace {

// An entry with only the operations an iterator must supply.
class PlainEntry : public i_dir::iterator {
public:
    bool next() override { return false; }
    file_identifier* identifier() override { return new the_identifier(u"plain", nullptr, 0); }
    std::u16string name() override { return u"plain.txt"; }
    std::uint64_t size() override { return 4097; }
    std::uint32_t kind() override { return KIND_FILE; }
};

TEST(DirObject, IteratorDefaultsFollowThePureOperations) {
    PlainEntry entry;
    EXPECT_FALSE(entry.hidden());
    EXPECT_EQ(entry.allocated_size(), 4097u);
    EXPECT_EQ(entry.display_name(), u"plain.txt");
    EXPECT_EQ(entry.links(), 1u);
    EXPECT_FALSE(entry.failed());
}

// A directory with only the pure operations, each answering nothing. It
// records the last path given to open_dir, which clone() must go through.
class PlainDir : public rio_dir {
public:
    ri_file* open_file(const char16_t*, bool) override { return nullptr; }
    ri_file* open_file(iterator&, bool) override { return nullptr; }
    ri_file* open_file(const file_identifier&, bool) override { return nullptr; }
    rio_dir* open_dir(const char16_t* path) override {
        last_open_dir = path;
        return nullptr;
    }
    rio_dir* open_dir(iterator&) override { return nullptr; }
    rio_dir* open_dir(const file_identifier&) override { return nullptr; }
    rio_dir* open_parent(const char16_t*&) override { return nullptr; }
    iterator* begin() override { return nullptr; }
    iterator* find(const char16_t*) override { return nullptr; }
    iterator* find(const file_identifier&) override { return nullptr; }
    iterator* self() override { return nullptr; }
    std::uint32_t relation(i_dir&) override { return 2; }
    int compare(const file_identifier&, const file_identifier&) override { return 0; }
    ro_file* open_for_write(const char16_t*, bool) override { return nullptr; }
    ro_file* open_for_write(iterator&, bool) override { return nullptr; }
    ro_file* open_for_write(const file_identifier&, bool) override { return nullptr; }
    rio_file* open_for_update(const char16_t*, bool) override { return nullptr; }
    rio_file* open_for_update(iterator&, bool) override { return nullptr; }
    rio_file* open_for_update(const file_identifier&, bool) override { return nullptr; }
    rio_file* create_file(const char16_t*) override { return nullptr; }
    void remove_file(const char16_t*) override {}
    void rename(const char16_t*, const char16_t*) override {}
    void make_dir(const char16_t*) override {}
    void remove_dir(const char16_t*) override {}

    std::u16string last_open_dir;
};

TEST(DirObject, QueriesOfTheReadHalf) {
    PlainDir dir;
    EXPECT_EQ(dir.dir_kind(), 137u);
    EXPECT_EQ(dir.path(), u"");
    EXPECT_EQ(dir.separator(), u'\\');
    struct {
        char16_t character;
        bool separator;
    } const cases[] = {{u'/', true}, {u'\\', true}, {u':', false}, {u'a', false}, {0, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(dir.is_separator(c.character), c.separator) << int(c.character);
    }
    // clone() of a directory with both halves is open_dir(".").
    dir.last_open_dir = u"unset";
    EXPECT_EQ(dir.clone(), nullptr);
    EXPECT_EQ(dir.last_open_dir, u".");
    // Both halves reach the same operation.
    dir.last_open_dir = u"unset";
    static_cast<o_dir&>(dir).open_dir(u"x");
    EXPECT_EQ(dir.last_open_dir, u"x");
    EXPECT_FALSE(dir.failed());
}

TEST(DirObject, OptionalOperationsAreUnsupported) {
    struct Case {
        const char* what;
        void (*call)(PlainDir&);
    } const cases[] = {
        {"space", [](PlainDir& d) {
             std::uint64_t total = 1, free = 2, available = 3;
             d.space(total, free, available);
             EXPECT_EQ(total + free + available, 0u);
         }},
        {"label", [](PlainDir& d) {
             char16_t buffer[4] = {u'X', u'Y', 0, 0};
             d.label(buffer, 4);
             EXPECT_EQ(buffer[0], 0);
         }},
        {"link", [](PlainDir& d) { d.link(u"a", u"b"); }},
        {"symlink", [](PlainDir& d) { d.symlink(u"a", u"b"); }},
        {"set_attributes", [](PlainDir& d) { d.set_attributes(u"a", 1); }},
        {"set_permissions", [](PlainDir& d) { d.set_permissions(u"a", 1); }},
        {"set_owner", [](PlainDir& d) { d.set_owner(u"a", 1, 2); }},
        {"make_node", [](PlainDir& d) { d.make_node(u"a", 1, 2, 3, 4); }},
        {"reserved", [](PlainDir& d) { d.reserved_i_dir_1(); }},
        {"control", [](PlainDir& d) {
             std::uint32_t block[4] = {0x5244434E, 0, 0, 0};  // "NCDR", unknown here
             d.control(block);
         }},
    };
    for (const Case& c : cases) {
        PlainDir fresh;
        c.call(fresh);
        EXPECT_EQ(fresh.error().Code(), Common::FILE_UNSUPPORTED) << c.what;

        // A pending error stays.
        PlainDir pending;
        pending.set_error(Common::Error(ERROR_TAG, Common::FILE_OPEN));
        c.call(pending);
        EXPECT_EQ(pending.error().Code(), Common::FILE_OPEN) << c.what;
    }
}

TEST(FileIdentifier, CopiesNameAndKeyAtConstruction) {
    char16_t name[] = u"KERNEL";
    unsigned char key[] = {1, 2, 3, 4, 5};
    the_identifier id(name, key, sizeof(key));
    name[0] = u'X';
    key[0] = 9;
    EXPECT_EQ(std::u16string(id.name()), u"KERNEL");
    ASSERT_NE(id.key(), nullptr);
    EXPECT_EQ(std::memcmp(id.key(), "\x01\x02\x03\x04\x05", 5), 0);
    EXPECT_EQ(id.references(), 1u);
}

TEST(FileIdentifier, MissingPartsAndTheSharedEmptyRecord) {
    const unsigned char key[] = {0xAA, 0xBB};
    the_identifier key_only(nullptr, key, sizeof(key));
    EXPECT_EQ(std::u16string(key_only.name()), u"");
    ASSERT_NE(key_only.key(), nullptr);
    EXPECT_EQ(key_only.key()[1], 0xBB);

    the_identifier name_only(u"a", nullptr, 0);
    EXPECT_EQ(name_only.key(), nullptr);
    EXPECT_EQ(std::u16string(name_only.name()), u"a");

    // Neither name nor key: one static record for all of them, whose count
    // tells them all and never lets it go.
    auto first = std::make_unique<the_identifier>(nullptr, nullptr, 0);
    the_identifier second(u"", key, 0);
    EXPECT_EQ(first->name(), second.name());
    std::uint32_t both = second.references();
    first.reset();
    EXPECT_EQ(second.references(), both - 1);
    EXPECT_EQ(std::u16string(second.name()), u"");
}

TEST(FileIdentifier, ClonesShareTheRecordUntilTheLastIsGone) {
    auto original = std::make_unique<the_identifier>(u"boot", "\x10\x20", 2);
    std::unique_ptr<file_identifier> first(original->clone());
    std::unique_ptr<file_identifier> second(first->clone());
    auto* a = static_cast<the_identifier*>(first.get());
    auto* b = static_cast<the_identifier*>(second.get());
    EXPECT_EQ(a->references(), 3u);
    EXPECT_EQ(a->name(), original->name());
    EXPECT_EQ(b->key(), original->key());
    original.reset();
    first.reset();
    // The last holder still reads the record (a freed one shows under ASan).
    EXPECT_EQ(b->references(), 1u);
    EXPECT_EQ(std::u16string(b->name()), u"boot");
    EXPECT_EQ(b->key()[1], 0x20);
}

}  // namespace

// NTFS file objects written: data through the cache and past it, sizes,
// times and attributes kept in step in the record and in every index key
// that names the file, descriptors stored. Volumes are made by mkntfs,
// ntfscp and ntfs-3g over FUSE; ntfscat, ntfsinfo and ntfsfix judge them.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "fsdriver/aligned_buffer.h"
#include "loader/common/error_codes.h"
#include "ntfs/file_security.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/system_indexes.h"
#include "tests/support/ntfs_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using TestSupport::Pattern;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

// small.txt and big.bin come from ntfscp; "one/l" and "two/l2" are two
// links of one file, made by ntfs-3g.
std::vector<unsigned char> MakeBase() {
    return TestSupport::MakeNtfsImage(
        "truncate -s 16M volume.img; mkntfs -F -f -q volume.img;"
        " ntfscp volume.img small.txt /small.txt; ntfscp volume.img big.bin /big.bin;"
        " mkdir mnt; ntfs-3g volume.img mnt; mkdir mnt/one mnt/two; printf hello > mnt/one/l;"
        " ln mnt/one/l mnt/two/l2; umount mnt",
        {{"small.txt", Pattern(100, 1)}, {"big.bin", Pattern(200000, 2)}});
}

const std::vector<unsigned char>& Base() {
    static const std::vector<unsigned char> base = MakeBase();
    return base;
}

// The value of `field` in the block that `anchor` starts (at or after `from`).
std::string FieldAfter(const std::string& info, const std::string& anchor, const std::string& field,
                       std::size_t from = 0) {
    std::size_t at = info.find(anchor, from);
    if (at == std::string::npos) return "<no " + anchor + ">";
    at = info.find(field + ":", at);
    if (at == std::string::npos) return "<no " + field + ">";
    const std::size_t start = info.find_first_not_of(" \t", at + field.size() + 1);
    return info.substr(start, info.find('\n', start) - start);
}

// The value of `field` in the index entry of `name` in ntfsinfo's dump of
// the directory, or in the $FILE_NAME of that name in the dump of a file:
// the field lies before the name.
std::string KeyField(const std::string& info, const std::string& name, const std::string& field) {
    const std::size_t named = info.find("Filename:\t\t '" + name + "'");
    if (named == std::string::npos) return "<no key " + name + ">";
    const std::size_t at = info.rfind(field + ":", named);
    const std::size_t start = info.find_first_not_of(" \t", at + field.size() + 1);
    return info.substr(start, info.find('\n', start) - start);
}

std::string SizeText(std::uint64_t size) {
    char text[64];
    std::snprintf(text, sizeof(text), "%llu (0x%llx)", static_cast<unsigned long long>(size),
                  static_cast<unsigned long long>(size));
    return text;
}

// ntfsinfo's form of a time given in ms from 1970 (days of two digits).
std::string TimeText(std::uint64_t ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    char text[64];
    std::strftime(text, sizeof(text), "%a %b %d %H:%M:%S %Y UTC", std::gmtime(&seconds));
    return text;
}

// Security id to hash, as ntfsinfo shows the data of "$SII" and "$SDH".
std::map<std::uint32_t, std::uint32_t> StoredHashes(const std::string& info) {
    std::map<std::uint32_t, std::uint32_t> hashes;
    for (std::size_t at = info.find("Hash:"); at != std::string::npos; at = info.find("Hash:", at + 1)) {
        const std::string hash_text = FieldAfter(info, "Hash:", "Hash", at);
        const auto hash = static_cast<std::uint32_t>(std::stoul(hash_text, nullptr, 16));
        hashes.emplace(static_cast<std::uint32_t>(std::stoul(FieldAfter(info, "Hash:", "Security id", at))), hash);
    }
    return hashes;
}

class NtfsFileWrite : public ::testing::Test {
protected:
    void SetUp() override {
        volume_.reset();
        if (Base().empty()) GTEST_SKIP() << "mkntfs, ntfscp or ntfs-3g over FUSE isn't available";
        image_.store(Base());
        volume_ = std::make_unique<Volume>(image_.path);
        ASSERT_NE(volume_->driver, nullptr);
    }

    std::string info(const std::string& path, bool verbose = true) const {
        return TestSupport::CaptureOutput(std::string("ntfsinfo ") + (verbose ? "-v " : "") + "-F " + path + " " +
                                          image_.path + " 2>/dev/null");
    }
    std::uint64_t recordOf(const std::string& path) const {
        const std::string text = info(path, false);
        const std::size_t at = text.find("Dumping Inode ");
        return at == std::string::npos ? 0 : std::stoull(text.substr(at + 14));
    }
    std::unique_ptr<ntfs::NTFSFile> open(const std::string& path) {
        const std::uint64_t number = recordOf(path);
        if (number == 0) return nullptr;
        return std::make_unique<ntfs::NTFSFile>(volume_->driver, volume_->driver->record_cache->get(number));
    }
    std::string cat(const std::string& path) const {
        return TestSupport::CaptureOutput("ntfscat " + image_.path + " " + path);
    }
    bool sound() const {
        return TestSupport::CaptureOutput("ntfsfix -n " + image_.path + "; echo status=$?").find("status=0") !=
               std::string::npos;
    }
    // Closes the file as the framework does, flushing it, and lets the
    // volume go so that the tools see what it wrote.
    void finish(std::unique_ptr<ntfs::NTFSFile>& file) {
        file->flush_file();
        file.reset();
        volume_->unmount();
    }

    TestSupport::ImageFile image_;
    std::unique_ptr<Volume> volume_;
};

TEST_F(NtfsFileWrite, DataSizesAndKeysAfterWritesAndSizeChanges) {
    using Change = std::function<void(ntfs::NTFSFile&, std::string&)>;
    // Writes from a buffer whose byte `head` lies on a sector when `aligned`.
    auto write = [](std::uint64_t position, std::size_t length, bool aligned) -> Change {
        return [=](ntfs::NTFSFile& file, std::string& model) {
            const std::string data = Pattern(length, 9);
            const std::size_t head = (512 - position % 512) % 512;
            AlignedBuffer buffer(length + 1024);
            unsigned char* from = buffer.data() + (aligned ? 512 - head : 3);
            std::memcpy(from, data.data(), length);
            std::uint64_t written = 0;
            file.write(from, position, length, written);
            EXPECT_EQ(written, length);
            if (model.size() < position + length) model.resize(position + length, '\0');
            model.replace(position, length, data);
        };
    };
    auto resize = [](std::uint64_t size) -> Change {
        return [=](ntfs::NTFSFile& file, std::string& model) {
            file.set_size(size);
            model.resize(size, '\0');
        };
    };
    auto both = [](Change first, Change second) -> Change {
        return [=](ntfs::NTFSFile& file, std::string& model) {
            first(file, model);
            second(file, model);
        };
    };
    struct Case {
        const char* what;
        const char* path;
        const char* name;
        std::uint64_t original;
        Change change;
    } cases[] = {
        {"into a resident value", "/small.txt", "small.txt", 100, write(10, 20, false)},
        {"resident value into clusters", "/small.txt", "small.txt", 100, write(0, 5000, true)},
        {"megabytes, the middle past the cache", "/big.bin", "big.bin", 200000, write(777, 3 * 1048576 + 123, true)},
        {"unaligned buffer, across clusters", "/big.bin", "big.bin", 200000, write(4000, 70000, false)},
        {"cut short", "/big.bin", "big.bin", 200000, resize(1000)},
        {"grown by its size", "/small.txt", "small.txt", 100, resize(70000)},
        // The cut tail of the last cluster and the clusters given back still
        // hold the old bytes: grown again, the file reads zeros there.
        {"cut short and grown back", "/big.bin", "big.bin", 200000, both(resize(1000), resize(200000))},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        std::string model = cat(c.path);
        ASSERT_EQ(model.size(), c.original);
        auto file = open(c.path);
        ASSERT_NE(file, nullptr);
        c.change(*file, model);
        EXPECT_EQ(file->size(), model.size());
        finish(file);
        EXPECT_TRUE(cat(c.path) == model);
        EXPECT_TRUE(sound());
        EXPECT_EQ(FieldAfter(info(c.path), "$FILE_NAME", "Data Size"), SizeText(model.size()));
        EXPECT_EQ(KeyField(info("/"), c.name, "Data Size"), SizeText(model.size()));
    }
}

TEST_F(NtfsFileWrite, ExplicitTimesAndSizesReachEveryLinkAndStayAtClose) {
    const std::uint64_t modified = 1300192496000ull;  // 2011-03-15
    const std::uint64_t created = 1118995750000ull;   // 2005-06-17
    auto file = open("/one/l");
    ASSERT_NE(file, nullptr);
    const std::string data = Pattern(3000, 4);
    std::uint64_t written = 0;
    file->write(data.data(), 0, data.size(), written);
    ASSERT_EQ(written, data.size());
    file->set_times(modified, created, modified);
    finish(file);  // the flush at close keeps the times just set
    const std::string record = info("/one/l");
    EXPECT_EQ(FieldAfter(record, "$STANDARD_INFORMATION", "File Altered Time"), TimeText(modified));
    EXPECT_EQ(FieldAfter(record, "$STANDARD_INFORMATION", "File Creation Time"), TimeText(created));
    for (const char* directory : {"/one", "/two"}) {
        SCOPED_TRACE(directory);
        const std::string parent = info(directory);
        const std::string name = std::string(directory) == "/one" ? "l" : "l2";
        EXPECT_EQ(KeyField(parent, name, "Data Size"), SizeText(data.size()));
        EXPECT_EQ(KeyField(parent, name, "File Altered Time"), TimeText(modified));
        EXPECT_EQ(KeyField(parent, name, "File Creation Time"), TimeText(created));
    }
    // The names in the record, not only the keys.
    for (const char* link : {"l", "l2"}) EXPECT_EQ(KeyField(record, link, "Data Size"), SizeText(data.size())) << link;
    EXPECT_TRUE(cat("/two/l2") == data);
    EXPECT_TRUE(sound());
}

TEST_F(NtfsFileWrite, FullVolumeKeepsTheBytesThatFit) {
    auto file = open("/small.txt");
    ASSERT_NE(file, nullptr);
    const std::size_t wanted = 24u << 20;  // more than the 16 MiB volume holds
    AlignedBuffer buffer(wanted);
    const std::string data = Pattern(wanted, 5);
    std::memcpy(buffer.data(), data.data(), wanted);
    std::uint64_t written = 0;
    file->write(buffer.data(), 0, wanted, written);
    EXPECT_GT(written, 1u << 20);
    EXPECT_LT(written, wanted);
    EXPECT_EQ(file->size(), written);
    std::uint64_t more = 1;
    EXPECT_EQ(TestSupport::RaisedCode([&] { file->write(buffer.data(), written, 1 << 20, more); }),
              Common::FILE_DISK_FULL);
    EXPECT_EQ(more, 0u);
    finish(file);
    const std::string stored = cat("/small.txt");
    EXPECT_EQ(stored.size(), written);
    EXPECT_TRUE(stored == data.substr(0, stored.size()));
    EXPECT_EQ(KeyField(info("/"), "small.txt", "Data Size"), SizeText(written));
    EXPECT_TRUE(sound());
}

TEST_F(NtfsFileWrite, AttributesChangeOnlyUnderTheUserMask) {
    struct Case {
        std::uint32_t given;
        const char* shown;
    } cases[] = {
        {0x1, "(0x00000001)"},                // archive goes, read only comes
        {0x4000 | 0x2 | 0x20, "(0x00000022)"}, // encrypted isn't the user's to set
        {0x0, "(0x00000000)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.shown);
        SetUp();
        auto file = open("/one/l");
        ASSERT_NE(file, nullptr);
        file->setAttributes(c.given);
        finish(file);
        const std::string record = info("/one/l");
        EXPECT_NE(FieldAfter(record, "$STANDARD_INFORMATION", "File attributes").find(c.shown), std::string::npos);
        EXPECT_NE(KeyField(info("/two"), "l2", "File attributes").find(c.shown), std::string::npos);
        EXPECT_TRUE(sound());
    }
}

TEST_F(NtfsFileWrite, DescriptorsAreStoredOncePerVolume) {
    ASSERT_NE(volume_->driver->secure_file, nullptr);
    ntfs::SecureFile& secure = *volume_->driver->secure_file;
    // The hash rule agrees with what mkntfs stored.
    const std::map<std::uint32_t, std::uint32_t> made = StoredHashes(info("/\\$Secure"));
    ASSERT_GE(made.size(), 2u);
    for (const auto& [id, hash] : made) {
        const std::vector<unsigned char> stored = secure.descriptor(id);
        EXPECT_EQ(ntfs::SecurityHash(stored.data(), static_cast<std::uint32_t>(stored.size())), hash) << id;
    }
    const std::vector<unsigned char> first = ntfs::BuiltInDescriptor();
    std::vector<unsigned char> second = first;
    second[second.size() - 1] ^= 0x5;  // another last sub-authority
    const std::uint32_t a = secure.add(first.data(), static_cast<std::uint32_t>(first.size()));
    const std::uint32_t b = secure.add(second.data(), static_cast<std::uint32_t>(second.size()));
    EXPECT_EQ(secure.add(first.data(), static_cast<std::uint32_t>(first.size())), a);
    EXPECT_EQ(secure.add(nullptr, 0), 0u);
    EXPECT_NE(a, b);
    {
        // $Extend keeps only an id, as files of this version do.
        ntfs::NTFSFileObject extend(volume_->driver, volume_->driver->record_cache->get(ntfs::kExtendRecord));
        extend.setSecurity(second.data(), static_cast<std::uint32_t>(second.size()));
        EXPECT_TRUE(extend.security() == second);
    }
    volume_->unmount();
    EXPECT_TRUE(sound());
    EXPECT_EQ(FieldAfter(info("/\\$Extend"), "$STANDARD_INFORMATION", "Security ID"), SizeText(b));
    // Both new records in both indexes, under the hash of their bytes.
    std::map<std::uint32_t, std::uint32_t> expected = made;
    expected[a] = ntfs::SecurityHash(first.data(), static_cast<std::uint32_t>(first.size()));
    expected[b] = ntfs::SecurityHash(second.data(), static_cast<std::uint32_t>(second.size()));
    const std::string now = info("/\\$Secure");
    EXPECT_EQ(StoredHashes(now), expected);
    EXPECT_EQ(FieldAfter(now, "Key security id:\t " + SizeText(b), "Length in $SDS"), SizeText(second.size() + 20));
    Volume again(image_.path);
    ASSERT_NE(again.driver, nullptr);
    EXPECT_TRUE(again.driver->secure_file->descriptor(b) == second);
    EXPECT_EQ(again.driver->secure_file->add(second.data(), static_cast<std::uint32_t>(second.size())), b);
}

TEST_F(NtfsFileWrite, OwnDescriptorReplacedInItsAttribute) {
    auto file = open("/small.txt");
    ASSERT_NE(file, nullptr);
    const std::vector<unsigned char> descriptor = ntfs::BuiltInDescriptor();
    file->setSecurity(descriptor.data(), static_cast<std::uint32_t>(descriptor.size()));
    EXPECT_TRUE(file->security() == descriptor);
    finish(file);
    const std::string record = info("/small.txt");
    EXPECT_EQ(FieldAfter(record, "$SECURITY_DESCRIPTOR", "Group SID"), "S-1-5-18");
    EXPECT_EQ(FieldAfter(record, "$SECURITY_DESCRIPTOR", "Data size"), SizeText(descriptor.size()));
    EXPECT_TRUE(sound());
}

TEST_F(NtfsFileWrite, VolumeHeldReadOnlyRefusesEveryChange) {
    const std::uint64_t number = recordOf("/small.txt");
    ASSERT_NE(number, 0u);
    volume_.reset();
    std::vector<unsigned char> filter((number + 8) / 8, 0xFF);  // hides nothing up to the file
    Volume held(TestSupport::DiskOf(image_.path), filter.data(), filter.size() * 8);
    ASSERT_NE(held.driver, nullptr);
    {
        ntfs::NTFSFile file(held.driver, held.driver->record_cache->get(number));
        const char byte = 'x';
        std::uint64_t written = 7;
        const std::uint32_t descriptor_byte = 1;
        const std::function<void()> changes[] = {
            [&] { file.write(&byte, 0, 1, written); },
            [&] { file.set_size(3); },
            [&] { file.set_times(1300192496000ull, 1300192496000ull, 1300192496000ull); },
            [&] { file.setAttributes(1); },
            [&] { file.setSecurity(&descriptor_byte, sizeof(descriptor_byte)); },
        };
        for (const auto& change : changes) EXPECT_EQ(TestSupport::RaisedCode(change), Common::FILE_READ_ONLY);
        EXPECT_EQ(written, 0u);
        file.flush_file();  // nothing to write, nothing refused
    }
    held.unmount();
    EXPECT_EQ(held.disk->bytes, Base());
}

}  // namespace

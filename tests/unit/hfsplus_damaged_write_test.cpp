// Changes asked of damaged HFS+ volumes that mkfs.hfsplus made and a test
// then spoiled byte by byte: an allocation file that marks used blocks
// free, a catalog map that disagrees with the nodes in use, a journal whose
// transaction points outside the volume or into the journal itself. Each
// is refused with FILE_CORRUPT, at the mount or at the first change, and
// the image stays byte for byte as it was.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/hfsplus_driver.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;
using Bytes = std::vector<unsigned char>;

constexpr std::uint64_t kHeader = 1024;

std::uint64_t GetBE(const Bytes& bytes, std::uint64_t at, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value = value << 8 | bytes.at(at + i);
    return value;
}

void PutBE(Bytes& bytes, std::uint64_t at, unsigned width, std::uint64_t value) {
    for (unsigned i = 0; i < width; ++i) bytes.at(at + i) = static_cast<unsigned char>(value >> (8 * (width - 1 - i)));
}

// The places the damage goes to, as the published format lays them out.
struct Layout {
    explicit Layout(const Bytes& image) {
        block = GetBE(image, kHeader + 40, 4);
        bitmap = GetBE(image, kHeader + 112 + 16, 4) * block;
        catalog_block = GetBE(image, kHeader + 272 + 16, 4);
        catalog = catalog_block * block;
        node_size = GetBE(image, catalog + 32, 2);
        // The map record is the header node's third; its offset stands
        // third from the node's end.
        map = catalog + GetBE(image, catalog + node_size - 6, 2);
        const std::uint64_t info = GetBE(image, kHeader + 12, 4) * block;
        info_sector = info / 512;
        journal_sector = info == 0 ? 0 : GetBE(image, info + 36, 8) / 512;
    }
    // Bits go from the most significant on, in the allocation file and in a map.
    static void Flip(Bytes& image, std::uint64_t at, std::uint64_t bit) { image.at(at + bit / 8) ^= 0x80 >> (bit % 8); }
    void AddToField(Bytes& image, std::uint64_t at, unsigned width, std::int64_t delta) const {
        PutBE(image, at, width, GetBE(image, at, width) + delta);
    }

    std::uint64_t block, bitmap, catalog_block, catalog, node_size, map, info_sector, journal_sector;
};

struct DamageCase {
    const char* what;
    const char* mkfs;
    // Spoils the image's bytes, or gives the journal writer's blocks
    // ("SECTOR:FILE") for a transaction that does.
    std::function<void(Bytes&, const Layout&)> spoil;
    std::function<std::string(const Layout&, std::uint64_t volume_sectors)> transaction;
    bool refused_at_mount;
};

TEST(HFSPlusDamagedWrite, DamageIsRefusedAndNothingChanges) {
    const auto catalog_root = [](const Bytes& image, const Layout& at) { return GetBE(image, at.catalog + 14 + 2, 4); };
    const DamageCase cases[] = {
        {"the catalog's first block marked free, the free count left",
         "", [](Bytes& image, const Layout& at) { Layout::Flip(image, at.bitmap, at.catalog_block); }, nullptr, false},
        {"the catalog's first block marked free, the free count raised to match", "",
         [](Bytes& image, const Layout& at) {
             Layout::Flip(image, at.bitmap, at.catalog_block);
             at.AddToField(image, kHeader + 48, 4, 1);
         },
         nullptr, false},
        {"the volume header's block marked free", "",
         [](Bytes& image, const Layout& at) {
             Layout::Flip(image, at.bitmap, kHeader / at.block);
             at.AddToField(image, kHeader + 48, 4, 1);
         },
         nullptr, false},
        {"the journal's blocks marked free", "-J",
         [](Bytes& image, const Layout& at) {
             Layout::Flip(image, at.bitmap, at.journal_sector * 512 / at.block + 1);
             at.AddToField(image, kHeader + 48, 4, 1);
         },
         nullptr, false},
        {"the catalog's root node marked free in its map", "",
         [&](Bytes& image, const Layout& at) {
             Layout::Flip(image, at.map, catalog_root(image, at));
             at.AddToField(image, at.catalog + 14 + 26, 4, 1);
         },
         nullptr, false},
        {"a free catalog node marked used, the free count left", "",
         [](Bytes& image, const Layout& at) {
             const std::uint64_t total = GetBE(image, at.catalog + 14 + 22, 4);
             Layout::Flip(image, at.map, total - 1);
         },
         nullptr, false},
        {"a transaction's block past the volume's end", "-J", nullptr,
         [](const Layout&, std::uint64_t sectors) { return std::to_string(sectors + 8); }, true},
        {"a transaction's block on the journal's header", "-J", nullptr,
         [](const Layout& at, std::uint64_t) { return std::to_string(at.journal_sector); }, true},
        {"a transaction's block inside the journal's ring", "-J", nullptr,
         [](const Layout& at, std::uint64_t) { return std::to_string(at.journal_sector + 4096); }, true},
        {"a transaction's block on the journal info block", "-J", nullptr,
         [](const Layout& at, std::uint64_t) { return std::to_string(at.info_sector); }, true},
    };
    for (const DamageCase& c : cases) {
        SCOPED_TRACE(c.what);
        TestSupport::ImageFile image;
        // Journals on smaller volumes are too small to be taken.
        ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, c.mkfs[0] == 0 ? "16M" : "128M", c.mkfs));
        Bytes bytes = image.bytes();
        const Layout at(bytes);
        if (c.spoil) {
            c.spoil(bytes, at);
            image.store(bytes);
        } else {
            const std::string block = image.folder.Path() + "/block";
            TestSupport::StoreFile(block, Bytes(512, 0xA5));
            const std::string sector = c.transaction(at, bytes.size() / 512);
            ASSERT_EQ(TestSupport::RunQuietly(TestSupport::HfsJournalWriter() + " " + image.path + " " + sector + ":" +
                                              block),
                      0);
            bytes = image.bytes();
        }
        if (c.refused_at_mount) {
            const std::unique_ptr<TestSupport::MemoryDisk> disk = TestSupport::DiskOf(image.path);
            HFSPlusDriver* driver = nullptr;
            EXPECT_EQ(RaisedCode([&] { driver = new HFSPlusDriver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0); }),
                      Common::FILE_CORRUPT);
            if (driver != nullptr) release(driver);
            EXPECT_EQ(disk->writes(), 0u);
            continue;
        }
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            FileSystemDriver::DirectoryObject* root = volume.driver->get_directory(u"/");
            ASSERT_NE(root, nullptr);
            EXPECT_EQ(RaisedCode([&] { root->make_directory(u"made"); }), Common::FILE_CORRUPT);
            // Refused again: the first refusal changed nothing that would let it by.
            EXPECT_EQ(RaisedCode([&] { delete root->create_file(u"new.txt"); }), Common::FILE_CORRUPT);
        }
        EXPECT_TRUE(image.bytes() == bytes) << "the image changed";
    }
}

}  // namespace

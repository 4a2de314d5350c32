// The driver trial over in-memory volumes: what it reads, what it answers
// for volumes no driver takes, and what MountVolume leaves with whom.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "fsdriver/driver_selection.h"
#include "loader/mount_volume.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/driver_test_disk.h"

namespace {

using driver_test::MemoryDisk;

// A FAT16 volume of 8 MiB in 512-byte sectors, made by mkfs.fat, with one
// file put there by mtools.
std::unique_ptr<MemoryDisk> ToolMadeFatVolume(bool* destroyed = nullptr) {
    TestSupport::TempFolder folder;
    const std::string image = folder.Path() + "/volume.img";
    const std::string payload = folder.Path() + "/payload";
    const std::string make = "truncate -s 8M '" + image + "' && mkfs.fat -F 16 -S 512 -s 2 '" + image +
                             "' >/dev/null && printf 'seventeen bytes!\\n' > '" + payload + "' && mcopy -i '" +
                             image + "' '" + payload + "' ::NOTE.TXT";
    EXPECT_EQ(std::system(make.c_str()), 0) << make;
    std::ifstream in(image, std::ios::binary);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto disk = std::make_unique<MemoryDisk>(512, 8 * 2048, destroyed);
    EXPECT_EQ(bytes.size(), disk->bytes.size());
    disk->bytes = bytes;
    return disk;
}

std::unique_ptr<MemoryDisk> ZeroVolume(bool* destroyed = nullptr) {
    auto disk = std::make_unique<MemoryDisk>(512, 2048, destroyed);
    std::fill(disk->bytes.begin(), disk->bytes.end(), 0);
    return disk;
}

TEST(DriverSelection, TrialReadsOnlyWhenNoBootSectorIsGiven) {
    // No driver takes zeros: the first sector is read once, at the volume's
    // start and into an aligned buffer, and nothing else is asked.
    auto zeros = ZeroVolume();
    EXPECT_EQ(TryAllDrivers(zeros.get(), 7, 100, 0, nullptr, 0, 0), nullptr);
    ASSERT_FALSE(zeros->log.empty());
    EXPECT_EQ(zeros->log[0].operation, Fdisk::kTransferRead);
    EXPECT_EQ(zeros->log[0].sector, 7u);
    EXPECT_EQ(zeros->log[0].count, 1u);
    EXPECT_EQ(zeros->unaligned, 0);

    // A device that can't deliver sector 0 gets no further request.
    auto refusing = ZeroVolume();
    refusing->refuse_reads = true;
    EXPECT_EQ(TryAllDrivers(refusing.get(), 0, 2048, 0, nullptr, 0, 0), nullptr);
    EXPECT_EQ(refusing->log.size(), 1u);

    // A given boot sector of zeros is refused without any read here.
    auto untouched = ZeroVolume();
    unsigned char sector[512] = {};
    EXPECT_EQ(TryAllDrivers(untouched.get(), 0, 2048, 0, sector, 0, 0), nullptr);
    // The trial doesn't read it again; a driver whose superblock lies
    // elsewhere (ext, at byte 1024) still reads that.
    for (const auto& record : untouched->log) EXPECT_NE(record.sector, 0u);
}

TEST(DriverSelection, AToolMadeFatVolumeMountsUncounted) {
    auto disk = ToolMadeFatVolume();
    FileSystemDriver* driver = TryAllDrivers(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0, 0);
    ASSERT_NE(driver, nullptr);
    EXPECT_EQ(driver->references, 0u);
    EXPECT_STREQ(driver->type_name(), "FAT16");
    EXPECT_EQ(driver->flags & MOUNT_OWNS_DEVICE, 0u);
    ++driver->references;
    release(driver);
    // The table's single-driver row answers the same volume.
    driver = kDriverTable[2].factory(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0, 0);
    ASSERT_NE(driver, nullptr);
    ++driver->references;
    release(driver);
}

TEST(DriverSelection, MountVolumeHandsTheDiskOverOnlyOnSuccess) {
    bool refused_destroyed = false;
    std::unique_ptr<Fdisk::SimpleDisk> refused = ZeroVolume(&refused_destroyed);
    EXPECT_EQ(EfiLoader::MountVolume(kDriverTable[0].factory, refused), nullptr);
    EXPECT_NE(refused, nullptr);
    EXPECT_FALSE(refused_destroyed);

    bool destroyed = false;
    std::unique_ptr<Fdisk::SimpleDisk> disk = ToolMadeFatVolume(&destroyed);
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(kDriverTable[0].factory, disk));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(disk, nullptr);
    // The root keeps the volume: a file opened through it reads after the
    // mount call has dropped its own reference.
    std::unique_ptr<ri_file> note(root->open_file(u"NOTE.TXT", true));
    ASSERT_NE(note, nullptr);
    char text[32] = {};
    std::uint64_t got = 0;
    note->read(text, sizeof text, got);
    EXPECT_EQ(std::string(text, got), "seventeen bytes!\n");
    note.reset();
    EXPECT_FALSE(destroyed);
    root.reset();
    EXPECT_TRUE(destroyed);
}

}  // namespace

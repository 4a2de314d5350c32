// The log reset on volumes that mkntfs makes. mkntfs leaves $LogFile
// blank, so each case writes restart pages of the published layout into
// the log's clusters, lets the driver make one change, and reads the log
// back with ntfscat: the "NTFS" client cut loose in both restart pages,
// everything else byte for byte as it was, and ntfsfix content.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "loader/common/byte_order.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/log_file.h"
#include "ntfs/ntfs_driver.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using Bytes = std::vector<unsigned char>;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

constexpr std::uint32_t kPage = 4096;
constexpr std::uint32_t kUsaOffset = 0x1E;
constexpr std::uint32_t kArea = 0x30;
constexpr std::uint32_t kClients = kArea + 0x30;
constexpr std::uint32_t kClientSize = 0xA0;
constexpr std::uint64_t kLogSize = 2 * 1024 * 1024;  // what mkntfs gives a 9 MiB volume

struct Client {
    std::u16string name;
    std::uint64_t oldest, restart;
};

// The update sequence as a writer of the log applies it.
void Protect(Bytes& page, std::uint16_t number) {
    Common::StoreLE16(&page[kUsaOffset], number);
    for (std::size_t i = 0; i < page.size() / 512; ++i) {
        Common::StoreLE16(&page[kUsaOffset + 2 + 2 * i], Common::LoadLE16(&page[i * 512 + 510]));
        Common::StoreLE16(&page[i * 512 + 510], number);
    }
}

bool Unprotect(Bytes& page) {
    const std::uint16_t number = Common::LoadLE16(&page[kUsaOffset]);
    for (std::size_t i = 0; i < page.size() / 512; ++i) {
        if (Common::LoadLE16(&page[i * 512 + 510]) != number) return false;
        Common::StoreLE16(&page[i * 512 + 510], Common::LoadLE16(&page[kUsaOffset + 2 + 2 * i]));
    }
    return true;
}

// A restart page of version 1.1 whose clients form one in-use list in
// array order; `loop` points the last client back at the first.
Bytes RestartPage(const char* signature, std::uint32_t system_page_size, const std::vector<Client>& clients,
                  std::uint64_t current_lsn, bool loop = false) {
    Bytes page(kPage, 0);
    std::copy(signature, signature + 4, page.begin());
    Common::StoreLE16(&page[4], kUsaOffset);
    Common::StoreLE16(&page[6], static_cast<std::uint16_t>(kPage / 512 + 1));
    Common::StoreLE32(&page[0x10], system_page_size);
    Common::StoreLE32(&page[0x14], kPage);
    Common::StoreLE16(&page[0x18], kArea);
    Common::StoreLE16(&page[0x1A], 1);
    Common::StoreLE16(&page[0x1C], 1);
    unsigned char* area = &page[kArea];
    const auto count = static_cast<std::uint16_t>(clients.size());
    Common::StoreLE64(area, current_lsn);
    Common::StoreLE16(area + 8, count);
    Common::StoreLE16(area + 0xA, 0xFFFF);
    Common::StoreLE16(area + 0xC, 0);
    Common::StoreLE16(area + 0xE, 2);  // the volume is clean
    Common::StoreLE32(area + 0x10, 67 - 22);  // 2 MiB takes 22 bits
    Common::StoreLE16(area + 0x14, static_cast<std::uint16_t>(0x30 + count * kClientSize));
    Common::StoreLE16(area + 0x16, 0x30);
    Common::StoreLE64(area + 0x18, kLogSize);
    Common::StoreLE16(area + 0x24, 0x30);
    Common::StoreLE16(area + 0x26, 0x40);
    for (std::uint16_t i = 0; i < count; ++i) {
        unsigned char* client = &page[kClients + i * kClientSize];
        Common::StoreLE64(client, clients[i].oldest);
        Common::StoreLE64(client + 8, clients[i].restart);
        Common::StoreLE16(client + 0x10, i == 0 ? 0xFFFF : i - 1);
        Common::StoreLE16(client + 0x12, i + 1 == count ? (loop ? 0 : 0xFFFF) : i + 1);
        Common::StoreLE32(client + 0x1C, static_cast<std::uint32_t>(clients[i].name.size() * 2));
        for (std::size_t c = 0; c < clients[i].name.size(); ++c) Common::StoreLE16(client + 0x20 + 2 * c, clients[i].name[c]);
    }
    Protect(page, 7);
    return page;
}

// What a page holds after the change: for each client its two LSNs, and
// the current LSN; the signature and update sequence number as well.
struct Seen {
    bool readable;
    std::uint16_t sequence_number;
    std::uint64_t current_lsn;
    std::vector<std::uint64_t> lsns;
};

Seen Look(Bytes page) {
    Seen seen{Unprotect(page), Common::LoadLE16(&page[kUsaOffset]), Common::LoadLE64(&page[kArea]), {}};
    for (std::uint16_t i = 0; i < Common::LoadLE16(&page[kArea + 8]) && i < 8; ++i) {
        seen.lsns.push_back(Common::LoadLE64(&page[kClients + i * kClientSize]));
        seen.lsns.push_back(Common::LoadLE64(&page[kClients + i * kClientSize + 8]));
    }
    return seen;
}

struct LogVolume {
    LogVolume() {
        made = TestSupport::RunQuietly("truncate -s 9M " + file.path + " && mkntfs -F -f -q -c 4096 " + file.path) == 0;
        const std::string info = TestSupport::CaptureOutput("ntfsinfo -v -F '/$LogFile' " + file.path);
        const std::size_t at = info.find("Runlist:");
        if (at != std::string::npos) lcn = std::stoull(info.substr(info.find("0x", info.find("0x", at) + 2)), nullptr, 16);
    }
    // Bytes put straight into the log's clusters, as if another system wrote them.
    void place(std::uint64_t offset, const Bytes& bytes) const {
        Bytes image = file.bytes();
        std::copy(bytes.begin(), bytes.end(), image.begin() + lcn * kPage + offset);
        file.store(image);
    }
    Bytes log() const {
        const std::string text = TestSupport::CaptureOutput("ntfscat " + file.path + " '$LogFile'");
        return Bytes(text.begin(), text.end());
    }
    // Mounts, makes one change of the volume's clusters and takes it back.
    void change() const {
        Volume volume(file.path);
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_FALSE(volume.driver->log_reset_done);
        std::vector<ntfs::BitRun> runs;
        volume.driver->cluster_allocator->allocate(runs, 1, nullptr, false, true);
        EXPECT_TRUE(volume.driver->log_reset_done);
        volume.driver->cluster_allocator->freeList(runs);
    }

    TestSupport::ImageFile file;
    std::uint64_t lcn = 0;
    bool made = false;
};

const std::vector<Client> kNtfsAndOther = {{u"LFS2", 0x700, 0x900}, {u"NTFS", 0x2000, 0x1800}};

TEST(NtfsLogFile, FirstChangeCutsTheNtfsClientInBothRestartPages) {
    LogVolume volume;
    ASSERT_TRUE(volume.made && volume.lcn != 0);
    volume.place(0, RestartPage("RSTR", kPage, kNtfsAndOther, 0x3000));
    volume.place(kPage, RestartPage("RSTR", kPage, kNtfsAndOther, 0x3100));
    const Bytes before = volume.log();
    ASSERT_EQ(before.size(), kLogSize);
    volume.change();
    const Bytes after = volume.log();
    ASSERT_EQ(after.size(), kLogSize);
    for (std::uint32_t offset : {0u, kPage}) {
        SCOPED_TRACE(offset);
        const Seen seen = Look(Bytes(after.begin() + offset, after.begin() + offset + kPage));
        EXPECT_TRUE(seen.readable);
        EXPECT_NE(seen.sequence_number, 7u);
        EXPECT_EQ(seen.current_lsn, 0x1800u);  // the older of the two
        EXPECT_EQ(seen.lsns, (std::vector<std::uint64_t>{0x700, 0x900, 0, 0}));  // the other client stays
    }
    // Nothing else of the log moved.
    EXPECT_TRUE(std::equal(before.begin() + 2 * kPage, before.end(), after.begin() + 2 * kPage));
    EXPECT_EQ(TestSupport::RunQuietly("ntfsfix -n " + volume.file.path), 0);
    // ntfs-3g checks the restart pages when it mounts for writing, and
    // tells of any it can't use.
    const std::string mount = volume.file.folder.Path() + "/mnt";
    EXPECT_EQ(TestSupport::CaptureOutput("mkdir -p " + mount + " && ntfs-3g -o norecover " + volume.file.path + " " +
                                         mount + " 2>&1 && umount " + mount + " && echo mounted"),
              "mounted\n");
}

struct Case {
    const char* what;
    std::vector<std::pair<std::uint64_t, Bytes>> pages;
    std::vector<std::uint64_t> changed;  // offsets of the pages the reset rewrites
    std::uint64_t current_lsn;           // of each changed page
};

TEST(NtfsLogFile, OnlySoundRestartPagesWithAnNtfsClientChange) {
    const Bytes blank(kPage, 0xFF);
    Bytes record(kPage, 0);
    std::copy_n("RCRD", 4, record.begin());
    const std::vector<Client> one_lsn = {{u"NTFS", 0, 0x1800}};
    const Case cases[] = {
        {"one LSN: cleared, current LSN stays",
         {{0, RestartPage("RSTR", kPage, one_lsn, 0x3000)}, {kPage, RestartPage("RSTR", kPage, one_lsn, 0x3000)}},
         {0, kPage},
         0x3000},
        {"both LSNs 0: no write", {{0, RestartPage("RSTR", kPage, {{u"NTFS", 0, 0}}, 0x3000)}}, {}, 0},
        {"another client only", {{0, RestartPage("RSTR", kPage, {{u"NTFX", 5, 6}}, 0x3000)}}, {}, 0},
        {"check-disk page passed over",
         {{0, RestartPage("CHKD", kPage, kNtfsAndOther, 0x3000)}, {kPage, RestartPage("RSTR", kPage, one_lsn, 0x3000)}},
         {kPage},
         0x3000},
        {"first page further in has no twin",
         {{0, blank}, {kPage, RestartPage("RSTR", kPage, one_lsn, 1)}, {2 * kPage, RestartPage("RSTR", kPage, one_lsn, 1)}},
         {kPage},
         1},
        {"a record page ends the search", {{0, record}, {kPage, RestartPage("RSTR", kPage, one_lsn, 1)}}, {}, 0},
        {"page size that isn't its place", {{0, blank}, {512, RestartPage("RSTR", kPage, one_lsn, 1)}}, {}, 0},
        {"client list that loops", {{0, RestartPage("RSTR", kPage, kNtfsAndOther, 1, true)}}, {}, 0},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        LogVolume volume;
        ASSERT_TRUE(volume.made && volume.lcn != 0);
        for (const auto& [offset, bytes] : row.pages) volume.place(offset, bytes);
        const Bytes before = volume.log();
        volume.change();
        const Bytes after = volume.log();
        ASSERT_EQ(after.size(), before.size());
        Bytes expected = before;
        for (std::uint64_t offset : row.changed) {
            const Seen seen = Look(Bytes(after.begin() + offset, after.begin() + offset + kPage));
            EXPECT_TRUE(seen.readable);
            EXPECT_NE(seen.sequence_number, 7u);
            EXPECT_EQ(seen.current_lsn, row.current_lsn);
            EXPECT_EQ(seen.lsns, (std::vector<std::uint64_t>{0, 0}));
            std::copy_n(after.begin() + offset, kPage, expected.begin() + offset);
        }
        EXPECT_TRUE(after == expected);
    }
}

TEST(NtfsLogFile, ReadingLeavesTheLogAsItWas) {
    LogVolume volume;
    ASSERT_TRUE(volume.made && volume.lcn != 0);
    volume.place(0, RestartPage("RSTR", kPage, kNtfsAndOther, 0x3000));
    volume.place(kPage, RestartPage("RSTR", kPage, kNtfsAndOther, 0x3000));
    const Bytes before = volume.file.bytes();
    {
        Volume mounted(volume.file.path);
        ASSERT_NE(mounted.driver, nullptr);
        std::uint64_t total = 0, free = 0, available = 0;
        mounted.driver->space(total, free, available);
        EXPECT_EQ(mounted.list(u"").error, 0u);
        // The log itself is read: its first restart page, fixups undone.
        ntfs::LogFile log(mounted.driver);
        ASSERT_FALSE(log.failed());
        Bytes page;
        std::uint32_t size = 0;
        std::uint64_t position = 0;
        ASSERT_TRUE(ntfs::next_restart_page(log, page, size, position));
        EXPECT_EQ(position, 0u);
        ASSERT_EQ(size, kPage);
        EXPECT_EQ(Common::LoadLE64(&page[kArea]), 0x3000u);
        EXPECT_EQ(Common::LoadLE64(&page[kClients + kClientSize]), 0x2000u);
        EXPECT_FALSE(mounted.driver->log_reset_done);
        EXPECT_EQ(mounted.disk->writes(), 0u);
    }
    EXPECT_TRUE(volume.file.bytes() == before);
}

}  // namespace

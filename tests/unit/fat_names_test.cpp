// Short names, case mapping, OEM text and entry times of the FAT driver,
// with and without the firmware's collation protocol. Where a volume is
// needed it is made by mkfs.fat and filled by mtools, whose choices of
// short names, case flags, checksums and times are the yardstick.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fat/entry_time.h"
#include "fat/fat_text.h"
#include "fat/short_name.h"
#include "firmware/firmware_access.h"
#include "loader/common/error_codes.h"
#include "platform/clib/clib.h"
#include "platform/host/collation_stand_in.h"
#include "platform/host/simulator.h"
#include "tests/support/raised_code.h"
#include "tests/support/temp_folder.h"

namespace {

using Text = FATDriver::FATText;
using ShortName = FATDriver::ShortName;
using EntryTime = FATDriver::EntryTime;

// No firmware at all, as the host tool may run: everything is ASCII.
struct NoFirmware {
    NoFirmware() { Uefi::InitializeFirmwareAccess(nullptr, nullptr); }
};

// A simulated firmware that carries a collation protocol (code page 850).
struct FirmwareWithCollation {
    HostFirmware::Simulator simulator;
    HostFirmware::CollationStandIn collation{simulator};
    FirmwareWithCollation() { Uefi::InitializeFirmwareAccess(simulator.ImageHandle(), simulator.SystemTable()); }
};

// The process's time zone, for as long as this lives.
class TimeZone {
public:
    explicit TimeZone(const char* zone) : had_(std::getenv("TZ") != nullptr), old_(had_ ? std::getenv("TZ") : "") {
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone() {
        had_ ? setenv("TZ", old_.c_str(), 1) : unsetenv("TZ");
        tzset();
    }

private:
    bool had_;
    std::string old_;
};

std::string Bytes(const unsigned char* bytes, std::size_t n) { return std::string(reinterpret_cast<const char*>(bytes), n); }
std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

// A 32-byte entry with the given 11 name bytes and case flags.
std::vector<unsigned char> Entry(const std::string& name, unsigned char flags) {
    std::vector<unsigned char> entry(32, 0);
    std::memcpy(entry.data(), name.data(), 11);
    entry[12] = flags;
    return entry;
}

// The root directory of a FAT12 volume that mtools filled with `files`
// (UTF-8 names, dated 2021-03-04 05:06:08): each short entry by its 11
// bytes, with byte 13 of every long entry in front of it.
struct MtoolsEntry {
    std::vector<unsigned char> entry;
    std::vector<std::uint8_t> checksums;
};

std::map<std::string, MtoolsEntry> MtoolsRoot(const TestSupport::TempFolder& folder, const std::vector<std::string>& files) {
    std::string make = "cd '" + folder.Path() + "' && truncate -s 2M fat.img && mkfs.fat -F 12 fat.img >/dev/null";
    for (const std::string& file : files) {
        make += " && echo hi > '" + file + "' && touch -d '2021-03-04 05:06:08' '" + file +
            "' && LC_ALL=C.UTF-8 mcopy -m -i fat.img '" + file + "' '::" + file + "'";
    }
    std::map<std::string, MtoolsEntry> found;
    EXPECT_EQ(std::system(make.c_str()), 0) << make;
    std::string disk = folder.Read("fat.img");
    if (disk.size() < 512) return found;
    auto byte = [&](std::size_t at) { return static_cast<unsigned char>(disk[at]); };
    std::size_t at = ((byte(14) | byte(15) << 8) + byte(16) * (byte(22) | byte(23) << 8)) * 512;
    for (MtoolsEntry pending; at + 32 <= disk.size() && disk[at] != 0; at += 32) {
        const auto* e = reinterpret_cast<const unsigned char*>(&disk[at]);
        if (e[11] == 0x0F) {
            pending.checksums.push_back(e[13]);
        } else {
            pending.entry.assign(e, e + 32);
            found[Bytes(e, 11)] = pending;
            pending = MtoolsEntry();
        }
    }
    return found;
}

TEST(FatText, CaseMappingAndOemTextFollowTheProtocolOrAscii) {
    std::string bytes;
    std::u16string decoded;
    const unsigned char oem[] = {0x90, 'T', 0xE5, 0, 0x90};
    const unsigned char ascii[] = {'A', 'B', 'C', 0, 'D'};
    {
        NoFirmware none;
        std::u16string text = u"aBz-\u00e9\u00c9";
        Text::text_upper(text);
        EXPECT_EQ(text, u"ABZ-\u00e9\u00c9");
        Text::text_lower(text);
        EXPECT_EQ(text, u"abz-\u00e9\u00c9");
        EXPECT_TRUE(Text::text_to_oem(u"Az_ ~", bytes));
        EXPECT_EQ(bytes, "Az_ ~");
        EXPECT_FALSE(Text::text_to_oem(u"a\u00e9", bytes));
        EXPECT_TRUE(Text::oem_to_text(ascii, 5, decoded));
        EXPECT_EQ(decoded, u"ABC");
        EXPECT_TRUE(Text::oem_to_text(ascii, 2, decoded));
        EXPECT_EQ(decoded, u"AB");
        EXPECT_FALSE(Text::oem_to_text(oem, 2, decoded));
    }
    FirmwareWithCollation firmware;
    // Each run between zero units is mapped; the division sign and y with
    // diaeresis have no capital in Latin-1.
    std::u16string text(u"a\u00e9\u00f7\0b\u00ffc", 7);
    Text::text_upper(text);
    EXPECT_EQ(text, std::u16string(u"A\u00c9\u00f7\0B\u00ffC", 7));
    Text::text_lower(text);
    EXPECT_EQ(text, std::u16string(u"a\u00e9\u00f7\0b\u00ffc", 7));
    EXPECT_TRUE(Text::text_to_oem(u"\u00c9T\u00c9", bytes));
    EXPECT_EQ(bytes, "\x90T\x90");
    EXPECT_FALSE(Text::text_to_oem(u"A\u20ac", bytes)) << "the euro sign is not in code page 850";
    EXPECT_TRUE(Text::oem_to_text(oem, 5, decoded));
    EXPECT_EQ(decoded, u"\u00c9T\u00d5");
}

TEST(FatShortName, ToShortNameAcceptsOnlyRealShortNames) {
    NoFirmware none;
    const struct {
        std::u16string name;
        const char* bytes;  // null when refused
    } cases[] = {
        {u"FOO.TXT", "FOO     TXT"}, {u"foo.txt", "FOO     TXT"},   {u"README", "README     "},
        {u"A.", "A          "},     {u"ABCDEFGH.TXT", "ABCDEFGHTXT"}, {u"a b.c", "A B     C  "},
        {u"a?b", "A?B        "},    {u"ABCDEFGHI", nullptr},        {u"", nullptr},
        {u".TXT", nullptr},         {u"A.B.C", nullptr},            {u"A.TEXT", nullptr},
        {u"A .TXT", nullptr},       {u"A.T ", nullptr},             {u"\u00e9.txt", nullptr},
    };
    for (const auto& c : cases) {
        unsigned char out[11];
        bool accepted = ShortName::to_short_name(c.name, out);
        EXPECT_EQ(accepted, c.bytes != nullptr) << Narrow(c.name);
        if (accepted && c.bytes != nullptr) {
            EXPECT_EQ(Bytes(out, 11), c.bytes);
        }
    }
}

TEST(FatShortName, BuildShortNameFillsBasisFlagsAndCutPlaces) {
    NoFirmware none;
    const struct {
        std::u16string name;
        const char* bytes;
        bool exact, needs_long;
        std::uint32_t cut_short, cut_long;
    } cases[] = {
        {u"README.TXT", "README  TXT", true, false, 2, 6},  {u"readme.txt", "README  TXT", true, true, 2, 6},
        {u"A", "A          ", true, false, 1, 1},           {u"ab", "AB         ", true, true, 2, 2},
        {u"Long File Name.txt", "LONGFILETXT", false, true, 2, 6},
        {u"a+b.txt", "A_B     TXT", false, true, 2, 3},     {u"[x].y", "_X_     Y  ", false, true, 2, 3},
        {u"a,b;c=d", "A_B_C_D    ", false, true, 2, 6},     {u".profile", "PROFILE    ", false, true, 2, 6},
        {u". .x", "X          ", false, true, 1, 1},         {u"x.y.z", "XY      Z  ", false, true, 2, 2},
        {u"ABCDEFGHIJ", "ABCDEFGH   ", false, true, 2, 6},  {u"ABC.TEXT", "ABC     TEX", false, true, 2, 3},
        {u"X.T T", "X       TT ", false, true, 1, 1},       {u"", "_          ", false, true, 1, 1},
        {u"...", "_          ", false, true, 1, 1},         {u" . ", "_          ", false, true, 1, 1},
        {u"\u00f1", "_          ", false, true, 1, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.name));
        ShortName::Basis basis = ShortName::build_short_name(c.name);
        EXPECT_EQ(Bytes(basis.name, 11), c.bytes);
        EXPECT_EQ(basis.exact, c.exact);
        EXPECT_EQ(basis.needs_long, c.needs_long);
        EXPECT_EQ(basis.cut_short, c.cut_short);
        EXPECT_EQ(basis.cut_long, c.cut_long);
    }
    for (std::u16string refused : {u"a?b", u"a*b", u"a:b", u"a<b", u"a>b", u"a|b", u"a\"b", u"a\\b", u"a/b",
                                   u"a\x01" u"b", u"\x1f"}) {
        EXPECT_EQ(TestSupport::RaisedCode([&] { ShortName::build_short_name(refused); }), Common::FILE_CREATE)
            << Narrow(refused);
    }
}

TEST(FatShortName, DisplayTextHonoursCaseFlagsAndTheDeletedMarkStandIn) {
    NoFirmware none;
    const struct {
        const char* bytes;
        unsigned char flags;
        std::u16string text;
    } cases[] = {
        {"FOO     TXT", 0x00, u"FOO.TXT"}, {"FOO     TXT", 0x08, u"foo.TXT"}, {"FOO     TXT", 0x10, u"FOO.txt"},
        {"FOO     TXT", 0x18, u"foo.txt"}, {"README     ", 0x08, u"readme"},   {"A B     C  ", 0x00, u"A B.C"},
        {"           ", 0x00, u""},        {"        TXT", 0x00, u""},       {"\0OO     TXT", 0x00, u""},
        {"\x05X      TXT", 0x00, u""},    {"\x90       TXT", 0x18, u""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ShortName::to_text(Entry(std::string(c.bytes, 11), c.flags).data()), c.text) << c.bytes;
    }
}

TEST(FatShortName, AgreesWithWhatMtoolsWrites) {
    const struct {
        std::string file;
        const char* short_bytes;
        std::u16string display;
    } cases[] = {
        {"Long File Name.txt", "LONGFI~1TXT", u"LONGFI~1.TXT"}, {"a+b.txt", "A_B~1   TXT", u"A_B~1.TXT"},
        {".profile", "PROFIL~1   ", u"PROFIL~1"},              {"readme.txt", "README  TXT", u"readme.txt"},
        {"lower.TXT", "LOWER   TXT", u"lower.TXT"},            {"UPPER.txt", "UPPER   TXT", u"UPPER.txt"},
    };
    TestSupport::TempFolder folder;
    std::vector<std::string> files;
    for (const auto& c : cases) files.push_back(c.file);
    std::map<std::string, MtoolsEntry> entries = MtoolsRoot(folder, files);
    NoFirmware none;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        auto found = entries.find(c.short_bytes);
        ASSERT_NE(found, entries.end());
        const unsigned char* entry = found->second.entry.data();
        EXPECT_EQ(ShortName::to_text(entry), c.display);
        for (std::uint8_t sum : found->second.checksums) EXPECT_EQ(ShortName::checksum(entry), sum);
        struct stat info;
        ASSERT_EQ(stat((folder.Path() + "/" + c.file).c_str(), &info), 0);
        EXPECT_EQ(EntryTime::from_disk(entry[24] | entry[25] << 8, entry[22] | entry[23] << 8, 0),
                  static_cast<std::int64_t>(info.st_mtime) * 1000);
        // Where mtools wrote a long name, its "~1" stands where the basis
        // puts the one-digit tail.
        ShortName::Basis basis = ShortName::build_short_name(std::u16string(c.file.begin(), c.file.end()));
        if (found->second.checksums.empty()) continue;
        std::string tailed = Bytes(basis.name, 11);
        tailed.replace(basis.cut_long, 8 - basis.cut_long, "~1" + std::string(6 - basis.cut_long, ' '));
        EXPECT_EQ(tailed, c.short_bytes);
    }
}

TEST(FatShortName, CodePage850AgreesWithMtools) {
    const struct {
        const char* file;  // UTF-8
        std::u16string name;
        const char* short_bytes;
        std::u16string display;
    } cases[] = {
        // Capital O with tilde is 0xE5 in code page 850, the deleted mark.
        {"\xc3\x95x.txt", u"\u00d5x.txt", "\x05X      TXT", u"\u00d5X.TXT"},
        {"\xc3\xa9.txt", u"\u00e9.txt", "\x90       TXT", u"\u00e9.txt"},
        {"\xc3\x89T\xc3\x89.TXT", u"\u00c9T\u00c9.TXT", "\x90T\x90     TXT", u"\u00c9T\u00c9.TXT"},
    };
    TestSupport::TempFolder folder;
    std::map<std::string, MtoolsEntry> entries = MtoolsRoot(folder, {cases[0].file, cases[1].file, cases[2].file});
    FirmwareWithCollation firmware;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        auto found = entries.find(c.short_bytes);
        ASSERT_NE(found, entries.end());
        EXPECT_EQ(ShortName::to_text(found->second.entry.data()), c.display);
        unsigned char out[11];
        ASSERT_TRUE(ShortName::to_short_name(c.name, out));
        EXPECT_EQ(Bytes(out, 11), c.short_bytes);
        for (std::uint8_t sum : found->second.checksums) EXPECT_EQ(ShortName::checksum(out), sum);
        ShortName::Basis basis = ShortName::build_short_name(c.name);
        EXPECT_EQ(Bytes(basis.name, 11), c.short_bytes);
        EXPECT_TRUE(basis.exact && basis.needs_long);
    }
    ShortName::Basis lossy = ShortName::build_short_name(u"\u20ac.txt");
    EXPECT_EQ(Bytes(lossy.name, 11), "_       TXT");
    EXPECT_FALSE(lossy.exact);
}

TEST(FatEntryTime, ConvertsDiskFieldsAndLeavesOutOfRangeYearsAlone) {
    TimeZone utc("UTC");
    const std::uint16_t march_4_2021 = (41 << 9) | (3 << 5) | 4;
    const std::uint16_t five_six_eight = (5 << 11) | (6 << 5) | 4;
    EXPECT_EQ(EntryTime::from_disk(0, 0, 150), 0);
    EXPECT_EQ(EntryTime::from_disk(march_4_2021, five_six_eight, 0), 1614834368000);
    EXPECT_EQ(EntryTime::from_disk(march_4_2021, five_six_eight, 199), 1614834369990);
    EXPECT_EQ(EntryTime::from_disk(0x21, 0, 0), 315532800000);  // 1980-01-01
    const struct {
        std::int64_t value;
        bool written;
        std::uint16_t date, time;
        std::uint8_t tenths;
    } cases[] = {
        {1614834369990, true, march_4_2021, five_six_eight, 199},
        {315532800000, true, 0x21, 0, 0},
        {4354819198000, true, (127 << 9) | (12 << 5) | 31, (23 << 11) | (59 << 5) | 29, 0},
        {315532799999, false, 0, 0, 0},
        {4354819200000, false, 0, 0, 0},
        {-5000, false, 0, 0, 0},
        {0, false, 0, 0, 0},
    };
    for (const auto& c : cases) {
        std::uint16_t date = 0xBEEF, time = 0xBEEF;
        std::uint8_t tenths = 0xEE;
        EntryTime::to_disk(c.value, date, time, tenths);
        EXPECT_EQ(date, c.written ? c.date : 0xBEEF) << c.value;
        EXPECT_EQ(time, c.written ? c.time : 0xBEEF) << c.value;
        EXPECT_EQ(tenths, c.written ? c.tenths : 0xEE) << c.value;
    }
}

TEST(FatEntryTime, DiskFieldsSurviveARoundTripInAZoneWithSummerTime) {
    TimeZone madrid("Europe/Madrid");
    for (std::uint16_t date : {0x21, (44 << 9) | (7 << 5) | 15, (20 << 9) | (2 << 5) | 29, (127 << 9) | (12 << 5) | 31}) {
        for (std::uint16_t time : {0x0001, (12 << 11) | (30 << 5) | 29, (23 << 11) | (59 << 5) | 29}) {
            for (std::uint8_t tenths : {0, 57, 199}) {
                std::uint16_t date_back = 0, time_back = 0;
                std::uint8_t tenths_back = 0;
                EntryTime::to_disk(EntryTime::from_disk(date, time, tenths), date_back, time_back, tenths_back);
                EXPECT_EQ(date_back, date);
                EXPECT_EQ(time_back, time);
                EXPECT_EQ(tenths_back, tenths);
            }
        }
    }
}

// The firmware world's calendar is plain arithmetic; the C library's UTC
// functions are the yardstick, carrying of odd fields included.
TEST(ClibCalendar, UtcArithmeticAgreesWithTheCLibrary) {
    for (std::int64_t seconds = -2208988800; seconds < 7258118400; seconds += 86400 * 37 + 3671) {
        time_t moment = static_cast<time_t>(seconds);
        tm expected;
        ASSERT_NE(gmtime_r(&moment, &expected), nullptr);
        Clib::CalendarTime got;
        ASSERT_TRUE(Clib::UtcTime(seconds, got));
        ASSERT_EQ(std::vector<int>({got.year, got.month, got.day, got.hour, got.minute, got.second}),
                  std::vector<int>({expected.tm_year, expected.tm_mon, expected.tm_mday, expected.tm_hour,
                                    expected.tm_min, expected.tm_sec}))
            << seconds;
        ASSERT_EQ(Clib::UtcMakeTime(got), seconds);
    }
    const Clib::CalendarTime odd[] = {
        {0, 0, 0, 29, 1, 100, -1},  {0, 0, 0, 29, 1, 200, -1},   {0, 0, 0, 1, 12, 121, -1},
        {0, 0, 0, 1, -1, 121, -1},  {0, 0, 0, 0, 2, 121, -1},    {0, 0, 0, 0, -1, 80, -1},
        {62, 63, 31, 31, 15, 127, -1}, {59, 59, 23, 31, 11, 69, -1},
    };
    for (const Clib::CalendarTime& f : odd) {
        tm fields{};
        fields.tm_sec = f.second;
        fields.tm_min = f.minute;
        fields.tm_hour = f.hour;
        fields.tm_mday = f.day;
        fields.tm_mon = f.month;
        fields.tm_year = f.year;
        EXPECT_EQ(Clib::UtcMakeTime(f), static_cast<std::int64_t>(timegm(&fields))) << f.year << "-" << f.month;
    }
}

}  // namespace

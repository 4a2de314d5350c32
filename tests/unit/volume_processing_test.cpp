// The volume processing library's containers, which the ext driver relies
// on, and the device request that refuses every volume.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <string>

#include "fsdriver/resizer_bitmap.h"
#include "fsdriver/resizer_number_array.h"
#include "fsdriver/volume_processing.h"
#include "loader/common/error_codes.h"
#include "tests/support/raised_error.h"
#include "tests/unit/driver_test_disk.h"

namespace {

Common::Error RaisedBy(const std::function<void()>& action) { return TestSupport::RaisedError(action); }

void ExpectInternal(const Common::Error& error, const char16_t* text) {
    EXPECT_EQ(error.Code(), Common::RESIZER_INTERNAL);
    EXPECT_EQ(error.Message(), text);
}

TEST(ResizerBitmap, StorageIsWholeWordsAtLeastTheMinimumAndZeroed) {
    struct Case {
        std::uint64_t bits, minimum, bytes;
    };
    const Case cases[] = {
        {0, 0, 0}, {1, 0, 8}, {64, 0, 8}, {65, 0, 16}, {128, 0, 16}, {129, 0, 24},
        {1, 24, 24}, {200, 8, 32}, {0, 5, 5},
    };
    resizer::Bitmap map;
    map.reset(300, 0);
    std::memset(map.storage, 0xFF, map.size_in_bytes());
    for (const Case& row : cases) {
        SCOPED_TRACE(std::to_string(row.bits) + " bits, at least " + std::to_string(row.minimum));
        if (row.minimum == 0) {
            EXPECT_EQ(resizer::Bitmap::StorageBytes(row.bits), row.bytes);
        }
        map.reset(row.bits, row.minimum);
        EXPECT_EQ(map.bits, row.bits);
        EXPECT_EQ(map.size_in_bytes(), row.bytes);
        EXPECT_EQ(map.storage == nullptr, row.bytes == 0);
        for (std::uint64_t i = 0; i < row.bytes; ++i) ASSERT_EQ(map.storage[i], 0) << "byte " << i;
        if (row.bytes != 0) std::memset(map.storage, 0xFF, row.bytes);
    }
}

TEST(ResizerBitmap, IndexAtTheEndIsRefusedAndBitsLandWhereTheFormatSays) {
    resizer::Bitmap map;
    map.reset(70, 0);
    map.set(69);
    map.set(8);
    map.set(0);
    EXPECT_EQ(map.storage[8], 0x20);  // bit 69: bit 5 of byte 8
    EXPECT_EQ(map.storage[1], 0x01);
    EXPECT_TRUE(map.test(69));
    EXPECT_FALSE(map.test(68));
    map.clear(8);
    EXPECT_EQ(map.storage[1], 0x00);
    EXPECT_EQ(map.storage[0], 0x01);
    for (std::uint64_t n : {std::uint64_t{70}, std::uint64_t{71}, std::uint64_t{1000}, UINT64_MAX}) {
        SCOPED_TRACE(n);
        ExpectInternal(RaisedBy([&] { map.set(n); }), u"Internal error: invalid bitmap index");
        ExpectInternal(RaisedBy([&] { map.clear(n); }), u"Internal error: invalid bitmap index");
    }
    resizer::Bitmap empty;
    ExpectInternal(RaisedBy([&] { empty.set(0); }), u"Internal error: invalid bitmap index");
}

TEST(ResizerBitmap, AssignCopiesTheBitsIntoStorageOfItsOwn) {
    resizer::Bitmap source;
    source.reset(100, 40);
    source.set(3);
    source.set(99);
    resizer::Bitmap copy;
    copy.reset(5, 0);
    copy.assign(source);
    EXPECT_EQ(copy.bits, 100u);
    EXPECT_EQ(copy.size_in_bytes(), 40u);
    EXPECT_NE(copy.storage, source.storage);
    EXPECT_TRUE(copy.test(3));
    EXPECT_TRUE(copy.test(99));
    EXPECT_FALSE(copy.test(4));
    source.clear(3);
    EXPECT_TRUE(copy.test(3));
}

TEST(ResizerNumberArray, WidthMaskAndStorageFollowTheLargestValue) {
    struct Case {
        std::uint64_t count, largest;
        std::uint8_t width;
        std::uint64_t mask, bytes;
    };
    const Case cases[] = {
        {10, 5, 3, 7, 16},          // (27 / 8 + 16) rounded down: 16
        {10, 8, 4, 15, 16},         // (36 / 8 + 16) = 20, down to 16
        {1, 1, 1, 1, 16},
        {100, 1000, 10, 1023, 136}, // (990 / 8 + 16) = 139, down to 136
        {3, UINT64_MAX, 64, UINT64_MAX, 32},
        {0, 5, 0, 0, 0},
        {5, 0, 0, 0, 0},
    };
    resizer::NumberArray array;
    for (const Case& row : cases) {
        SCOPED_TRACE(std::to_string(row.count) + " elements up to " + std::to_string(row.largest));
        array.reset(row.count, row.largest);
        EXPECT_EQ(array.width, row.width);
        EXPECT_EQ(array.mask, row.mask);
        EXPECT_EQ(array.size_in_bytes(), row.bytes);
        bool empty = row.count == 0 || row.largest == 0;
        EXPECT_EQ(array.storage == nullptr, empty);
        EXPECT_EQ(array.largest, empty ? 0 : row.largest);
        EXPECT_EQ(array.count, empty ? 0 : row.count);
    }
}

TEST(ResizerNumberArray, ElementsAcrossByteEdgesKeepTheirNeighbours) {
    for (std::uint64_t largest : {std::uint64_t{5}, std::uint64_t{0x1ABC}, std::uint64_t{0xFF},
                                  std::uint64_t{1} << 40, UINT64_MAX}) {
        SCOPED_TRACE(largest);
        resizer::NumberArray array;
        const std::uint64_t count = 37;
        array.reset(count, largest);
        // Distinct values that fill the width, set in an order that writes
        // each element after both neighbours.
        auto value_of = [&](std::uint64_t i) { return (largest - i * 0x9E3779B97F4A7C15ull % (largest / 2 + 1)); };
        for (std::uint64_t i = 0; i < count; i += 2) array.set(i, value_of(i));
        for (std::uint64_t i = 1; i < count; i += 2) array.set(i, value_of(i));
        for (std::uint64_t i = 0; i < count; ++i) ASSERT_EQ(array.get(i), value_of(i)) << "element " << i;
        array.set(17, 0);
        EXPECT_EQ(array.get(16), value_of(16));
        EXPECT_EQ(array.get(17), 0u);
        EXPECT_EQ(array.get(18), value_of(18));
        // A reset to the same shape keeps the area but clears it.
        unsigned char* area = array.storage;
        array.reset(count, largest);
        EXPECT_EQ(array.storage, area);
        for (std::uint64_t i = 0; i < count; ++i) ASSERT_EQ(array.get(i), 0u) << "element " << i;
    }
}

TEST(ResizerNumberArray, RefusalsCarryTheirOwnTexts) {
    resizer::NumberArray array;
    ExpectInternal(RaisedBy([&] { array.get(0); }), u"Internal error: attempt to get element from empty array");
    ExpectInternal(RaisedBy([&] { array.set(0, 0); }), u"Internal error: attempt to set element in empty array");
    array.reset(10, 5);
    ExpectInternal(RaisedBy([&] { array.get(10); }), u"Internal error: invalid array index to get");
    ExpectInternal(RaisedBy([&] { array.set(10, 1); }), u"Internal error: invalid array index to set");
    ExpectInternal(RaisedBy([&] { array.set(3, 6); }), u"Internal error: invalid array value to set");
    EXPECT_FALSE(RaisedBy([&] { array.set(9, 5); }));
    EXPECT_EQ(array.get(9), 5u);
    array.reset(0, 5);
    ExpectInternal(RaisedBy([&] { array.get(0); }), u"Internal error: attempt to get element from empty array");
}

TEST(VolumeProcessing, EveryRequestIsRefused) {
    driver_test::MemoryDisk disk(512, 64);
    Fdisk::SimpleDisk* out = &disk;
    struct Case {
        bool with_device;
        std::uint32_t type, type_mask, code;
    };
    const Case cases[] = {
        {false, 0, 0x30, Common::RESIZER_INTERNAL},
        {true, 0, 0x30, Common::RESIZER_INVALID_FILE_SYSTEM},
        {true, 4, 0x30, Common::RESIZER_INVALID_FILE_SYSTEM},
        {true, 12, 0x1FFFE, Common::RESIZER_INVALID_FILE_SYSTEM},
        {true, 40, 0xFFFFFFFF, Common::RESIZER_INVALID_FILE_SYSTEM},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE("type " + std::to_string(row.type) + (row.with_device ? "" : ", no device"));
        resizer::Volume volume;
        volume.device = row.with_device ? &disk : nullptr;
        volume.type = row.type;
        volume.type_mask = row.type_mask;
        resizer::Request request;
        request.actions = resizer::kActionOpenSource | resizer::kActionDeviceFromProcessor;
        request.source = &volume;
        request.device_out = &out;
        Common::Error error = RaisedBy([&] { resizer::process_volume(request); });
        EXPECT_EQ(error.Code(), row.code);
        EXPECT_EQ(error.Message(), row.with_device ? std::u16string(u"Formato no v\u00e1lido")
                                                   : std::u16string(u"Internal error: source drive not specified"));
        EXPECT_EQ(out, &disk);
    }
}

TEST(VolumeProcessing, RecoveryDeviceRequestEndsInCorruptAndKeepsTheDevice) {
    driver_test::MemoryDisk disk(512, 64);
    driver_test::PlainDriver driver(&disk, 8, 40);
    std::new_handler before = std::get_new_handler();
    for (std::uint32_t mask : {0x30u, 0x1FFFEu, 0u}) {
        SCOPED_TRACE(mask);
        Common::Error error = RaisedBy([&] { FileSystemDriver::install_recovery_device(driver, mask); });
        EXPECT_EQ(error.Code(), Common::FILE_CORRUPT);
        EXPECT_EQ(error.Next().Code(), Common::RESIZER_INVALID_FILE_SYSTEM);
        EXPECT_EQ(driver.device, driver.base_device);
        EXPECT_EQ(driver.device, &disk);
        EXPECT_EQ(std::get_new_handler(), before);
    }
    EXPECT_EQ(disk.writes(), 0u);
}

}  // namespace

// The stores and loads of on-disk numbers: each order puts the bytes where
// its format expects them, and a store reads back through its load.
#include <gtest/gtest.h>

#include <cstring>

#include "loader/common/byte_order.h"

TEST(ByteOrder, StoresLayBytesInTheFormatsOrderAndLoadThemBack) {
    unsigned char bytes[8] = {};
    Common::StoreBE32(bytes, 0x11223344u);
    const unsigned char big32[] = {0x11, 0x22, 0x33, 0x44};
    EXPECT_EQ(0, std::memcmp(bytes, big32, 4));
    EXPECT_EQ(0x11223344u, Common::LoadBE32(bytes));

    Common::StoreLE32(bytes, 0x11223344u);
    const unsigned char little32[] = {0x44, 0x33, 0x22, 0x11};
    EXPECT_EQ(0, std::memcmp(bytes, little32, 4));
    EXPECT_EQ(0x11223344u, Common::LoadLE32(bytes));

    Common::StoreBE64(bytes, 0x0102030405060708ull);
    const unsigned char big64[] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(0, std::memcmp(bytes, big64, 8));
    EXPECT_EQ(0x0102030405060708ull, Common::LoadBE64(bytes));

    Common::be16 field;
    field.set(0xABCD);
    EXPECT_EQ(0xAB, reinterpret_cast<const unsigned char*>(&field)[0]);
    EXPECT_EQ(0xABCD, field.get());
}

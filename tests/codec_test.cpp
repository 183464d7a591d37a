// The byte codecs that every byte form leaving the process is built with.
#include <gtest/gtest.h>

#include <cstring>

#include "codec.h"

TEST(CodecTest, IntegersKeepTheirByteOrderWhateverTheTopBit) {
    const struct {
        uint32_t value;
        unsigned char little[4], big[4];
    } cases[] = {
        {0, {0, 0, 0, 0}, {0, 0, 0, 0}},
        {0x01020304, {4, 3, 2, 1}, {1, 2, 3, 4}},
        {0x80FF7F00, {0x00, 0x7F, 0xFF, 0x80}, {0x80, 0xFF, 0x7F, 0x00}}, // no sign spreads
        {0xFFFFFFFF, {0xFF, 0xFF, 0xFF, 0xFF}, {0xFF, 0xFF, 0xFF, 0xFF}},
    };
    for (const auto &c : cases) {
        unsigned char bytes[4] = {};
        fh::writeLe32(bytes, c.value);
        EXPECT_EQ(memcmp(bytes, c.little, 4), 0) << std::hex << c.value;
        EXPECT_EQ(fh::readLe32(c.little), c.value);
        fh::writeBe32(bytes, c.value);
        EXPECT_EQ(memcmp(bytes, c.big, 4), 0) << std::hex << c.value;
        EXPECT_EQ(fh::readBe32(c.big), c.value);
        EXPECT_EQ(fh::readBe16(c.big + 2), c.value & 0xFFFF);
    }
}

TEST(CodecTest, WideValuesSplitAndJoinWithoutLoss) {
    for (const uint64_t value : {uint64_t{0}, uint64_t{0xFFFFFFFF}, uint64_t{0x100000000}, ~uint64_t{0},
                                 uint64_t{0x8000000000000001}}) {
        EXPECT_EQ(fh::joinHalves(fh::lowHalf(value), fh::highHalf(value)), value) << std::hex << value;
    }
    unsigned char bytes[fh::kPointerBytes] = {};
    const auto pointer = reinterpret_cast<uintptr_t>(&bytes);
    fh::writePointerBytes(bytes, pointer);
    EXPECT_EQ(bytes[0], static_cast<unsigned char>(pointer)); // the low byte first
    EXPECT_EQ(fh::readPointerBytes(bytes), pointer);
}

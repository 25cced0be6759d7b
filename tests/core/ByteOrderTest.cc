#include "core/ByteOrder.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

template <class T> void expectBytes(T value, Bytes const& expected) {
   // One byte of its own on either side: nothing else is written, and nothing is aligned.
   Bytes buffer(sizeof(T) + 2, 0xee);
   Mox::storeBigEndian(buffer.data() + 1, value);
   EXPECT_EQ(Bytes(buffer.begin() + 1, buffer.end() - 1), expected);
   EXPECT_EQ(buffer.front(), 0xee);
   EXPECT_EQ(buffer.back(), 0xee);
   EXPECT_EQ(Mox::loadBigEndian<T>(buffer.data() + 1), value);
}

enum class Signed32 : std::int32_t { minusTwo = -2 };

TEST(ByteOrder, EveryWidthIsMostSignificantByteFirst) {
   expectBytes<std::uint8_t>(0xab, {0xab});
   expectBytes<std::uint16_t>(0x0102, {1, 2});
   expectBytes<std::int32_t>(-2, {0xff, 0xff, 0xff, 0xfe});
   expectBytes<unsigned long long>(0x0102030405060708, {1, 2, 3, 4, 5, 6, 7, 8});
   expectBytes<long long>(std::numeric_limits<long long>::min(), {0x80, 0, 0, 0, 0, 0, 0, 0});
   expectBytes<float>(0.2f, {0x3e, 0x4c, 0xcc, 0xcd});
   expectBytes<double>(-2.5, {0xc0, 0x04, 0, 0, 0, 0, 0, 0});
   expectBytes(Signed32::minusTwo, {0xff, 0xff, 0xff, 0xfe});
   expectBytes(true, {1});
   std::uint8_t const two = 2;
   EXPECT_TRUE(Mox::loadBigEndian<bool>(&two)) << "a foreign true must not make a bool that is neither";
}

static_assert([] {
   std::uint8_t bytes[4]{};
   Mox::storeBigEndian(bytes, 1.0f);
   return bytes[0] == 0x3f && bytes[1] == 0x80 && Mox::loadBigEndian<float>(bytes) == 1.0f;
}());

} // namespace

// Argument tests by themselves: overlaps, and the destinations of variable width that no operation has.
#include "kel_valid.h"
#include "support.h"
#include <gtest/gtest.h>

// A vector at 0x100 and a second one of bytes; at equal addresses the first argument's length decides.
TEST(overlap, vectors)
{
    // Format, elements, width and offset of the first; address and elements of the second; both answers.
    const std::tuple<uint64_t, uint64_t, uint32_t, uint8_t, uintptr_t, uint64_t, int, int> rows[] = {
        {KEL_BYTES, 4, 2, 0, 0x107, 0, 1, 1}, {KEL_BYTES, 4, 2, 0, 0x108, 9, 0, 0},
        {KEL_BITS, 8, 1, 0, 0x101, 8, 0, 0},  {KEL_BITS, 8, 1, 1, 0x101, 8, 1, 1},
        {KEL_ZIP, 9, 2, 0, 0x100, 9, 0, 0},   {KEL_BYTES, 1, 1, 0, 0x100, 0, 1, 0}};
    for (const auto &[format, elements, width, offset, address, second_elements, overlap, swapped] : rows) {
        const kel_vec_t first = {format, elements, at(0x100), width, offset, 0, 0, nullptr, nullptr, 0};
        const kel_vec_t second = {0, second_elements, at(address), 1, 0, 0, 0, nullptr, nullptr, 0};
        EXPECT_EQ(vec_overlap(&first, &second), overlap) << format << " and " << address;
        EXPECT_EQ(vec_overlap(&second, &first), swapped) << format << " and " << address;
    }
}

// A destination of sixteen bytes; an aux stream of four, of which a bit of offset makes five.
TEST(overlap, aux_streams_and_addresses)
{
    const kel_vec_t bytes = {KEL_BYTES, 8, at(0x100), 2, 0, 0, 0, nullptr, nullptr, 0};
    const std::tuple<uint64_t, uint64_t, uintptr_t, uint8_t, int> rows[] = {
        {KEL_RLE, 8, 0x10f, 0, 1}, {KEL_VAR, 8, 0x110, 0, 0}, {KEL_VAR, 8, 0xfd, 0, 1},
        {KEL_RLE, 8, 0xfc, 0, 0},  {KEL_RLE, 8, 0xfc, 1, 1},  {KEL_ZIP, 8, 0x100, 0, 0},
        {KEL_RLE, 0, 0x101, 0, 1}, {KEL_RLE, 0, 0x100, 0, 0}, {KEL_VAR | KEL_ZIP, 8, 0x100, 0, 1}};
    for (const auto &[format, elements, aux, offset, overlap] : rows) {
        const kel_vec_t runs = {format, elements, nullptr, 2, 0, offset, 4, at(aux), nullptr, 0};
        EXPECT_EQ(aux_overlap(&runs, &bytes), overlap) << format << " at " << aux;
    }
    for (const uintptr_t distance : {0u, 15u, 16u}) {
        EXPECT_EQ(addr_overlap(at(0x100), at(0x100 + distance), 16), distance < 16);
        EXPECT_EQ(addr_overlap(at(0x100 + distance), at(0x100), 16), distance < 16);
    }
    EXPECT_EQ(addr_overlap(at(0x100), at(0x100), 0), 0);
}

TEST(valid, variable_destinations)
{
    const std::tuple<uint64_t, uint32_t, uint16_t, lines_t> rows[] = {
        {KEL_VAR | KEL_ADD_ONE, 4, 8, {}},
        {KEL_VAR, 4, 16, {}},
        {KEL_VAR, 4, 32, {}},
        {KEL_VAR, 1, 4, {"Invalid dst aux_width 4 bits; must be 8, 16 or 32 bits"}},
        {KEL_ADD_ONE | KEL_ZIP,
         1,
         64,
         {"Invalid dst format: zip|add1", "Invalid dst format: KEL_ADD_ONE; only allowed with dst format KEL_VAR"}}};
    for (const auto &[format, width, aux_width, lines] : rows) {
        test_context ctx;
        const kel_vec_t v = {format, 4, at(0x1000), width, 0, 0, aux_width, nullptr, nullptr, 0};
        EXPECT_EQ(dst_valid(ctx, &v, KEL_VAR | KEL_ADD_ONE, 0, 2, 1), lines.empty());
        EXPECT_EQ(ctx.messages(), lines);
    }
}

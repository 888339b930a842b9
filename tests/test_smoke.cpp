#include "support.h"
#include <gtest/gtest.h>
TEST(smoke, scan)
{
    test_context ctx;
    alignas(64) uint8_t out[128]; uint8_t in[8] = {0x12, 0x34};
    kel_vec_t src = {KEL_BITS, 4, in, 4, 0,0,0,nullptr,nullptr,0}, dst = {KEL_BITS, 4, out, 1, 0,0,0,nullptr,nullptr,0};
    kel_int_t v = {KEL_BITS, 4, {0,0,3}};
    auto r = kel_scan_value(ctx, 0, &src, &dst, KEL_EQ, &v);
    EXPECT_EQ(r.status, 0); EXPECT_EQ(r.count, 1u); EXPECT_EQ(out[0], 0x20);
    dst.format=0; dst.elem_width=2;
    r = kel_scan_value(ctx, KEL_ONES_INDEX, &src, &dst, KEL_EQ, &v);
    EXPECT_EQ(out[1], 2);
    r = kel_scan_value(ctx, 4, &src, &dst, KEL_EQ, &v);
    for (auto &m : ctx.messages()) puts(m.c_str());
}

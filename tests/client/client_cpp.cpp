// The same client in C++.
#include <array>
#include <cstdio>
#include <kel.hpp>

int main()
{
    constexpr std::array numbers = {12, 7, -3, 7, 30, 7};
    const kel::column packed = kel::column::packed(numbers, -3);
    const kel::column found = kel::column::bytes(numbers.size(), 2);
    const kel::column_value seven = packed.value(7);

    const kel::context ctx = kel::open();
    if (!ctx || !packed || !found)
        return 1;
    const kel_result_t result = kel_scan_value(ctx, KEL_ONES_INDEX, packed, found, KEL_EQ, seven);
    std::array<uint32_t, numbers.size()> at;
    if (result.status != KEL_SUCCESS || found.unpack(std::span(at).first(result.count)) != KEL_SUCCESS)
        return 1;
    for (const uint32_t index : std::span(at).first(result.count))
        printf("%u\n", index);
}

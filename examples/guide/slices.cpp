// Threads scan one column, each a slice of it, into one bit vector.
#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <kel.hpp>
#include <thread>
#include <vector>

constexpr uint64_t slice_rows = 64 * 512; // a multiple of 512: the slice's bits start at a multiple of 64 bytes

static uint64_t scan_slice(const kel::column &src, const kel::column &dst, uint64_t first)
{
    kel_vec_t rows = src.vec, bits = dst.vec;
    rows.elements = bits.elements = std::min(slice_rows, src.vec.elements - first);
    rows.data = static_cast<uint8_t *>(src.vec.data) + first / 8 * src.vec.elem_width; // 8 elements of n bits: n bytes
    bits.data = static_cast<uint8_t *>(dst.vec.data) + first / 8;
    const kel::context ctx = kel::open(); // one for each thread
    if (!ctx)
        return 0;
    const kel_result_t result = kel_scan_value(ctx, 0, &rows, &bits, KEL_LT, src.value(100));
    return result.status == KEL_SUCCESS ? result.count : 0;
}

int main()
{
    std::vector<uint32_t> numbers(100'000);
    for (uint32_t i = 0; i < numbers.size(); i++)
        numbers[i] = i * 7919 % 1000;
    const kel::column src = kel::column::packed(numbers); // 10 bits each
    const kel::column sliced = kel::column::bits(numbers.size(), 1), whole = kel::column::bits(numbers.size(), 1);

    std::array<uint64_t, 4> counts = {};
    std::vector<std::thread> threads;
    for (uint64_t i = 0; i < counts.size(); i++)
        threads.emplace_back([&, i] { counts[i] = scan_slice(src, sliced, i * slice_rows); });
    for (std::thread &thread : threads)
        thread.join();

    const kel::context ctx = kel::open();
    if (!ctx || kel_scan_value(ctx, 0, src, whole, KEL_LT, src.value(100)).status != KEL_SUCCESS)
        return 1;
    const bool same = memcmp(sliced.vec.data, whole.vec.data, (numbers.size() + 7) / 8) == 0;
    std::cout << counts[0] << " + " << counts[1] << " + " << counts[2] << " + " << counts[3] << " matches, "
              << (same ? "the same" : "not those") << " as in one piece\n";
}

// Orders over 100 that are not cancelled: which, and for how much?
#include <iostream>
#include <kel.hpp>
#include <vector>

int main()
{
    const std::vector<uint32_t> amounts = {250, 99, 180, 101, 40, 7300, 120, 88};
    const std::vector<uint8_t> states = {0, 0, 2, 1, 0, 1, 0, 2}; // 0 open, 1 shipped, 2 cancelled
    const uint64_t rows = amounts.size();

    const kel::column amount = kel::column::packed(amounts); // 13 bits each
    const kel::column state = kel::column::packed(states);   // 2 bits each
    const kel::column large = kel::column::bits(rows, 1), alive = kel::column::bits(rows, 1);
    const kel::column wanted = kel::column::bits(rows, 1), sums = kel::column::bytes(rows, 4);
    const kel::column_value limit = amount.value(100), cancelled = state.value(2);

    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    const kel_result_t results[] = {
        kel_scan_value(ctx, 0, amount, large, KEL_GT, limit),
        kel_scan_value(ctx, 0, state, alive, KEL_NE, cancelled),
        kel_and(ctx, 0, large, alive, wanted),
        kel_select(ctx, 0, amount, sums, wanted),
    };
    for (const kel_result_t &result : results)
        if (result.status != KEL_SUCCESS) {
            std::cerr << kel::name(result.status) << '\n';
            return 1;
        }

    std::vector<uint32_t> found(results[3].count);
    if (sums.unpack(found) != KEL_SUCCESS)
        return 1;
    std::cout << amount.vec.elem_width << " bits an amount, " << found.size() << " orders:";
    for (const uint32_t sum : found)
        std::cout << ' ' << sum;
    std::cout << '\n';
}

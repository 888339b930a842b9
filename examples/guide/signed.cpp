// Temperatures have signs: a base makes elements of them, and a limit may lie outside what the column can have.
#include <iostream>
#include <kel.hpp>
#include <vector>

int main()
{
    const std::vector<int32_t> degrees = {-12, 3, 41, -40, 60, 18};
    const kel::column column = kel::column::packed(degrees, -40); // 0 to 100, in 7 bits
    const kel::column above = kel::column::bits(degrees.size(), 1);

    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    for (const int limit : {80, 1000, -300, -5}) {
        const kel::column_value value = column.value(limit); // less the base, in the column's width
        std::cout << "above " << limit << ": ";
        if (value.place == kel::place::below) {
            std::cout << "all\n";
        } else if (value.place == kel::place::above) {
            std::cout << "none\n";
        } else {
            const kel_result_t result = kel_scan_value(ctx, 0, column, above, KEL_GT, value);
            if (result.status != KEL_SUCCESS)
                return 1;
            std::cout << result.count << '\n';
        }
    }

    std::vector<int32_t> found(degrees.size());
    const kel_result_t result = column.unpack_selected(ctx, above, found); // adds the base
    if (result.status != KEL_SUCCESS)
        return 1;
    for (size_t i = 0; i < result.count; i++)
        std::cout << found[i] << '\n';
}

// Which flights go to one of three airports? The codes are looked up in a bitmap.
#include <array>
#include <iostream>
#include <kel.hpp>
#include <vector>

int main()
{
    const std::vector<uint16_t> airports = {4, 0, 2, 7, 2, 5, 1}; // codes of a dictionary
    const uint64_t rows = airports.size();
    const kel::column airport = kel::column::packed(airports); // 3 bits each
    const uint32_t width = airport.vec.elem_width;

    kel::column wanted = kel::column::bits(uint64_t{1} << width, 1); // a bit for each code that fits in the width
    for (const uint32_t code : {2u, 5u, 7u})
        if (wanted.pack(std::array<uint8_t, 1>{1}, 0, code) != KEL_SUCCESS)
            return 1;

    const kel::column found = kel::column::indexes(rows);
    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    const kel_result_t result = kel_translate(ctx, KEL_ONES_INDEX, airport, found, wanted, width);
    std::vector<uint32_t> at(result.count);
    if (result.status != KEL_SUCCESS || found.unpack(at) != KEL_SUCCESS)
        return 1;
    for (const uint32_t row : at)
        std::cout << row << ": " << airports[row] << '\n';
}

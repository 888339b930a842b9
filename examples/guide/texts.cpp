// Texts of 1 to 16 bytes, back to back, with a column of their lengths: which cities start with M or N?
#include <iostream>
#include <kel.hpp>
#include <vector>

int main()
{
    constexpr std::string_view cities[] = {"Oslo", "Madrid", "Lyon", "Nantes", "Rome", "Nis"};
    constexpr uint64_t rows = std::size(cities);
    size_t letters = 0;
    for (const std::string_view city : cities)
        letters += city.size();

    kel::column names = kel::column::texts(rows, letters);
    for (const std::string_view city : cities)
        if (names.append(city) != KEL_SUCCESS)
            return 1;
    const kel::column in_range = kel::column::indexes(rows), padded = kel::column::bytes(rows, 16);

    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    // Of two texts that are equal so far the shorter is the lesser: "M" <= "Madrid" < "O".
    const kel_int_t from = kel::value("M"), before = kel::value("O");
    const kel_result_t found = kel_scan_range(ctx, KEL_ONES_INDEX, names, in_range, KEL_GE_AND_LT, &from, &before);
    // Elements of one width can be addressed; KEL_PAD has the zero bytes behind the text.
    const kel_result_t extracted = kel_extract(ctx, KEL_PAD, names, padded);
    if (found.status != KEL_SUCCESS || extracted.status != KEL_SUCCESS)
        return 1;

    std::vector<uint32_t> at(found.count);
    if (in_range.unpack(at) != KEL_SUCCESS)
        return 1;
    for (const uint32_t row : at)
        std::cout << row << ' ' << padded.text(row) << '\n';
}

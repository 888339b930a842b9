// Codes of up to four letters, each in four bytes: a value must have the zero bytes at the end, too.
#include <iostream>
#include <kel.hpp>

int main()
{
    constexpr std::string_view codes[] = {"NY", "CA", "NYC", "NY", "N"};
    constexpr uint64_t rows = std::size(codes);
    kel::column column = kel::column::texts_of_width(rows, 4);
    for (const std::string_view code : codes)
        if (column.append(code) != KEL_SUCCESS)
            return 1;
    const kel::column found = kel::column::bits(rows, 1);

    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    const kel_int_t two_bytes = kel::value("NY");
    const kel_result_t bare = kel_scan_value(ctx, 0, column, found, KEL_EQ, &two_bytes);
    const kel_result_t padded = kel_scan_value(ctx, 0, column, found, KEL_EQ, column.value("NY"));
    if (bare.status != KEL_SUCCESS || padded.status != KEL_SUCCESS)
        return 1;
    std::cout << "in two bytes: " << bare.count << ", in those of the column: " << padded.count << '\n';
}

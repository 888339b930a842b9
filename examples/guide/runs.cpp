// A column in order has long runs: each value is stored once, with the length of its run.
#include <iostream>
#include <kel.hpp>
#include <vector>

int main()
{
    std::vector<uint16_t> days; // of events: 30 on a weekday, 4 on the others
    for (uint16_t day = 0; day < 8 * 7; day++)
        days.insert(days.end(), day % 7 < 5 ? 30 : 4, day);
    const uint64_t rows = days.size();

    kel::column day = kel::column::runs(rows, 8);
    if (day.pack_runs(days) != KEL_SUCCESS)
        return 1;
    const kel::column second_week = kel::column::bits(rows, 1), plain = kel::column::bytes(rows, 2);
    const kel::column_value first = day.value(7), last = day.value(13);

    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    const kel_result_t found = kel_scan_range(ctx, 0, day, second_week, KEL_GE_AND_LE, first, last);
    const kel_result_t expanded = kel_extract(ctx, 0, day, plain);
    if (found.status != KEL_SUCCESS || expanded.status != KEL_SUCCESS)
        return 1;

    std::vector<uint16_t> back(rows);
    if (plain.unpack(back) != KEL_SUCCESS)
        return 1;
    std::cout << day.vec.elements << " runs for " << rows << " events, " << found.count << " in the second week; "
              << "expanded they are " << (back == days ? "as they were" : "something else") << '\n';
}

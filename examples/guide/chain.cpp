// Three requests as a chain: each reads what the one before it writes, and the outcomes are polled at the end.
#include <iostream>
#include <kel.hpp>
#include <vector>

int main()
{
    const std::vector<uint16_t> readings = {17, 230, 44, 231, 8, 233, 12};
    const uint64_t rows = readings.size();
    const kel::column reading = kel::column::packed(readings);
    const kel::column high = kel::column::bits(rows, 1), values = kel::column::bytes(rows, 2);
    const kel::column odd = kel::column::bytes(rows, 2);
    const kel_int_t two_hundred = kel::value(200, reading.vec.elem_width), limit = kel::value(231, 16);

    const kel::context ctx = kel::open();
    const kel::queue queue = kel::make_queue(ctx, 3);
    if (!queue)
        return 1;
    // The mask of the select is what the scan writes; the last request depends on the select.
    const char *names[] = {"scan", "select", "scan of the selected"};
    kel_vec_t selected = values.vec;
    selected.elements = 3; // a client that does not know polls first
    const kel_status_t posted[] = {
        kel_scan_value_post(queue, KEL_SERIAL | KEL_PIPE_MASK, reading, high, KEL_GT, &two_hundred, &names[0]),
        kel_select_post(queue, KEL_COND | KEL_SERIAL, reading, values, high, &names[1]),
        kel_scan_value_post(queue, KEL_COND | KEL_ONES_INDEX, &selected, odd, KEL_GE, &limit, &names[2]),
    };
    for (const kel_status_t status : posted)
        if (status != KEL_SUCCESS)
            return 1;

    kel_poll_t done[3];
    const int polled = kel_poll(queue, done, 3, 0);
    for (int i = 0; i < polled; i++)
        std::cout << *static_cast<const char **>(done[i].udata) << ": " << kel::name(done[i].status) << ", "
                  << done[i].count << '\n';
}

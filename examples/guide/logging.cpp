// What the library says of a request that it refuses, and of one that it carries out.
#include <iostream>
#include <kel.hpp>

static void print(kel_context_t *, void *, uint32_t level, const char *, const char *message)
{
    std::string_view text = message;
    if (text.find("0x") != text.npos)
        text = text.substr(0, text.find('(')); // the line shows the arguments, with addresses
    std::cout << level << "  " << text << (text.ends_with('\n') ? "" : "\n");
}

int main()
{
    const kel::column src = kel::column::bits(100, 12);
    kel::column dst = kel::column::bits(100, 1);
    const kel_int_t value = kel::value(0, 12);

    const kel::context ctx = kel::open();
    if (!ctx)
        return 1;
    if (kel_set_log_callback(ctx, KEL_LOG_ERROR | KEL_LOG_ENTRY | KEL_LOG_RETURN, print, nullptr) != KEL_SUCCESS)
        return 1;
    dst.vec.elements = 99;
    dst.vec.offset = 3;
    (void)kel_scan_value(ctx, KEL_PAD, src, dst, KEL_EQ, &value); // three faults, and a line for each

    dst = kel::column::bits(100, 1);
    (void)kel_set_debug(ctx, KEL_DEBUG_ARG | KEL_DEBUG_PERF); // the probes are for tracers
    (void)kel_scan_value(ctx, 0, src, dst, KEL_EQ, &value);
}

// Command blocks: the refused entry for raw blocks, and conversions of a scan's block.
#include "kel_ccb.h"
#include "kel_io.h"
#include "kel_log.h"
#include <iterator>

int kel_submit(ccb_t *, size_t, unsigned int, kel_submit_res_t *)
{
    kel_report(nullptr, "kel_submit not supported on x64");
    return -1;
}

const char *kel_kill_status_str(uint16_t result)
{
    static constexpr const char *words[] = {"COMPLETED", "DEQUEUED", "KILLED", "NOT FOUND"};
    return result < std::size(words) ? words[result] : "INTERNAL ERROR";
}

kel_compare_t ccb_to_scan_op(const kel_scan_ccb_t *ccb)
{
    constexpr unsigned inverted = 16;
    constexpr unsigned order = 3;
    const unsigned upper = ccb->ctrl.u_size != kel_lu_unused;
    const unsigned lower = ccb->ctrl.l_size != kel_lu_unused;
    const unsigned opcode = ccb->hdr.opcode;
    const unsigned test = 2 * ((opcode & inverted) != 0) | ((opcode & ~inverted) == order);
    return static_cast<kel_compare_t>(upper && lower ? 16 | test : 4 * upper | test);
}

void lu_to_dword(uint64_t *dword, unsigned len, uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    const auto pair = [](uint32_t high, uint32_t low) { return uint64_t{high} << 32 | low; };
    const unsigned words = (len + 3) / 4;
    const unsigned spare = 8 * (4 * words - len); // bits behind the value in its last word
    switch (words) {
    case 1:
        dword[2] = a >> spare;
        break;
    case 2:
        dword[2] = pair(a, b) >> spare;
        break;
    default: {
        const qword_t value = words == 3 ? qword_t{a, pair(b, c)} : qword_t{pair(a, b), pair(c, d)};
        const qword_t aligned = qword_rshift(value, spare);
        dword[1] = aligned.hi;
        dword[2] = aligned.lo;
    }
    }
}

static void set_value(kel_int_t *val, uint32_t size, uint32_t a, uint32_t b, uint32_t c, uint32_t d)
{
    val->format = KEL_BYTES;
    val->elem_width = size + 1;
    lu_to_dword(val->dword, val->elem_width, a, b, c, d);
}

void ccb_to_scan_lower(const kel_scan_ccb_t *ccb, kel_int_t *lower)
{
    set_value(lower, ccb->ctrl.l_size, ccb->lu1.lower, ccb->lu2.lower, ccb->lu3.lower, ccb->lu4.lower);
}

void ccb_to_scan_upper(const kel_scan_ccb_t *ccb, kel_int_t *upper)
{
    set_value(upper, ccb->ctrl.u_size, ccb->lu1.upper, ccb->lu2.upper, ccb->lu3.upper, ccb->lu4.upper);
}

void ccb_to_scan_value(const kel_scan_ccb_t *ccb, kel_int_t *val)
{
    if (ccb->ctrl.l_size != kel_lu_unused)
        ccb_to_scan_lower(ccb, val);
    else
        ccb_to_scan_upper(ccb, val);
}

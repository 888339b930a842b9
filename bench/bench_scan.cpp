// Range scans and lookups: the operations that find matches.
#include "bench_column.h"
#include "bench_plain.h"
#include <cmath>

namespace
{

// ---- Scans of fixed width -------------------------------------------------------------------------------------------

// Values from the middle of a domain on, as many as give the share of matches; of wide elements their first 64 bits.
struct range_t {
    range_t(const width_t &width, double share)
    {
        const int bits = static_cast<int>(std::min<uint64_t>(width.bits(), 64));
        lower = uint64_t{1} << (bits - 1);
        upper = lower - 1 + std::max<uint64_t>(1, static_cast<uint64_t>(std::ldexp(share, bits)));
    }

    bool holds(uint64_t value) const
    {
        return value >= lower && value <= upper;
    }

    uint64_t lower;
    uint64_t upper;
};

kel_int_t bound(const width_t &width, uint64_t value, uint64_t rest)
{
    return width.bits() > 64 ? fixed_val(width.format, width.width, value, rest)
                             : fixed_val(width.format, width.width, 0, value);
}

template <class T>
std::function<void()> plain_scan(const width_t &width, const output_t &output, const range_t &range, uint64_t elements)
{
    const plain_t<T> from = make_plain<T>(width, elements);
    const T lower = static_cast<T>(range.lower);
    const T upper = static_cast<T>(range.upper);
    uint8_t *to = destination_bytes();
    if (!(output.flags & KEL_ONES_INDEX))
        return [=] { plain_range_bits(from->data(), elements, lower, upper, reinterpret_cast<uint64_t *>(to)); };
    if (output.width.width == 2)
        return [=] { plain_range_indexes(from->data(), elements, lower, upper, reinterpret_cast<uint16_t *>(to)); };
    return [=] { plain_range_indexes(from->data(), elements, lower, upper, reinterpret_cast<uint32_t *>(to)); };
}

task_t make_scan(width_t width, output_t output, double share, uint64_t elements)
{
    const range_t range(width, share);
    const kel_vec_t src = source_vec(width, elements);
    const kel_vec_t dst = destination_vec(output.width, elements);
    const kel_int_t lower = bound(width, range.lower, 0);
    const kel_int_t upper = bound(width, range.upper, ~uint64_t{0});
    task_t task = make_task(
        [=](const library_t &library) {
            return library.kel_scan_range(library.ctx, output.flags, &src, &dst, KEL_GE_AND_LE, &lower, &upper);
        },
        dst.data,
        [=] {
            return expect_matches(output, elements,
                                  [=](uint64_t i) { return range.holds(get_element(source_bytes(), width, i)); });
        });
    with_plain_type(width.bits(), [&]<class T>(T) { task.plain = plain_scan<T>(width, output, range, elements); });
    task.plain_unit = output_unit(output);
    return task;
}

void add_scan(list_t list, const width_t &width, const output_t &output, double share, uint64_t elements)
{
    char percent[16];
    snprintf(percent, sizeof percent, "%g%%", 100 * share);
    const bool longer = list == list_t::more;
    add_case(list, {"scan", width.name() + " " + output.name + ", " + percent, elements, limit_t::read,
                    packed_bytes(width, elements), [=] { return make_scan(width, output, share, elements); },
                    !longer && width.bits() <= 64, longer});
}

// ---- Scans with an aux stream ---------------------------------------------------------------------------------------

task_t make_run_scan(unsigned mean)
{
    const range_t range(run_width, 0.1);
    const kel_vec_t src = run_vec(mean);
    const std::vector<uint64_t> expanded = expand(mean);
    const kel_vec_t dst = destination_vec(to_bits.width, expanded.size());
    const kel_int_t lower = bound(run_width, range.lower, 0);
    const kel_int_t upper = bound(run_width, range.upper, 0);
    return make_task(
        [=](const library_t &library) {
            return library.kel_scan_range(library.ctx, 0, &src, &dst, KEL_GE_AND_LE, &lower, &upper);
        },
        dst.data,
        [=] { return expect_matches(to_bits, expanded.size(), [&](uint64_t i) { return range.holds(expanded[i]); }); });
}

// The tenth of texts from the middle on, or those equal to one of 3 bytes.
task_t make_text_scan(uint16_t length_bits, output_t output, bool equality)
{
    const kel_vec_t src = text_vec(length_bits, in_cache);
    const kel_vec_t dst = destination_vec(output.width, in_cache);
    const range_t range({KEL_BYTES, 2}, 0.1);
    const kel_int_t lower = fixed_val(KEL_BYTES, 2, 0, range.lower);
    const kel_int_t upper = fixed_val(KEL_BYTES, 2, 0, range.upper);
    std::vector<std::string_view> texts = get_texts(src);
    const auto sought = *std::find_if(texts.begin(), texts.end(), [](const auto &text) { return text.size() == 3; });
    const auto *bytes = reinterpret_cast<const uint8_t *>(sought.data());
    const kel_int_t same = fixed_val(KEL_BYTES, 3, 0, get_field(bytes, 0, 24));
    return make_task(
        [=](const library_t &library) {
            return equality
                       ? library.kel_scan_value(library.ctx, output.flags, &src, &dst, KEL_EQ, &same)
                       : library.kel_scan_range(library.ctx, output.flags, &src, &dst, KEL_GE_AND_LE, &lower, &upper);
        },
        dst.data,
        [=] {
            const auto text_of = [](uint64_t value) {
                return std::string{static_cast<char>(value >> 8), static_cast<char>(value)};
            };
            const std::string least = text_of(range.lower), most = text_of(range.upper);
            return expect_matches(output, in_cache, [&](uint64_t i) {
                return equality ? texts[i] == sought : texts[i] >= least && texts[i] <= most;
            });
        });
}

void add_text_scan(uint16_t length_bits, const output_t &output, bool equality)
{
    const std::string name = text_name(length_bits) + " " + output.name + (equality ? ", equality" : ", 10%");
    add_case(list_t::table, {"scan", name, in_cache, limit_t::read, text_bytes(length_bits, in_cache),
                             [=] { return make_text_scan(length_bits, output, equality); }});
}

void add_aux_scans()
{
    for (const unsigned mean : run_means)
        add_case(list_t::table, {"scan", run_name(mean) + " to bits, 10%", get_runs(mean).elements, limit_t::read,
                                 run_bytes(mean), [=] { return make_run_scan(mean); }});
    add_text_scan(2, to_bits, false);
    add_text_scan(4, to_bits, true);
    add_text_scan(4, to_bits, false);
    add_text_scan(4, to_index2, false);
}

// ---- Lookups --------------------------------------------------------------------------------------------------------

template <class T>
std::function<void()> plain_translate(const width_t &width, uint64_t elements)
{
    const plain_t<T> from = make_plain<T>(width, elements);
    std::vector<uint64_t> bitmap(std::max<uint64_t>(1, (uint64_t{1} << width.bits()) / 64));
    for (uint64_t i = 0; i < uint64_t{1} << width.bits(); i++)
        bitmap[i / 64] |= get_field(source_bytes(), i, 1) << i % 64;
    return
        [=] { plain_lookup(from->data(), elements, bitmap.data(), reinterpret_cast<uint64_t *>(destination_bytes())); };
}

// The bitmap is a copy of the source's first bytes.
task_t make_translate(width_t width, output_t output, uint64_t elements)
{
    const uint64_t bitmap_bits = uint64_t{1} << width.bits();
    const auto bitmap_bytes = std::make_shared<bench_bytes>(bitmap_bits / 8);
    memcpy(bitmap_bytes->data(), source_bytes(), bitmap_bits / 8);
    const kel_vec_t src = source_vec(width, elements);
    const kel_vec_t dst = destination_vec(output.width, elements);
    const kel_vec_t bitmap = fixed_vec(KEL_BITS, 1, bitmap_bits, bitmap_bytes->data());
    task_t task = make_task(
        [=, kept = bitmap_bytes](const library_t &library) {
            return library.kel_translate(library.ctx, output.flags, &src, &dst, &bitmap, src.elem_width);
        },
        dst.data,
        [=] {
            return expect_matches(output, elements, [=](uint64_t i) {
                return get_field(source_bytes(), get_element(source_bytes(), width, i), 1) != 0;
            });
        });
    if (!(output.flags & KEL_ONES_INDEX))
        with_plain_type(width.bits(), [&]<class T>(T) { task.plain = plain_translate<T>(width, elements); });
    return task;
}

void add_translate(list_t list, uint32_t bits, const output_t &output, uint64_t elements)
{
    const width_t width = {KEL_BITS, bits};
    add_case(list, {"translate", std::to_string(bits) + "-bit codes " + output.name, elements, limit_t::read,
                    packed_bytes(width, elements), [=] { return make_translate(width, output, elements); },
                    !(output.flags & KEL_ONES_INDEX), list == list_t::more});
}

// ---- Lists ----------------------------------------------------------------------------------------------------------

constexpr struct {
    width_t width;
    bool in_cache_alone; // in the table
} widths[] = {{{KEL_BITS, 1}, false},  {{KEL_BITS, 4}, true},  {{KEL_BITS, 8}, false}, {{KEL_BITS, 12}, false},
              {{KEL_BITS, 16}, false}, {{KEL_BITS, 20}, true}, {{KEL_BITS, 24}, true}, {{KEL_BITS, 32}, false},
              {{KEL_BITS, 64}, false}, {{KEL_BYTES, 3}, true}, {{KEL_BYTES, 5}, true}, {{KEL_BYTES, 16}, true}};
constexpr width_t more_widths[] = {{KEL_BITS, 7}, {KEL_BYTES, 8}};
constexpr double shares[] = {0.001, 0.1, 0.5};
constexpr uint32_t code_bits[] = {8, 16, 24};

void add_table()
{
    for (const uint64_t elements : sizes)
        for (const auto &each : widths)
            if (elements == in_cache || !each.in_cache_alone)
                add_scan(list_t::table, each.width, to_bits, 0.5, elements);
    for (const output_t &output : {to_index2, to_index4})
        for (const double share : shares)
            add_scan(list_t::table, {KEL_BITS, 12}, output, share, in_cache);
    add_aux_scans();
    for (const uint32_t bits : code_bits)
        add_translate(list_t::table, bits, to_bits, in_cache);
}

void add_more(const output_t &output, uint64_t elements)
{
    for (const double share : shares) {
        for (const auto &each : widths)
            add_scan(list_t::more, each.width, output, share, elements);
        for (const width_t &width : more_widths)
            if (packed_bytes(width, elements) <= most_bytes)
                add_scan(list_t::more, width, output, share, elements);
    }
    for (const uint32_t bits : code_bits)
        add_translate(list_t::more, bits, output, elements);
}

} // namespace

void add_scans()
{
    add_table();
    for (const uint64_t elements : sizes)
        for (const output_t &output : outputs)
            if (elements <= output.most_elements)
                add_more(output, elements);
}

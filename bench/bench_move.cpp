// Select and extract, which move elements; and the operations on plain memory: logical, copy, fill.
#include "bench_column.h"
#include "bench_plain.h"

namespace
{

// An element as a destination element holds it: right-aligned, or of a wider one the first bytes.
void put_adapted(field_list &to, const uint8_t *stream, const width_t &width, uint64_t index, uint32_t dst_bytes)
{
    const uint64_t bytes = (width.bits() + 7) / 8;
    if (dst_bytes > 8) { // of whole bytes
        to.put(0, 8 * (dst_bytes - bytes));
        for (uint64_t i = 0; i < bytes; i++)
            to.put(stream[index * bytes + i], 8);
        return;
    }
    const uint64_t element = get_element(stream, width, index);
    to.put(bytes > dst_bytes ? element >> 8 * (bytes - dst_bytes) : element, 8 * dst_bytes);
}

// ---- Extract --------------------------------------------------------------------------------------------------------

task_t make_extract(width_t width, uint32_t dst_bytes, uint64_t elements)
{
    const kel_vec_t src = source_vec(width, elements);
    const kel_vec_t dst = destination_vec({KEL_BYTES, dst_bytes}, elements);
    return make_task([=](const library_t &library) { return library.kel_extract(library.ctx, 0, &src, &dst); },
                     dst.data,
                     [=] {
                         field_list fields;
                         for (uint64_t i = 0; i < elements; i++)
                             put_adapted(fields, source_bytes(), width, i, dst_bytes);
                         return outcome_t{fields.take(), 0};
                     });
}

void add_extract(list_t list, const width_t &width, uint32_t dst_bytes, uint64_t elements)
{
    const width_t to = {KEL_BYTES, dst_bytes};
    add_case(list, {"extract", width.name() + " to " + to.name(), elements, limit_t::copy, packed_bytes(to, elements),
                    [=] { return make_extract(width, dst_bytes, elements); }, false, list == list_t::more});
}

task_t make_run_extract(unsigned mean)
{
    const kel_vec_t src = run_vec(mean);
    const std::vector<uint64_t> expanded = expand(mean);
    const kel_vec_t dst = destination_vec({KEL_BYTES, 2}, expanded.size());
    return make_task([=](const library_t &library) { return library.kel_extract(library.ctx, 0, &src, &dst); },
                     dst.data,
                     [=] {
                         field_list fields;
                         for (const uint64_t element : expanded)
                             fields.put(element, 16);
                         return outcome_t{fields.take(), 0};
                     });
}

task_t make_text_extract(uint16_t length_bits, uint32_t dst_bytes)
{
    const kel_vec_t src = text_vec(length_bits, in_cache);
    const kel_vec_t dst = destination_vec({KEL_BYTES, dst_bytes}, in_cache);
    return make_task([=](const library_t &library) { return library.kel_extract(library.ctx, 0, &src, &dst); },
                     dst.data,
                     [=] {
                         field_list fields;
                         for (const std::string_view text : get_texts(src)) {
                             const std::string kept(text.substr(0, dst_bytes));
                             for (const char byte : std::string(dst_bytes - kept.size(), '\0') + kept)
                                 fields.put(static_cast<uint8_t>(byte), 8);
                         }
                         return outcome_t{fields.take(), 0};
                     });
}

void add_text_extract(uint16_t length_bits, uint32_t dst_bytes)
{
    const width_t to = {KEL_BYTES, dst_bytes};
    add_case(list_t::table, {"extract", text_name(length_bits) + " to " + to.name(), in_cache, limit_t::copy,
                             packed_bytes(to, in_cache), [=] { return make_text_extract(length_bits, dst_bytes); }});
}

// ---- Select ---------------------------------------------------------------------------------------------------------

// A mask in the library's order and in that of plain loops.
struct mask_t {
    mask_t(uint64_t elements, uint64_t percent) : plain(elements / 64 + 1)
    {
        uint64_t random = percent;
        field_list fields;
        for (uint64_t i = 0; i < elements; i++) {
            const bool selected = next_random(random) % 100 < percent;
            fields.put(selected, 1);
            plain[i / 64] |= static_cast<uint64_t>(selected) << i % 64;
        }
        bytes = fields.take();
        bytes.resize(bytes.size() + 8);
    }

    bool selects(uint64_t index) const
    {
        return plain[index / 64] >> index % 64 & 1;
    }

    std::vector<uint8_t> bytes;
    std::vector<uint64_t> plain;
};

task_t make_select(width_t width, uint32_t dst_bytes, uint64_t percent, uint64_t elements)
{
    const auto mask = std::make_shared<mask_t>(elements, percent);
    const kel_vec_t src = source_vec(width, elements);
    const kel_vec_t dst = destination_vec({KEL_BYTES, dst_bytes}, elements);
    const kel_vec_t bits = fixed_vec(KEL_BITS, 1, elements, mask->bytes.data());
    task_t task = make_task(
        [=](const library_t &library) { return library.kel_select(library.ctx, 0, &src, &dst, &bits); }, dst.data,
        [=] {
            field_list fields;
            uint64_t count = 0;
            for (uint64_t i = 0; i < elements; i++)
                if (mask->selects(i)) {
                    put_adapted(fields, source_bytes(), width, i, dst_bytes);
                    count++;
                }
            return outcome_t{fields.take(), count};
        });
    with_plain_type(width.bits(), [&]<class T>(T) {
        task.plain = [=, from = make_plain<T>(width, elements)] {
            plain_select(from->data(), elements, mask->plain.data(), reinterpret_cast<T *>(destination_bytes()));
        };
        task.plain_unit = sizeof(T);
    });
    return task;
}

void add_select(list_t list, const width_t &width, uint32_t dst_bytes, uint64_t percent, uint64_t elements)
{
    const width_t to = {KEL_BYTES, dst_bytes};
    const std::string shape = width.bits() == to.bits() ? width.name() : width.name() + " to " + to.name();
    const bool longer = list == list_t::more;
    add_case(list, {"select", shape + ", " + std::to_string(percent) + "%", elements, limit_t::read,
                    packed_bytes(width, elements), [=] { return make_select(width, dst_bytes, percent, elements); },
                    !longer && width.bits() <= 64, longer});
}

// ---- Plain memory ---------------------------------------------------------------------------------------------------

struct place_t {
    const char *name;
    unsigned bytes; // the first source starts this far behind a multiple of 64,
    uint8_t offset; // at this bit
};

constexpr place_t aligned = {"aligned", 0, 0};
constexpr place_t bits_off = {"5 bits off", 0, 5};
constexpr place_t bytes_off = {"3 bytes off", 3, 0};

struct logical_t {
    const char *name;
    decltype(kel_and) *library_t::*call;
    uint8_t (*join)(unsigned left, unsigned right);
};

constexpr logical_t logical_and = {"and", &library_t::kel_and,
                                   [](unsigned left, unsigned right) { return static_cast<uint8_t>(left & right); }};
constexpr logical_t logical_or = {"or", &library_t::kel_or,
                                  [](unsigned left, unsigned right) { return static_cast<uint8_t>(left | right); }};

// Offsets of these sources count from the low end of a byte, and the destination is in the order of the sources.
task_t make_logical(logical_t logical, place_t place, uint64_t bytes)
{
    kel_vec_t src1 = fixed_vec(KEL_BITS, 1, 8 * bytes, source_bytes() + place.bytes);
    src1.offset = place.offset;
    const kel_vec_t src2 = fixed_vec(KEL_BITS, 1, 8 * bytes, source_bytes() + (bytes + 127) / 64 * 64);
    const kel_vec_t dst = fixed_vec(KEL_BITS, 1, 8 * bytes, destination_bytes());
    return make_task(
        [=](const library_t &library) { return (library.*logical.call)(library.ctx, 0, &src1, &src2, &dst); }, dst.data,
        [=] {
            outcome_t expected = {std::vector<uint8_t>(bytes), 0};
            for (uint64_t i = 0; i < bytes; i++) {
                const uint8_t *left = static_cast<const uint8_t *>(src1.data) + i;
                const unsigned shifted = (left[0] + left[1] * 256u) >> src1.offset;
                expected.bytes[i] = logical.join(shifted, static_cast<const uint8_t *>(src2.data)[i]);
                expected.count += static_cast<uint64_t>(__builtin_popcount(expected.bytes[i]));
            }
            return expected;
        });
}

void add_logical(list_t list, const logical_t &logical, const place_t &place, uint64_t bytes)
{
    add_case(list, {"logical", std::string(logical.name) + ", " + place.name, 8 * bytes, limit_t::copy, bytes,
                    [=] { return make_logical(logical, place, bytes); }});
}

task_t make_copy(uint64_t bytes)
{
    return make_task(
        [=](const library_t &library) {
            return library.kel_copy(library.ctx, 0, source_bytes(), destination_bytes(), bytes);
        },
        destination_bytes(),
        [=] {
            return outcome_t{{source_bytes(), source_bytes() + bytes}, 0};
        });
}

task_t make_fill(uint64_t bytes)
{
    constexpr uint32_t value = 0x01020304;
    return make_task(
        [=](const library_t &library) {
            return library.kel_fill(library.ctx, 0, value, destination_bytes(), bytes / sizeof value, sizeof value);
        },
        destination_bytes(),
        [=] {
            field_list fields;
            for (uint64_t i = 0; i < bytes / sizeof value; i++)
                fields.put(value, 8 * sizeof value);
            return outcome_t{fields.take(), 0};
        });
}

void add_copy_and_fill(list_t list, uint64_t bytes)
{
    add_case(list, {"copy", "bytes", bytes, limit_t::copy, bytes, [=] { return make_copy(bytes); }});
    add_case(list, {"fill", "4 bytes", bytes / 4, limit_t::set, bytes, [=] { return make_fill(bytes); }});
}

// ---- Lists ----------------------------------------------------------------------------------------------------------

constexpr width_t whole[] = {{KEL_BYTES, 1}, {KEL_BYTES, 2}, {KEL_BYTES, 4}, {KEL_BYTES, 8}};
constexpr width_t more_widths[] = {{KEL_BITS, 1},  {KEL_BITS, 4},  {KEL_BITS, 12},
                                   {KEL_BITS, 16}, {KEL_BITS, 24}, {KEL_BYTES, 3}};
constexpr width_t wide = {KEL_BYTES, 12};
constexpr uint64_t more_percents[] = {1, 10, 50, 99};
constexpr uint64_t plain_bytes[] = {in_cache, 4 * out_of_cache};
constexpr uint64_t few_bytes = 100;

void add_table()
{
    for (const width_t &width : whole)
        add_select(list_t::table, width, width.width, 50, in_cache);
    add_select(list_t::table, whole[2], 4, 10, in_cache);
    add_select(list_t::table, whole[2], 4, 50, out_of_cache);
    add_select(list_t::table, {KEL_BITS, 12}, 2, 50, in_cache);
    add_select(list_t::table, {KEL_BYTES, 3}, 4, 50, in_cache);
    add_select(list_t::table, wide, 16, 50, in_cache);
    add_extract(list_t::table, wide, 16, in_cache);
    for (const unsigned mean : run_means)
        add_case(list_t::table, {"extract", run_name(mean) + " to 2 bytes", get_runs(mean).elements, limit_t::copy,
                                 2 * get_runs(mean).elements, [=] { return make_run_extract(mean); }});
    for (const uint64_t elements : sizes) {
        add_extract(list_t::table, {KEL_BITS, 7}, 1, elements);
        add_extract(list_t::table, {KEL_BITS, 12}, 2, elements);
        add_extract(list_t::table, {KEL_BITS, 20}, 4, elements);
        add_extract(list_t::table, {KEL_BYTES, 4}, 4, elements);
    }
    add_text_extract(4, 16);
    for (const uint64_t bytes : plain_bytes) {
        add_logical(list_t::table, logical_and, aligned, bytes);
        add_logical(list_t::table, logical_or, aligned, bytes);
        add_logical(list_t::table, logical_and, bits_off, bytes);
        add_copy_and_fill(list_t::table, bytes);
    }
}

void add_more()
{
    for (const uint64_t elements : sizes) {
        for (const width_t &width : more_widths)
            for (const width_t &to : whole)
                add_extract(list_t::more, width, to.width, elements);
        for (const width_t &width : whole)
            add_extract(list_t::more, width, width.width, elements);
        for (const uint64_t percent : more_percents) {
            for (const width_t &width : whole)
                add_select(list_t::more, width, width.width, percent, elements);
            add_select(list_t::more, {KEL_BITS, 12}, 2, percent, elements);
        }
    }
    for (const uint64_t bytes : plain_bytes)
        add_logical(list_t::more, logical_and, bytes_off, bytes);
    add_logical(list_t::more, logical_and, aligned, few_bytes);
    add_copy_and_fill(list_t::more, few_bytes);
}

} // namespace

void add_moves()
{
    add_table();
    add_more();
}

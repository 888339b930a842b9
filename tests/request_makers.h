// Makers of random requests for which there is a model, and the roads that such requests take.
#pragma once

#include "element_models.h"
#include "kel_extract.h"
#include "kel_logical.h"
#include "kel_scan.h"
#include "kel_select.h"
#include "kel_translate.h"
#include "model_driver.h"
#include "scan_model.h"

namespace model
{

// ---- Scans ----------------------------------------------------------------------------------------------------------

inline outcome run(test_context &ctx, road way, const scan &s)
{
    const auto op = static_cast<kel_compare_t>(s.op);
    if (s.range())
        return take_road(ctx, way, kel_scan_range, kel_scan_range_post, kel_scan_range_emulate, s.flags, &s.src, &s.dst,
                         op, &s.lower, &s.upper);
    return take_road(ctx, way, kel_scan_value, kel_scan_value_post, kel_scan_value_emulate, s.flags, &s.src, &s.dst, op,
                     &s.lower);
}

// Makes scans, whose destinations are placed later.
class scan_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    // lawful: within the widths and formats that validation accepts (of one version at least), though not always.
    scan make(bool make_lawful)
    {
        static constexpr int missing_value[] = {4, 6}, missing_range[] = {20, 22, 24, 26, 28, 30};
        lawful = make_lawful;
        no_width = !lawful && random.one_in(40);
        wide_elements = !lawful && !no_width && random.one_in(10);
        scan s = {};
        s.flags = draw_flags(KEL_ONES_INDEX);
        if (!lawful && random.one_in(40))
            s.op = random.one_in(2) ? random.pick(missing_range) : random.pick(missing_value);
        else
            s.op = random.one_in(2) ? random.pick(range_operators).op : random.pick(value_operators).op;
        draw_format(s.src, KEL_RLE | KEL_VAR);
        draw_lengths(s.src);
        draw_some_alike(s.src);
        s.lower = draw_value(s.src, wide_elements);
        s.upper = draw_value(s.src, false);
        draw_results(s.flags, s.dst);
        return s;
    }

  private:
    // Elements are random, or the heads of a few texts that differ in one place, so that many are equal.
    void draw_some_alike(kel_vec_t &src)
    {
        const uint64_t typical = variable_width(src) ? random.between(1, 40) : std::max<uint64_t>(bits_of(src), 1);
        element_bits texts[3] = {draw_bits()};
        texts[1] = texts[0] ^ element_bits(1) << (typical - 1);
        texts[2] = texts[0] ^ element_bits(random.between(0, 255)) << typical / 2;
        const bool few = !random.one_in(3);
        draw_elements(src, [&](uint64_t) { return few ? random.pick(texts) : draw_bits(); });
    }

    // A value next to an element of the data, often in its width.
    kel_int_t draw_value(const kel_vec_t &src, bool wide)
    {
        const auto [position, bits] =
            places.empty() ? std::pair<uint64_t, uint64_t>() : places[random.between(0, places.size() - 1)];
        kel_int_t value = {};
        value.format = bits % 8 || random.one_in(2) ? KEL_BITS : KEL_BYTES;
        if (wide)
            value = {KEL_BYTES, random.between<uint32_t>(17, 24), {}};
        else if (bits && bits <= (lawful ? 128 : 192) && !no_width && !random.one_in(3))
            value.elem_width = static_cast<uint32_t>(value.format & KEL_BITS ? bits : bits / 8);
        else if (!no_width)
            value.elem_width = draw_width(value.format & KEL_BITS);

        const uint64_t width = no_width ? 8 : bits_of(value), size = round_up(width, 8) / 8;
        std::string text = bit_reader{src.data, position}.bytes(bits);
        const bool longer = size > text.size();
        text.resize(size);
        for (uint64_t i = 0; i < size; i++)
            value.dword[2 - i / 8] |= uint64_t{static_cast<uint8_t>(text[size - 1 - i])} << i % 8 * 8;
        if (longer && random.one_in(2))
            value.dword[2] |= random.between(0, 255);
        if (random.one_in(3))
            value.dword[2] += random.one_in(2) ? 1 : UINT64_MAX;
        if (random.one_in(20))
            random.fill(value.dword, sizeof value.dword);

        const bool garbage = random.one_in(8); // above the bytes of the value
        for (uint64_t bit = random.one_in(2) ? width : 8 * size; bit < 192; bit++) {
            uint64_t &word = value.dword[2 - bit / 64];
            word &= ~(uint64_t{1} << bit % 64);
            word |= uint64_t{garbage && bit >= 8 * size && random.one_in(2)} << bit % 64;
        }
        return value;
    }
};

// ---- Selects and extracts -------------------------------------------------------------------------------------------

inline outcome run(test_context &ctx, road way, const move &m)
{
    if (m.select)
        return take_road(ctx, way, kel_select, kel_select_post, kel_select_emulate, m.flags, &m.src, &m.dst, &m.mask);
    return take_road(ctx, way, kel_extract, kel_extract_post, kel_extract_emulate, m.flags, &m.src, &m.dst);
}

// Makes selects and extracts, whose destinations are placed later.
class move_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    move make(bool make_lawful)
    {
        lawful = make_lawful;
        wide_elements = !lawful && random.one_in(10);
        move m = {};
        m.select = random.one_in(2);
        m.flags = draw_flags(KEL_PAD);
        draw_format(m.src, m.select ? 0 : KEL_RLE | KEL_VAR);
        draw_lengths(m.src);
        draw_elements(m.src, [&](uint64_t) { return draw_bits(); });
        const uint64_t ones = m.select ? draw_mask(m.mask, m.src.elements) : 0;
        draw_destination(m.dst, draw_bits_of_destination(m.src), lawful && !m.select ? m.src.elements : 0,
                         m.select && !has_aux(m.src) ? ones : expanded);
        return m;
    }

  private:
    // A mask of any density, of single bits or of long runs; its ones.
    uint64_t draw_mask(kel_vec_t &mask, uint64_t count)
    {
        static constexpr unsigned densities[] = {0, 1, 10, 50, 99, 100};
        const unsigned density = random.pick(densities);
        const uint64_t longest = random.one_in(2) ? 1 : random.between(2, 300);
        mask.format = lawful || !random.one_in(10) ? KEL_BITS : KEL_BITS | KEL_ZIP;
        mask.elements = random.one_in(40) ? count / 2 : count + random.between(0, 70);
        mask.elem_width = 1;
        mask.offset = random.between<uint8_t>(0, 7);
        bit_string stream;
        append(stream, random.word(), mask.offset);
        while (stream.size() < mask.offset + count)
            stream.resize(std::min(mask.offset + count, stream.size() + random.between(1, longest)),
                          random.between(1, 100) <= density);
        mask.data = place(mask_bits, stream);
        return static_cast<uint64_t>(std::count(stream.begin() + mask.offset, stream.end(), true));
    }

    // Often the width of the source.
    uint32_t draw_bits_of_destination(const kel_vec_t &src)
    {
        static constexpr uint64_t widths[] = {1, 2, 4, 8, 16, 3, 5, 7, 9, 12, 24, 32};
        const uint64_t bytes = wide_elements      ? random.between(17, 32)
                               : random.one_in(2) ? std::bit_ceil(bytes_of(src))
                                                  : widths[random.between(0, lawful ? 4 : 11)];
        return static_cast<uint32_t>(8 * bytes - random.between(0, lawful || !random.one_in(3) ? 0 : 7));
    }

    guarded_buffer mask_bits{area, 1};
};

// ---- Translates -----------------------------------------------------------------------------------------------------

inline outcome run(test_context &ctx, road way, const translate &t)
{
    if (!t.test_value)
        return take_road(ctx, way, kel_translate, kel_translate_post, kel_translate_emulate, t.flags, &t.src, &t.dst,
                         &t.bitmap, t.val_width);
    outcome seen = {.cca = cca_before};
    const auto run_with = [&](const auto &function, auto val_width) {
        seen.status = function(ctx, t.flags, &t.src, &t.dst, t.bitmap.data, val_width, *t.test_value, &seen.cca);
    };
    way == calls || way == posts ? run_with(kel_translate_testval, static_cast<int>(t.val_width))
                                 : run_with(kel_translate_testval_emulate, t.val_width);
    return seen;
}

// Makes translates, whose destinations are placed later.
class translate_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    translate make(bool make_lawful)
    {
        lawful = make_lawful;
        widest = 3;
        no_width = !lawful && random.one_in(40);
        translate t = {};
        t.flags = draw_flags(KEL_ONES_INDEX | KEL_INVERT);
        draw_format(t.src, KEL_RLE);
        if (lawful && random.one_in(1000)) // positions that need not fit in an entry of 2 bytes
            t.src.elements = random.between(65000, 70000);
        draw_lengths(t.src);
        const uint64_t width = bits_of(t.src);
        const uint64_t size = draw_bitmap(t.bitmap, std::min<uint64_t>(width ? width : 16, 16));
        const auto least = static_cast<uint32_t>(std::bit_width(size - 1));
        t.val_width = random.between<uint32_t>(random.one_in(10) ? 0 : least, std::max<uint64_t>(least, width));
        if (!lawful && random.one_in(3)) {
            t.val_width = random.between<uint32_t>(0, 70);
            t.test_value = random.one_in(4) ? random.word() : random.between(0, 3);
        }
        draw_elements(t.src, [&](uint64_t bits) { return draw_element(t, size, bits); });
        draw_results(t.flags, t.dst);
        return t;
    }

  private:
    // A bitmap of any density before a page that faults, with this number of bits at most, mostly few; the bits that
    // can be read. A few say less, or more than any element reaches.
    uint64_t draw_bitmap(kel_vec_t &bitmap, uint64_t index_bits)
    {
        const uint64_t most = uint64_t{1} << (random.one_in(8) ? index_bits : random.between(0, index_bits));
        const uint64_t size = random.one_in(2) ? most : random.between(1, most);
        const uint64_t bytes = round_up((size + 7) / 8, !lawful ? 1 : random.one_in(2) ? 16 : 64);
        auto *const start = table.data + table.size - bytes;
        const uint64_t filler = random.one_in(2) ? 0 : 0xff, others = random.one_in(2) ? 1 : 20;
        for (uint64_t i = 0; i < bytes; i++)
            start[i] = static_cast<uint8_t>(random.one_in(others) ? random.word() : filler);
        bitmap = plain_vector(KEL_BITS, random.one_in(10) ? random.between(1, size) : size, 1, start);
        if (size == uint64_t{1} << index_bits && random.one_in(4)) // all that can be reached
            bitmap.elements = random.between(size, 1 << 24);
        return size;
    }

    // An element that selects a bit of the bitmap by its low bits, or with a test value by some of them.
    element_bits draw_element(const translate &t, uint64_t size, uint64_t bits)
    {
        const uint64_t indexing = t.test_value ? t.val_width % 32 : 16;
        uint64_t low = random.between(0, std::min(size, uint64_t{1} << std::min(indexing, bits)) - 1);
        if (t.test_value)
            low |= (random.one_in(2) ? *t.test_value : random.word()) << t.val_width % 64 |
                   random.between(0, (uint64_t{1} << t.val_width % 64) - 1) >> indexing << indexing;
        element_bits drawn = draw_bits();
        for (uint64_t i = 0; i < std::min<uint64_t>(bits, 64); i++)
            drawn[bits - 1 - i] = low >> i & 1;
        return drawn;
    }

    guarded_buffer table{8192, 64};
};

// ---- Logical operations, copies and fills ---------------------------------------------------------------------------

inline outcome run(test_context &ctx, road way, const logical &l)
{
    constexpr decltype(&kel_and) operations[] = {kel_and, kel_or, kel_xor};
    constexpr decltype(&kel_and_post) posted[] = {kel_and_post, kel_or_post, kel_xor_post};
    // Without producers also without the instruction that counts.
    const auto emulate = [&](kel_context_t *, uint64_t flags, auto *src1, auto *src2, auto *dst, cca_t *cca) {
        if (ctx->kernels)
            return kel_logical_emulate(ctx, flags, src1, src2, dst, kel_op_and + l.op, cca);
        const uint64_t ones = do_logical_il(kel_op_and + l.op, flags, src1->data, src2->data, dst->data, src1->elements,
                                            src1->offset, src2->offset, 0);
        *cca = {static_cast<uint32_t>(ones), static_cast<uint32_t>(ones), ones};
        return KEL_SUCCESS;
    };
    return take_road(ctx, way, operations[l.op], posted[l.op], emulate, l.flags, &l.src, &l.src2, &l.dst);
}

class logical_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    logical make(bool)
    {
        const uint64_t count = random.between(0, random.one_in(3) ? 2100 : 200);
        logical l = {draw_flags(KEL_INVERT | KEL_INVERT_SRC), {}, {}, {}, random.between<int>(0, 2)};
        for (kel_vec_t *vec : {&l.src, &l.src2, &l.dst})
            *vec = plain_vector(KEL_BITS, count, 1);
        l.dst.elements += random.between(0, 100);
        for (kel_vec_t *vec : {&l.src, &l.src2})
            vec->offset = random.between<uint8_t>(0, random.one_in(2) ? 0 : 7);
        const bool byte_behind = l.src.offset && l.src2.offset && count % 8;
        l.src.data = place(elements, (count + 7) / 8 + (l.src.offset != 0) + byte_behind);
        l.src2.data = place(aux, (count + 7) / 8 + (l.src2.offset != 0) + byte_behind);
        return l;
    }
};

inline outcome run(test_context &ctx, road way, const transfer &t)
{
    const auto none = [](const auto &...) { return KEL_ENOTIMPL; };
    if (t.value)
        return take_road(ctx, way, kel_fill, kel_fill_post, none, t.flags, *t.value, t.dst.data, t.src.elements,
                         t.src.elem_width);
    return take_road(ctx, way, kel_copy, kel_copy_post, none, t.flags, t.src.data, t.dst.data, t.src.elements);
}

// There are no other roads.
inline bool check_roads(test_context &ctx, const options &o, transfer &t, destination_area &dst)
{
    const outcome expected = call(t, o, emulation(t, o), false);
    return check(ctx, o, calls, t, expected, dst) && check(ctx, o, posts, t, expected, dst);
}

// The sizes are small, around a page, or larger.
class transfer_maker : public source_maker
{
  public:
    using source_maker::source_maker;

    transfer make(bool make_lawful)
    {
        static constexpr uint32_t widths[] = {1, 2, 4, 8};
        const uint64_t size = random.one_in(8)   ? random.between(4016, 4176)
                              : random.one_in(8) ? random.between(0, 10000)
                                                 : random.between(0, 300);
        const bool fills = random.one_in(2);
        uint32_t width = !fills ? 1 : random.one_in(8) ? 257 : random.pick(widths);
        if (fills && !make_lawful && random.one_in(4))
            width = random.between<uint32_t>(0, 12);
        transfer t = {
            draw_flags(0), plain_vector(KEL_BYTES, size / std::max(width, 1u), width), {}, {}, random.between(0, 63)};
        if (fills)
            t.value = random.word();
        t.src.data = elements.data + elements.size - size - random.between(0, random.one_in(2) ? 8 : 0);
        random.fill(t.src.data, size);
        return t;
    }
};

// ---- All of them ----------------------------------------------------------------------------------------------------

// All makers, which own the memory of their sources, with one source of decisions.
struct workplace {
    random_source random{0};
    scan_maker scans{random};
    move_maker moves{random};
    translate_maker translates{random};
    logical_maker logicals{random};
    transfer_maker transfers{random};
    destination_area dst;

    options draw_options()
    {
        static constexpr uint32_t debug[] = {0, arg, arg | extra}, logs[] = {0, errors, all_lines};
        return {random.between<uint32_t>(1, 2), random.pick(debug), random.pick(logs)};
    }

    // So many requests of one operation.
    bool check_some(test_context &ctx, const options &o, unsigned requests)
    {
        const auto check = [&](auto &makes) { return check_made(ctx, o, makes, requests, dst); };
        const auto operation = random.between(0, o.log == all_lines ? 2 : 4);
        return operation == 0   ? check(scans)
               : operation == 1 ? check(moves)
               : operation == 2 ? check(translates)
               : operation == 3 ? check(logicals)
                                : check(transfers);
    }
};

} // namespace model

// The companions of the interface: packing and reading back, against a reader of single bits.
#include "kel.hpp"
#include "kel_text.h"
#include "support.h"
#include <gtest/gtest.h>

namespace
{

random_source random_numbers(7);

// One case of kel_pack and kel_unpack, for values of a type, in a stream that ends at a page that faults: every bit of it
// is as it should be.
template <class Value>
void pack_and_unpack(uint32_t bits, uint8_t offset, uint64_t first, uint64_t count, Value base)
{
    SCOPED_TRACE(testing::Message() << sizeof(Value) << " bytes to " << bits << " bits, offset " << +offset
                                    << ", first " << first << ", count " << count);
    const uint64_t elements = first + count, start = offset + first * bits, end = start + count * bits;
    const guarded_buffer stream((end + 7) / 8, 1);
    random_numbers.fill(stream.data, stream.size);
    std::vector<uint8_t> expected(stream.data, stream.data + stream.size);
    const kel_vec_t vec = {KEL_BITS, elements, stream.data, bits, offset, 0, 0, nullptr, nullptr, 0};
    std::vector<Value> values(count), back(count + 1, Value{17});
    uint64_t at = start;
    for (Value &value : values) {
        const uint64_t stored = random_numbers.word() >> (64 - std::min<uint64_t>(bits, 8 * sizeof(Value)));
        value = static_cast<Value>(stored + static_cast<uint64_t>(base));
        for (uint32_t bit = bits; bit-- > 0; at++)
            expected[at / 8] =
                static_cast<uint8_t>((expected[at / 8] & ~(0x80 >> at % 8)) | (stored >> bit & 1) << (7 - at % 8));
    }
    ASSERT_EQ(kel_pack(&vec, first, count, values.data(), sizeof(Value), static_cast<uint64_t>(base)), KEL_SUCCESS);
    ASSERT_EQ(hex(stream.data, stream.size), hex(expected.data(), expected.size()));
    const kel_status_t read = kel_unpack(&vec, first, count, back.data(), sizeof(Value), static_cast<uint64_t>(base));
    ASSERT_EQ(read, bits > 8 * sizeof(Value) ? KEL_EDATASIZE : KEL_SUCCESS);
    if (read != KEL_SUCCESS)
        values.assign(count, Value{17});
    values.push_back(17);
    ASSERT_EQ(back, values);
}

template <class Value>
void pack_all_widths()
{
    for (uint32_t bits = 1; bits <= 64 && !testing::Test::HasFatalFailure(); bits++)
        for (int i = 0; i < 60 && !testing::Test::HasFatalFailure(); i++)
            pack_and_unpack<Value>(bits, random_numbers.between<uint8_t>(0, 7), random_numbers.between(0, 20),
                                   random_numbers.between(0, 100), static_cast<Value>(random_numbers.word()));
}

} // namespace

TEST(pack, every_width_of_elements_and_values)
{
    pack_all_widths<uint8_t>();
    pack_all_widths<int16_t>();
    pack_all_widths<int32_t>();
    pack_all_widths<uint64_t>();
}

TEST(pack, values_that_do_not_fit_are_not_written)
{
    uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const kel_vec_t vec = {KEL_BITS, 9, data, 7, 1, 0, 0, nullptr, nullptr, 0};
    const uint32_t values[] = {1, 127, 128};
    const int16_t negative[] = {-40, 87, -41};
    EXPECT_EQ(kel_pack(&vec, 0, 3, values, 4, 0), KEL_EDATASIZE);
    EXPECT_EQ(kel_pack(&vec, 0, 3, negative, 2, static_cast<uint64_t>(-40)), KEL_EDATASIZE);
    for (const size_t width : {size_t{0}, size_t{3}, size_t{16}})
        EXPECT_EQ(kel_pack(&vec, 0, 2, values, width, 0), KEL_EINVAL);
    EXPECT_EQ(kel_pack(&vec, 8, 2, values, 4, 0), KEL_EINVAL);
    EXPECT_EQ(kel_pack(&vec, 10, 0, values, 4, 0), KEL_EINVAL);
    for (const uint64_t format : {KEL_VAR, KEL_ZIP}) {
        const kel_vec_t other = {format, 9, data, 1, 0, 0, 8, nullptr, nullptr, 0};
        EXPECT_EQ(kel_pack(&other, 0, 2, values, 4, 0), KEL_EINVAL);
    }
    EXPECT_EQ(0, memcmp(data, "\1\2\3\4\5\6\7\10", 8));
    EXPECT_EQ(kel_pack(&vec, 0, 2, values, 4, 0), KEL_SUCCESS);
    EXPECT_EQ(kel_pack(&vec, 2, 2, negative, 2, static_cast<uint64_t>(-40)), KEL_SUCCESS);
    EXPECT_EQ(0, memcmp(data, "\1\376\3\374\5", 5)); // 0, then 0000001, 1111111, 0000000, 1111111, then what was there
}

TEST(pack, sizes_and_widths)
{
    constexpr uint64_t sizes[][4] = {{0, 5, 0, 64},
                                     {1, 1, 8, 128},
                                     {64, 1, 8, 128},
                                     {65, 1, 16, 128},
                                     {512, 1, 64, 128},
                                     {513, 1, 72, 192},
                                     {UINT64_MAX, 2, UINT64_MAX / 64 * 64, UINT64_MAX / 64 * 64}};
    for (const auto &[elements, bits, source, destination] : sizes) {
        EXPECT_EQ(kel_source_size(elements, static_cast<uint32_t>(bits)), source);
        EXPECT_EQ(kel_destination_size(elements, static_cast<uint32_t>(bits)), destination);
    }
    constexpr std::pair<uint64_t, uint32_t> widths[] = {
        {0, 1},         {1, 1},          {2, 2},           {4095, 12},       {4096, 13},
        {0xffffff, 24}, {0x1000000, 32}, {UINT32_MAX, 32}, {1ull << 32, 40}, {UINT64_MAX, 64}};
    for (const auto &[greatest, bits] : widths)
        EXPECT_EQ(kel_width_for(greatest), bits) << greatest;
}

// Blocks, their borders, an array that is too short, and what is refused.
TEST(pack, what_a_mask_selects)
{
    const kel::context ctx = kel::open();
    for (const uint64_t elements : {1u, 511u, 2048u, 2049u, 5000u})
        for (const uint32_t bits : {1u, 7u, 12u, 16u, 24u, 32u}) {
            SCOPED_TRACE(testing::Message() << elements << " elements of " << bits << " bits");
            const guarded_buffer data((elements * bits + 7) / 8 + 7, 8), marks((elements + 14) / 8, 1);
            random_numbers.fill(data.data, data.size);
            random_numbers.fill(marks.data, marks.size);
            const kel_vec_t src = {KEL_BITS, elements, data.data, bits, 0, 0, 0, nullptr, nullptr, 0};
            const uint8_t offset = random_numbers.between<uint8_t>(0, 7);
            kel_vec_t mask = {KEL_BITS, elements, marks.data, 1, offset, 0, 0, nullptr, nullptr, 0};
            std::vector<int32_t> all(elements), back(elements + 1, 17), expected;
            ASSERT_EQ(kel_unpack(&src, 0, elements, all.data(), 4, static_cast<uint64_t>(-40)), KEL_SUCCESS);
            for (uint64_t i = 0; i < elements; i++)
                if (kel_get_field(marks.data, offset + i, 1))
                    expected.push_back(all[i]);
            const auto run = [&](uint64_t room, size_t width) {
                return kel_unpack_selected(ctx, &src, &mask, back.data(), room, width, static_cast<uint64_t>(-40));
            };
            for (const uint64_t room : {uint64_t{0}, expected.size() / 2, expected.size()}) {
                const kel_result_t result = run(room, 4);
                EXPECT_EQ(result.status, room < expected.size() ? KEL_EOVERFLOW : KEL_SUCCESS);
                EXPECT_EQ(result.count, room);
                EXPECT_TRUE(std::equal(back.begin(), back.begin() + static_cast<ptrdiff_t>(room), expected.begin()));
                EXPECT_EQ(back[room], 17);
            }
            EXPECT_EQ(run(elements, 16).status, KEL_EINVAL);
            EXPECT_EQ(run(elements, 1).status, bits > 8 ? KEL_EDATASIZE : KEL_SUCCESS);
            mask.elements--;
            EXPECT_EQ(run(elements, 4).status, KEL_EINVAL);
        }
}

// What is packed as runs must come out of the library as it went in.
TEST(pack, runs)
{
    const kel::context ctx = kel::open();
    for (const uint16_t aux_width : {uint16_t{1}, uint16_t{2}, uint16_t{4}, uint16_t{8}})
        for (const uint64_t add_one : {uint64_t{0}, KEL_ADD_ONE}) {
            std::vector<int16_t> values, back(3000);
            while (values.size() < back.size())
                values.resize(std::min(values.size() + random_numbers.between(1, 600), back.size()),
                              static_cast<int16_t>(random_numbers.between<int16_t>(0, 18) - 9));
            const kel::column runs = kel::column::bits(values.size(), 5), plain = kel::column::bytes(values.size(), 2);
            std::vector<uint8_t> aux(values.size());
            kel_vec_t vec = runs.vec;
            vec.format |= KEL_RLE | add_one;
            vec.aux_data = aux.data();
            vec.aux_width = aux_width;
            vec.aux_offset = 3;
            ASSERT_EQ(kel_pack_runs(&vec, values.size(), values.data(), 2, static_cast<uint64_t>(-9)), KEL_SUCCESS);
            ASSERT_EQ(kel_extract(ctx, 0, &vec, plain).status, KEL_SUCCESS);
            ASSERT_EQ(plain.unpack(back, -9), KEL_SUCCESS);
            ASSERT_EQ(back, values);
            kel_vec_t small = vec;
            small.elements--;
            EXPECT_EQ(kel_pack_runs(&small, values.size(), values.data(), 2, static_cast<uint64_t>(-9)), KEL_EOVERFLOW);
            EXPECT_EQ(kel_pack_runs(&small, values.size(), values.data(), 2, 0), KEL_EDATASIZE);
            EXPECT_EQ(small.elements, vec.elements - 1);
        }
    kel::column plain = kel::column::bits(4, 4);
    EXPECT_EQ(plain.pack_runs(std::vector{1, 2}), KEL_EINVAL);
    plain.vec.aux_width = 8;
    EXPECT_EQ(plain.pack_runs(std::vector{1, 2}), KEL_EINVAL);
    plain.vec.format |= KEL_RLE;
    plain.vec.aux_width = 3;
    EXPECT_EQ(plain.pack_runs(std::vector{1, 2}), KEL_EINVAL);
}

TEST(pack, texts)
{
    const std::string texts[] = {"a", "sixteen letters!", std::string("\0b\0", 3), "fifteen letters"};
    kel::column varied = kel::column::texts(5, 70), fixed = kel::column::texts_of_width(5, 16),
                plain = kel::column::bytes(4, 16);
    const kel::context ctx = kel::open();
    for (const std::string &text : texts) {
        EXPECT_EQ(varied.append(text), KEL_SUCCESS);
        EXPECT_EQ(fixed.append(text), KEL_SUCCESS);
        for (const char *bad : {"", "seventeen letters"})
            EXPECT_EQ(varied.append(bad), KEL_EDATASIZE);
        EXPECT_EQ(fixed.append("seventeen letters"), KEL_EDATASIZE);
    }
    EXPECT_EQ(kel_extract(ctx, KEL_PAD, varied, plain).status, KEL_SUCCESS);
    for (uint64_t i = 0; i < 4; i++)
        for (const kel::column *column : {&fixed, &plain})
            EXPECT_EQ(column->text(i), i == 2 ? texts[2].substr(0, 2) : texts[i]);
    varied.vec.format = KEL_VAR; // lengths stand for themselves
    EXPECT_EQ(varied.append("sixteen letters!"), KEL_EDATASIZE);
    EXPECT_EQ(fixed.text(4), "");
    for (kel::column *column : {&varied, &fixed}) {
        EXPECT_EQ(column->append("fifteen letters"), KEL_SUCCESS);
        EXPECT_EQ(column->append("a"), KEL_EOVERFLOW);
    }
    kel::column short_of_bytes = kel::column::texts(2, 3), numbers = kel::column::bits(1, 8);
    EXPECT_EQ(short_of_bytes.append("abcd"), KEL_EOVERFLOW);
    EXPECT_EQ(short_of_bytes.append("abc"), KEL_SUCCESS);
    numbers.vec.elements = 0;
    EXPECT_EQ(numbers.append("a"), KEL_EINVAL);
}

// However a column is described anew, what it writes and reads stays in its buffers.
TEST(columns, described_anew)
{
    kel::column bits = kel::column::bits(1000, 1), runs = kel::column::runs(1000, 1);
    for (kel::column *column : {&bits, &runs}) {
        kel_vec_t &vec = column->vec;
        const std::vector<uint64_t> values(1000, 1);
        vec.format = KEL_BYTES;
        vec.elem_width = 16;
        vec.elements = 0;
        for (uint64_t i = 0; i < 1000; i++)
            ASSERT_EQ(column->append("sixteen letters!"), i < 1000 / 8 / 16 ? KEL_SUCCESS : KEL_EOVERFLOW);
        vec.elements = 1000;
        EXPECT_EQ(column->text(6), "sixteen letters!");
        EXPECT_EQ(column->text(7), "");
        vec.elem_width = 8;
        EXPECT_EQ(column->pack(values), KEL_EINVAL);
        EXPECT_EQ(column->unpack(std::vector(values)), KEL_EINVAL);
        vec.format |= KEL_RLE;
        EXPECT_EQ(column->pack_runs(values), KEL_EINVAL);
    }
    kel::column texts = kel::column::texts(1000, 1000);
    texts.vec.aux_width = 8;
    for (int i = 0; i < 1000; i++)
        ASSERT_EQ(texts.append("a"), i < 500 ? KEL_SUCCESS : KEL_EOVERFLOW);
    kel::column none;
    none.vec = {KEL_BYTES, 9, nullptr, 8, 0, 0, 0, nullptr, nullptr, 0};
    EXPECT_EQ(none.text(3), "");
    const char *text = nullptr;
    EXPECT_EQ(kel_text_at(&none.vec, 3, &text), 0u);
    EXPECT_STREQ(text, "");
    none.vec.format = KEL_VAR;
    uint64_t size = 0;
    none.vec.data = &size;
    none.vec.aux_width = 8;
    EXPECT_EQ(kel_append_text(&none.vec, &size, "a", 1), KEL_EINVAL);
}

TEST(columns, make_values_in_their_base_and_width)
{
    using enum kel::place;
    constexpr int64_t least = INT64_MIN;
    constexpr struct {
        int64_t base;
        uint32_t bits;
        int64_t number;
        kel::place place;
        uint64_t stored;
    } cases[] = {{-40, 7, -40, inside, 0}, {-40, 7, -41, below, 0},       {-40, 7, 87, inside, 127},
                 {-40, 7, 88, above, 0},   {0, 7, -1, below, 0},          {5, 8, 4, below, 0},
                 {-1, 64, -1, inside, 0},  {-1, 64, least, below, 0},     {least, 64, INT64_MAX, inside, UINT64_MAX},
                 {least, 1, 0, above, 0},  {least, 64, least, inside, 0}, {INT64_MAX, 1, -5, below, 0}};
    for (const auto &c : cases)
        for (const bool bytes : {false, true}) {
            if (bytes && c.bits % 8 != 0)
                continue;
            kel::column column = bytes ? kel::column::bytes(2, c.bits / 8) : kel::column::bits(2, c.bits);
            std::vector<int64_t> values = {c.number, c.base}, back(2);
            EXPECT_EQ(column.pack(values, c.base), c.place == inside || c.bits == 64 ? KEL_SUCCESS : KEL_EDATASIZE);
            EXPECT_EQ(column.unpack(back), KEL_SUCCESS);
            EXPECT_TRUE(c.place != inside || back == values) << c.number;
            const kel::column moved = std::move(column);
            const kel::column_value value = moved.value(c.number);
            EXPECT_EQ(value.place, c.place) << c.number;
            EXPECT_EQ(static_cast<const kel_int_t *>(value) != nullptr, c.place == inside);
            EXPECT_EQ(value.number.dword[2], c.stored);
            EXPECT_EQ(value.number.elem_width, c.place != inside ? 0 : moved.vec.elem_width);
            EXPECT_EQ(value.number.format, c.place == inside && !bytes ? KEL_BITS : KEL_BYTES);
        }
    kel::column low = kel::column::bits(1, 64);
    EXPECT_EQ(low.pack(std::vector{-1}, -1), KEL_SUCCESS);
    EXPECT_EQ(low.value(UINT64_MAX).place, above); // the difference has 65 bits
    const kel_int_t difference = kel::column::bytes(1, 16).value(UINT64_MAX).number;
    EXPECT_EQ(difference.dword[1] + 1, 1u);
    EXPECT_EQ(difference.dword[2], UINT64_MAX);
    EXPECT_TRUE(kel::column::packed(std::vector{UINT64_MAX}, UINT64_MAX).value(UINT64_MAX));
}

// Texts of a column equal themselves, whatever their length and the width of the column.
TEST(columns, make_texts_that_compare_equal)
{
    const kel::context ctx = kel::open();
    const std::string long_text(17, 'x');
    for (const uint32_t width : {0u, 3u, 8u, 9u, 16u, 20u}) {
        kel::column texts = width ? kel::column::texts_of_width(3, width) : kel::column::texts(3, 30);
        const kel::column found = kel::column::bits(3, 1);
        for (const char *text : {"b", "bc", "\xff"})
            ASSERT_EQ(texts.append(text), KEL_SUCCESS);
        kel_vec_t src = texts.vec;
        if (width <= 16)
            for (const auto &[text, matches] : std::vector<std::pair<const char *, std::pair<uint64_t, uint64_t>>>{
                     {"a", {0, 0}}, {"b", {1, 0}}, {"bc", {1, 1}}, {"bca", {0, 2}}, {"\xff", {1, 2}}}) {
                const kel_result_t equal = kel_scan_value(ctx, 0, &src, found, KEL_EQ, texts.value(text));
                const kel_result_t less = kel_scan_value(ctx, 0, &src, found, KEL_LT, texts.value(text));
                EXPECT_EQ(equal.status, KEL_SUCCESS);
                EXPECT_EQ(equal.count, matches.first) << text << width;
                EXPECT_EQ(less.count, matches.second) << text << width;
            }
        EXPECT_EQ(texts.value("").place, width ? kel::place::inside : kel::place::below);
        EXPECT_EQ(texts.value(long_text).place, width == 0 || width >= 16 ? kel::place::between : kel::place::inside);
    }
}

// A column of texts of variable width, encoded with a codec of its own, comes back whole.
TEST(columns, encode_texts_of_variable_width)
{
    const kel::context ctx = kel::open();
    constexpr uint64_t rows = 4000;
    kel::column texts = kel::column::texts(rows, rows * 16), plain = kel::column::bytes(rows, 16);
    for (uint64_t i = 0; i < rows; i++)
        ASSERT_EQ(texts.append("customer " + std::to_string(i % 500)), KEL_SUCCESS);
    std::vector<uint8_t> trained(rows * 16 + 2), encoded(rows * 16 + 2);
    size_t trained_size = rows * 16, encoded_size = rows * 16;
    kel_zip_t *made = nullptr;
    ASSERT_EQ(kel_zip(ctx, 0, texts, trained.data(), &trained_size, &made).status, KEL_SUCCESS);
    const kel::codec codec(made, {ctx});
    const kel_vec_t bytes = texts.text_bytes();
    const kel_result_t result = kel_encode(ctx, &bytes, encoded.data(), &encoded_size, codec);
    ASSERT_EQ(result.status, KEL_SUCCESS);
    kel_vec_t zipped = texts.vec;
    zipped.format |= KEL_ZIP;
    zipped.data = encoded.data();
    zipped.codec = codec;
    zipped.codewords = result.count;
    ASSERT_EQ(kel_extract(ctx, KEL_PAD, &zipped, plain).status, KEL_SUCCESS);
    for (uint64_t i = 0; i < rows; i++)
        ASSERT_EQ(plain.text(i), "customer " + std::to_string(i % 500));
}

TEST(owners, pass_what_they_own)
{
    kel_status_t status;
    EXPECT_FALSE(kel::open(3, nullptr, &status));
    EXPECT_STREQ(kel::name(status), "EBADVER");
    EXPECT_STREQ(kel::name(KEL_ENOTIMPL), "ENOTIMPL");
    for (int i = 0; i >= KEL_EZIP; i--)
        EXPECT_STREQ(kel::name(static_cast<kel_status_t>(i)), kel_status_str(static_cast<kel_status_t>(i)));
    EXPECT_STREQ(kel::name(static_cast<kel_status_t>(-22)), "an unknown status");

    block_store store;
    const kel_init_options_t allocator = store.options();
    {
        const kel::context ctx = kel::open(1, &allocator, &status);
        const kel::queue queue = kel::make_queue(ctx, 3);
        EXPECT_EQ(kel_nop_post(queue, 0, nullptr), KEL_SUCCESS);
        EXPECT_FALSE(kel::make_queue(ctx, 0));
        EXPECT_FALSE(store.live.empty());
    }
    EXPECT_TRUE(store.live.empty());

    kel::column first = kel::column::packed(std::vector<int8_t>{-128, 127}, int8_t{-128}),
                second = kel::column::bits(1, 1);
    EXPECT_EQ(first.vec.elem_width, 8u);
    const void *data = first.vec.data;
    second = std::move(first);
    EXPECT_EQ(second.vec.data, data);
    EXPECT_FALSE(first); // NOLINT(bugprone-use-after-move): what is left is told
    const auto has_memory = [](const kel::column &column) {
        const void *volatile place = column.vec.data; // seen from outside: a compiler may leave out what nobody sees
        return column && place != nullptr;
    };
    EXPECT_FALSE(has_memory(kel::column::bytes(uint64_t{1} << 50, 1)));
    for (const uint32_t width : {8u, 1u << 29}) // whose bits cannot be counted in 64 bits, and in 32
        EXPECT_FALSE(has_memory(kel::column::bytes(uint64_t{1} << 61, width)));
    EXPECT_EQ(kel::column().pack(std::vector{1}), KEL_EINVAL);
    EXPECT_EQ(kel::column().append("a"), KEL_EOVERFLOW);

    const kel_int_t text = kel::value("0123456789");
    kel_int_t made = {};
    const kel::context ctx = kel::open();
    EXPECT_EQ(kel_int_create(ctx, "0123456789", 10, &made), KEL_SUCCESS);
    EXPECT_EQ(0, memcmp(&text, &made, sizeof made));
}

// Packs columns and holds results.
#include "packed_column.h"
#include <algorithm>
#include <bit>
#include <chrono>
#include <cstdio>
#include <cstring>

constexpr size_t room_behind = 128;       // a destination's end is rounded up to 64 bytes, and needs 64 more
constexpr uint32_t most_packed_bits = 24; // a wider element is a whole number of bytes
constexpr uint32_t repeat_bits = 8;       // of the count of a run
constexpr int32_t most_repeats = 255;     // behind the first; the stored count is one less than the run (KEL_ADD_ONE)

static blocks_t make_blocks(size_t size, int fill)
{
    blocks_t blocks(size / sizeof(block_t) + 1);
    memset(blocks.data(), fill, sizeof(block_t) * blocks.size());
    return blocks;
}

static kel_vec_t make_vec(uint64_t format, size_t elements, uint32_t width, blocks_t &blocks)
{
    kel_vec_t vec = {};
    vec.format = format;
    vec.elements = elements;
    vec.elem_width = width;
    vec.data = blocks.data();
    return vec;
}

uint32_t width_bits(const kel_vec_t &vec)
{
    return vec.format & KEL_BITS ? vec.elem_width : 8 * vec.elem_width;
}

static size_t bytes_for(size_t elements, uint32_t bits)
{
    return (elements * bits + 7) / 8;
}

size_t packed_bytes(const kel_vec_t &vec)
{
    return bytes_for(vec.elements, width_bits(vec)) + bytes_for(vec.elements, vec.aux_width);
}

// ---- Columns --------------------------------------------------------------------------------------------------------

range_t range_of(const std::vector<int32_t> &plain, range_t compared)
{
    const auto [lowest, highest] = std::minmax_element(plain.begin(), plain.end());
    return {std::min<int64_t>(*lowest, compared.lowest), std::max<int64_t>(*highest, compared.highest)};
}

dictionary_t::dictionary_t(const std::vector<std::string> &column, const std::vector<std::string> &other)
    : texts(column)
{
    texts.insert(texts.end(), other.begin(), other.end());
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    range = {0, static_cast<int64_t>(texts.size()) - 1};
}

std::vector<int32_t> dictionary_t::codes(const std::vector<std::string> &column) const
{
    std::vector<int32_t> codes;
    for (const std::string &text : column)
        codes.push_back(static_cast<int32_t>(std::lower_bound(texts.begin(), texts.end(), text) - texts.begin()));
    return codes;
}

static uint32_t width_for(range_t range)
{
    const auto bits = static_cast<uint32_t>(std::bit_width(static_cast<uint64_t>(range.highest - range.lowest)));
    return bits > most_packed_bits ? (bits + 7) / 8 * 8 : std::max(bits, 1u);
}

// The first bit of an element is its highest, and so is that of a byte.
static blocks_t pack(const std::vector<int32_t> &plain, int64_t lowest, uint32_t width)
{
    blocks_t blocks = make_blocks(bytes_for(plain.size(), width), 0);
    auto *bytes = reinterpret_cast<uint8_t *>(blocks.data());
    size_t bit = 0;
    for (const int32_t number : plain) {
        const auto element = static_cast<uint64_t>(number - lowest);
        for (uint32_t i = width; i-- > 0; bit++)
            bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] | (element >> i & 1) << (7 - bit % 8));
    }
    return blocks;
}

column_t::column_t(const std::vector<int32_t> &numbers, range_t range)
    : plain(numbers), lowest(range.lowest), elements(pack(numbers, lowest, width_for(range)))
{
    vec = make_vec(KEL_BITS, numbers.size(), width_for(range), elements);
}

column_t column_t::run_length(const std::vector<int32_t> &plain, range_t range)
{
    std::vector<int32_t> numbers;
    std::vector<int32_t> repeats;
    for (const int32_t number : plain) {
        if (numbers.empty() || number != numbers.back() || repeats.back() == most_repeats) {
            numbers.push_back(number);
            repeats.push_back(-1);
        }
        repeats.back()++;
    }
    column_t column(numbers, range);
    column.plain = plain;
    column.repeats = pack(repeats, 0, repeat_bits);
    column.vec.format |= KEL_RLE | KEL_ADD_ONE;
    column.vec.aux_data = column.repeats.data();
    column.vec.aux_width = repeat_bits;
    return column;
}

kel_int_t column_t::value(int64_t number) const
{
    return {KEL_BITS, vec.elem_width, {0, 0, static_cast<uint64_t>(number - lowest)}};
}

// ---- Compressed texts -----------------------------------------------------------------------------------------------

int32_t text_number(const std::string &text)
{
    int32_t number = 0;
    for (const char letter : text)
        number = number << 8 | static_cast<uint8_t>(letter);
    return number;
}

std::string number_text(int64_t number, size_t letters)
{
    std::string text;
    for (size_t i = letters; i-- > 0;)
        text += static_cast<char>(number >> 8 * i);
    return text;
}

void text_column_t::print_head()
{
    printf("%-14s  %8s  %8s  %5s  %12s\n", "training", "plain B", "packed B", "ratio", "MB/s");
}

text_column_t::text_column_t(kel_context_t *ctx, const char *name, const std::vector<std::string> &texts)
{
    std::string all;
    for (const std::string &text : texts) {
        plain.push_back(text_number(text));
        all += text;
    }
    letters = make_blocks(all.size(), 0);
    memcpy(letters.data(), all.data(), all.size());
    vec = make_vec(KEL_BYTES, texts.size(), static_cast<uint32_t>(texts[0].size()), letters);
    packed_bytes = all.size();

    // A stream that is longer than the texts does not pay, so there is no need for more room; one byte is spare.
    constexpr uint64_t thorough = 1;
    codewords = make_blocks(all.size() + 1, 0);
    size_t length = all.size();
    kel_zip_t *made = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const kel_result_t result = kel_zip(ctx, thorough, &vec, codewords.data(), &length, &made);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    if (result.status == KEL_SUCCESS || result.status == KEL_EOVERFLOW)
        codec = {made, [ctx](kel_zip_t *one) { kel_zip_free(ctx, one); }};
    if (result.status == KEL_SUCCESS) {
        std::vector<uint8_t> image(8192); // no image is larger
        size_t image_bytes = image.size();
        kel_zip_get_contig(ctx, made, image.data(), &image_bytes);
        packed_bytes = length + image_bytes;
        vec.format = KEL_ZIP;
        vec.data = codewords.data();
        vec.codec = made;
        vec.codewords = result.count;
    }
    width_bits = static_cast<uint32_t>(8 * packed_bytes / texts.size());
    printf("%-14s  %8zu  %8zu  %5.2f  %12.1f%s\n", name, all.size(), packed_bytes,
           static_cast<double>(all.size()) / static_cast<double>(packed_bytes),
           static_cast<double>(all.size()) / seconds.count() / 1e6, vec.format == KEL_ZIP ? "" : "  not kept");
}

// ---- Results --------------------------------------------------------------------------------------------------------

// What an operation leaves unwritten is to differ from every right answer, so the bytes do not start as 0.
result_t::result_t(size_t rows, uint64_t format, uint32_t width, int64_t bias)
    : blocks(make_blocks(bytes_for(rows, format & KEL_BITS ? width : 8 * width) + room_behind, 0xa5)), lowest(bias)
{
    vec = make_vec(format, rows, width, blocks);
}

result_t::result_t(const column_t &column)
    : result_t(column.plain.size(), KEL_BYTES,
               column.vec.elem_width <= 8    ? 1
               : column.vec.elem_width <= 16 ? 2
                                             : 4,
               column.lowest)
{
}

int64_t result_t::value(size_t at) const
{
    const uint32_t width = width_bits(vec);
    const auto *bytes = reinterpret_cast<const uint8_t *>(blocks.data());
    uint64_t element = 0;
    for (size_t bit = at * width; bit < (at + 1) * width; bit++)
        element = element << 1 | (bytes[bit / 8] >> (7 - bit % 8) & 1);
    return lowest + static_cast<int64_t>(element);
}

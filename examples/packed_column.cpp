// Packs columns and holds results.
#include "packed_column.h"
#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

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

text_column_t::text_column_t(kel_context_t *ctx, const std::vector<std::string> &texts)
{
    std::string letters;
    std::vector<int32_t> codes; // of each letter of each text
    for (const std::string &text : texts) {
        plain.push_back(text_number(text));
        for (const char letter : text) {
            if (letters.find(letter) == std::string::npos)
                letters += letter;
            codes.push_back(static_cast<int32_t>(letters.find(letter)));
        }
    }
    const std::vector<uint8_t> one_byte_each((letters.size() + 1) / 2, 0x11); // widths of 4 bits
    std::vector<uint8_t> widths = one_byte_each;
    if (letters.size() % 2 != 0)
        widths.back() = 0x10;
    kel_zip_t *made = nullptr;
    const auto *symbols = reinterpret_cast<const uint8_t *>(letters.data());
    if (kel_zip_create(ctx, static_cast<uint16_t>(letters.size()), widths.data(), symbols, &made) != KEL_SUCCESS)
        throw std::runtime_error("kel_zip_create fails");
    codec = {made, [ctx](kel_zip_t *one) { kel_zip_free(ctx, one); }};

    const auto code_bits = static_cast<uint32_t>(std::bit_width(letters.size() - 1));
    codewords = pack(codes, 0, code_bits);
    vec = make_vec(KEL_ZIP, texts.size(), static_cast<uint32_t>(texts[0].size()), codewords);
    vec.codec = made;
    vec.codewords = codes.size();
    width_bits = code_bits * vec.elem_width;
    packed_bytes = bytes_for(codes.size(), code_bits) + 2 + widths.size() + letters.size();
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

// Packs columns and holds results.
#include "packed_column.h"
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

void check(kel_status_t status, const std::string &call)
{
    if (status != KEL_SUCCESS)
        throw std::runtime_error(call + " fails with status " + kel::name(status));
}

size_t packed_bytes(const kel_vec_t &vec)
{
    return (vec.elements * kel_element_bits(&vec) + 7) / 8 + (vec.elements * vec.aux_width + 7) / 8;
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
    codes.reserve(column.size());
    for (const std::string &text : column)
        codes.push_back(static_cast<int32_t>(std::lower_bound(texts.begin(), texts.end(), text) - texts.begin()));
    return codes;
}

static uint32_t width_for(range_t range)
{
    return kel_width_for(static_cast<uint64_t>(range.highest - range.lowest));
}

column_t::column_t(kel::column &&made, const std::vector<int32_t> &numbers, range_t range)
    : kel::column(std::move(made)), plain(numbers), lowest(range.lowest)
{
}

column_t::column_t(const std::vector<int32_t> &numbers, range_t range)
    : column_t(bits(numbers.size(), width_for(range)), numbers, range)
{
    check(pack(numbers, static_cast<int32_t>(lowest)), "pack");
}

column_t column_t::run_length(const std::vector<int32_t> &plain, range_t range)
{
    column_t column(runs(plain.size(), width_for(range)), plain, range);
    check(column.pack_runs(plain, static_cast<int32_t>(range.lowest)), "pack_runs");
    return column;
}

kel_int_t column_t::value(int64_t number) const
{
    return kel::value(static_cast<uint64_t>(number - lowest), vec.elem_width);
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

// A stream of codewords that is longer than the texts does not pay, so there is no need for more room.
text_column_t::text_column_t(kel_context_t *ctx, const char *name, const std::vector<std::string> &texts)
    : letters(kel::column::texts_of_width(texts.size(), static_cast<uint32_t>(texts[0].size()))),
      codewords(kel::column::bytes(texts.size() * texts[0].size(), 1))
{
    for (const std::string &text : texts) {
        plain.push_back(text_number(text));
        check(letters.append(text), "append");
    }
    vec = letters.vec;
    const size_t letter_bytes = packed_bytes = ::packed_bytes(vec);

    constexpr uint64_t thorough = 1;
    size_t length = letter_bytes;
    kel_zip_t *made = nullptr;
    const auto start = std::chrono::steady_clock::now();
    const kel_result_t result = kel_zip(ctx, thorough, &vec, codewords.vec.data, &length, &made);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    if (result.status == KEL_SUCCESS || result.status == KEL_EOVERFLOW)
        codec = kel::codec(made, {ctx});
    if (result.status == KEL_SUCCESS) {
        std::vector<uint8_t> image(8192); // no image is larger
        size_t image_bytes = image.size();
        check(kel_zip_get_contig(ctx, made, image.data(), &image_bytes), "kel_zip_get_contig");
        packed_bytes = length + image_bytes;
        vec.format = KEL_ZIP;
        vec.data = codewords.vec.data;
        vec.codec = made;
        vec.codewords = result.count;
    }
    width_bits = static_cast<uint32_t>(8 * packed_bytes / texts.size());
    printf("%-14s  %8zu  %8zu  %5.2f  %12.1f%s\n", name, letter_bytes, packed_bytes,
           static_cast<double>(letter_bytes) / static_cast<double>(packed_bytes),
           static_cast<double>(letter_bytes) / seconds.count() / 1e6, vec.format == KEL_ZIP ? "" : "  not kept");
}

// ---- Results --------------------------------------------------------------------------------------------------------

// What an operation leaves unwritten is to differ from every right answer, so the bytes do not start as 0.
result_t::result_t(kel::column &&made, int64_t bias) : kel::column(std::move(made)), lowest(bias)
{
    memset(vec.data, 0xa5, packed_bytes(vec));
}

result_t::result_t(size_t rows) : result_t(bits(rows, 1), 0) {}

result_t::result_t(size_t rows, uint32_t width, int64_t bias) : result_t(bytes(rows, width), bias) {}

result_t::result_t(const column_t &source)
    : result_t(source.plain.size(),
               source.vec.elem_width <= 8    ? 1
               : source.vec.elem_width <= 16 ? 2
                                             : 4,
               source.lowest)
{
}

int64_t result_t::value(size_t at) const
{
    const auto width = static_cast<uint32_t>(kel_element_bits(&vec));
    return lowest + static_cast<int64_t>(kel_get_field(vec.data, at * width, width));
}

// Sums, searches and counts over streams of fields, a word at a time. Widths are powers of two, so that a field never
// crosses a word of the stream; each width has a loop of its own, in which all shift counts are constants.
#include "kel_vector.h"
#include "kel_init.h"
#include "kel_io.h"
#include "kel_zip.h"

namespace
{

// Calls loop(width) with the width as a compile-time constant; any that is not listed counts as 32.
template <class Loop>
auto with_width(unsigned width, const Loop &loop)
{
    switch (width) {
    case 1:
        return loop(std::integral_constant<unsigned, 1>());
    case 2:
        return loop(std::integral_constant<unsigned, 2>());
    case 4:
        return loop(std::integral_constant<unsigned, 4>());
    case 8:
        return loop(std::integral_constant<unsigned, 8>());
    case 16:
        return loop(std::integral_constant<unsigned, 16>());
    default:
        return loop(std::integral_constant<unsigned, 32>());
    }
}

template <unsigned width>
constexpr uint64_t field_mask = ~uint64_t{0} >> (64 - width);

// All ones in every second field.
template <unsigned width>
constexpr uint64_t even_fields = ~uint64_t{0} / ((uint64_t{1} << width) + 1);

// The sum of all fields of a word: neighbours are added until one is left.
template <unsigned width>
uint64_t sum_fields(uint64_t word)
{
    if constexpr (width == 64) {
        return word;
    } else {
        constexpr uint64_t even = even_fields<width>;
        return sum_fields<2 * width>((word & even) + (word >> width & even));
    }
}

// Kept: of a stream that starts at a word of memory, whole words are taken as they stand in a register, so that fields
// of 16 and 32 bits are byte-reversed there. No source may have such an aux width.
template <unsigned width>
size_t sum_stream(stream_words words, size_t count)
{
    constexpr size_t fields = 64 / width;
    const bool as_it_stands = words.aligned();
    size_t sum = 0;
    for (; count >= fields; count -= fields) {
        const uint64_t word = words.next(64);
        sum += sum_fields<width>(as_it_stands ? revbytes64(word) : word);
    }
    if (count > 0)
        sum += sum_fields<width>(words.next(count * width) >> (64 - count * width));
    return sum;
}

template <unsigned width>
constexpr uint64_t field(uint64_t word, unsigned index)
{
    return word >> (64 - width * (index + 1)) & field_mask<width>;
}

// All fields of a word are tested without a branch; which one hit is looked up only if one did.
template <unsigned width, class Test>
int search_stream(stream_words words, size_t count, const Test &test, unsigned long *index)
{
    constexpr unsigned fields = 64 / width;
    for (size_t base = 0; base < count; base += fields) {
        const size_t left = count - base;
        const uint64_t word = words.next(left < fields ? left * width : 64);
        bool hit = false;
        for (unsigned i = 0; i < fields; i++)
            hit |= test(field<width>(word, i));
        if (hit) {
            unsigned first = 0;
            while (!test(field<width>(word, first)))
                first++;
            *index = base + first;
            return *index < count; // the last word may hold fields behind the stream's end
        }
    }
    return 0;
}

template <class Test>
int search(const void *data, unsigned width, unsigned offset, size_t count, const Test &test, unsigned long *index)
{
    return with_width(width, [&](auto constant) {
        return search_stream<constant()>(stream_words(data, offset), count, test, index);
    });
}

} // namespace

size_t aux_sum(kel_context_t *ctx, const kel_vec_t *vec)
{
    const unsigned width = vec->aux_width;
    if (!kel_power_of_two(width) || width > 32) {
        kel_report(ctx, "Invalid src aux_width %d", static_cast<int>(width));
        return 0;
    }
    const size_t sum = with_width(width, [vec](auto constant) {
        return sum_stream<constant()>(stream_words(vec->aux_data, vec->aux_offset), vec->elements);
    });
    return vec->format & KEL_ADD_ONE ? sum + vec->elements : sum;
}

int compare_bits_eq(const void *data, unsigned width, unsigned offset, size_t count, unsigned long mask,
                    unsigned long value, unsigned long *index)
{
    const auto equal = [=](uint64_t field) { return (field & mask) == value; };
    return search(data, width, offset, count, equal, index);
}

int compare_bits_gt(const void *data, unsigned width, unsigned offset, size_t count, unsigned long mask,
                    unsigned long value, unsigned long *index)
{
    const auto greater = [=](uint64_t field) { return (field & mask) > value; };
    return search(data, width, offset, count, greater, index);
}

unsigned long bit_popc(const void *data, unsigned long offset, unsigned long bits)
{
    constexpr unsigned batch = 64;
    uint64_t held[batch];
    stream_words words(data, offset);
    unsigned long count = 0;
    while (bits > 0) {
        size_t n = 0;
        for (; n < batch && bits > 0; n++) {
            const unsigned long wanted = bits < 64 ? bits : 64;
            held[n] = words.next(wanted) >> (64 - wanted);
            bits -= wanted;
        }
        count += popc_words(held, n);
    }
    return count;
}

int vec_overlap(const kel_vec_t *a, const kel_vec_t *b)
{
    if ((a->format | b->format) & KEL_ZIP)
        return 0;
    const auto start_a = reinterpret_cast<uintptr_t>(a->data);
    const auto start_b = reinterpret_cast<uintptr_t>(b->data);
    return start_a <= start_b ? start_b < start_a + kel_data_bytes(a) : start_a < start_b + kel_data_bytes(b);
}

int aux_overlap(const kel_vec_t *src, const kel_vec_t *dst)
{
    if (!(src->format & (KEL_VAR | KEL_RLE)))
        return 0;
    const auto aux = reinterpret_cast<uintptr_t>(src->aux_data);
    const auto data = reinterpret_cast<uintptr_t>(dst->data);
    return aux > data ? aux < data + kel_data_bytes(dst) : data < aux + kel_aux_bytes(src);
}

int addr_overlap(const void *a, const void *b, uint64_t len)
{
    const auto start_a = reinterpret_cast<uintptr_t>(a);
    const auto start_b = reinterpret_cast<uintptr_t>(b);
    return (start_a > start_b ? start_a - start_b : start_b - start_a) < len;
}

int aux_elem_valid(kel_context_t *ctx, const kel_vec_t *vec)
{
    // Kept: the interface looks at the low 4 bits alone, so that an element with only high bits set counts as zero.
    constexpr unsigned long looked_at = 15;
    unsigned long index = 0;
    if (!compare_bits_eq(vec->aux_data, vec->aux_width, vec->aux_offset, vec->elements, looked_at, 0, &index))
        return 1;
    kel_report(ctx, "EDATAFMT: aux_data element at index %lu is 0", index);
    return 0;
}

void vec_diagnose(kel_context_t *ctx, const kel_vec_t *vec, kel_status_t status)
{
    if (status != KEL_EDATAFMT)
        return;
    if (vec->format & KEL_ZIP && vec->codec)
        zip_valid_syms(ctx, vec, vec->codec);
    if (vec->format & (KEL_VAR | KEL_RLE) && !(vec->format & KEL_ADD_ONE))
        aux_elem_valid(ctx, vec);
}

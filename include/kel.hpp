/**
 * @file
 * A thin face of kel.h for C++20: owners of what the library hands out, columns that own their buffers, ranges instead
 * of pointers and counts, names of statuses.
 *
 * There is no second interface: owners and columns convert to what the calls of kel.h take, and results stay statuses.
 * Nothing throws. Only the functions that make a column allocate, and only its buffers.
 */
#ifndef KEL_HPP
#define KEL_HPP

#if __cplusplus < 202002L
#error "kel.hpp needs C++20; kel.h and kel_pack.h serve older standards"
#endif

#include <algorithm>
#include <array>
#include <concepts>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <kel.h>
#include <kel_pack.h>
#include <memory>
#include <ranges>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

namespace kel
{

/** The word of a status, without its prefix: "EINVAL". */
constexpr const char *name(kel_status_t status) noexcept
{
    constexpr std::array<const char *, 22> names = {
        "SUCCESS", "EINTERNAL", "EINVAL",    "EPARSE",  "EDATAFMT",  "EOVERFLOW", "ENOMEM",  "EADI",
        "ETHREAD", "EBUSY",     "ENOACCESS", "EBADVER", "ENODEV",    "ECANCEL",   "EQEMPTY", "EQFULL",
        "ESERIAL", "ENOMATCH",  "EZIP",      "EPIPE",   "EDATASIZE", "ENOTIMPL"};
    const int64_t at = -static_cast<int64_t>(status);
    return at >= 0 && at < static_cast<int64_t>(names.size()) ? names[static_cast<size_t>(at)] : "an unknown status";
}

/**
 * @defgroup cpp_owners Owners
 * @{
 */

/** A unique_ptr that the calls of kel.h take as it is. It is released on the thread of its context, and before that: a
 * context is declared before the queues and codecs that it made. */
template <class T, class Release>
struct owner : std::unique_ptr<T, Release> {
    using std::unique_ptr<T, Release>::unique_ptr;

    /** What the calls of kel.h take. */
    operator T *() const &noexcept
    {
        return this->get();
    }
    operator T *() const && = delete; /**< what it owns would be released at once */
};

/** Closes a context. */
struct close_context {
    /** The deleter of an owner. */
    void operator()(kel_context_t *ctx) const noexcept
    {
        (void)kel_thread_fini(ctx);
    }
};
/** An open context. */
using context = owner<kel_context_t, close_context>;

/** Destroys a queue. */
struct destroy_queue {
    /** The deleter of an owner. */
    void operator()(kel_queue_t *queue) const noexcept
    {
        (void)kel_queue_destroy(queue);
    }
};
/** A queue. */
using queue = owner<kel_queue_t, destroy_queue>;

/** Releases a codec. */
struct free_codec {
    kel_context_t *ctx; /**< the one that made the codec; it outlives it */

    /** The deleter of an owner. */
    void operator()(kel_zip_t *codec) const noexcept
    {
        (void)kel_zip_free(ctx, codec);
    }
};
/** A codec, such as kel_zip makes. */
using codec = owner<kel_zip_t, free_codec>;

/** Opens a context for the calling thread (kel_thread_init). Null after a failure, which status tells. */
[[nodiscard]] inline context open(uint32_t major = 2, const kel_init_options_t *allocator = nullptr,
                                  kel_status_t *status = nullptr) noexcept
{
    kel_context_t *ctx = nullptr;
    const kel_status_t opened = kel_thread_init(major, 1, allocator ? KEL_ALLOC : 0, allocator, &ctx);
    if (status)
        *status = opened;
    return context(ctx);
}

/** A queue for some requests (kel_queue_create). Null after a failure. */
[[nodiscard]] inline queue make_queue(kel_context_t *ctx, int requests) noexcept
{
    kel_queue_t *made = nullptr;
    (void)kel_queue_create(ctx, requests, &made); // after a failure it is null still
    return queue(made);
}

/** @} */

/**
 * @defgroup cpp_values Values
 * @{
 */

/** A number to compare elements of this width in bits with, up to 64. */
constexpr kel_int_t value(uint64_t number, uint32_t bits) noexcept
{
    return {KEL_BITS, bits, {0, 0, number}};
}

/** A number needs a width. */
kel_int_t value(std::nullptr_t) = delete;

/** A text of 1 to 16 bytes to compare texts with; of a longer one the first 16 bytes, of an empty one a zero byte. */
constexpr kel_int_t value(std::string_view text) noexcept
{
    text = text.substr(0, 16);
    kel_int_t made = {KEL_BYTES, text.empty() ? 1 : static_cast<uint32_t>(text.size()), {}};
    for (const char letter : text) {
        made.dword[1] = made.dword[1] << 8 | made.dword[2] >> 56;
        made.dword[2] = made.dword[2] << 8 | static_cast<uint8_t>(letter);
    }
    return made;
}

/** Where a value lies among those that a column can have. */
enum class place {
    below,   /**< it is less than all of them */
    inside,  /**< it is to be compared with them */
    above,   /**< it is greater than all of them */
    between, /**< it equals none: greater than those up to number, less than the others; a text of over 16 bytes */
};

/** A value to compare the elements of a column with (see column::value). The scans take it as it is, if it lies inside;
 * if not the answer is known without one, and they get a null pointer, which validation refuses. */
struct column_value {
    kel_int_t number; /**< the value as scans take it, or the text's first 16 bytes; of a number outside 0 */
    kel::place place; /**< where it lies */

    /** Whether it lies inside. */
    constexpr explicit operator bool() const noexcept
    {
        return place == place::inside;
    }

    /** What the calls of kel.h take. */
    constexpr operator const kel_int_t *() const noexcept
    {
        return *this ? &number : nullptr;
    }
};

/** @} */

/**
 * @defgroup cpp_columns Columns
 * @{
 */

/** Arrays of the host's integers: vectors, arrays, spans. */
template <class Values>
concept integers = std::ranges::contiguous_range<Values> && std::integral<std::ranges::range_value_t<Values>> &&
    !std::same_as<std::ranges::range_value_t<Values>, bool>;

/** What such an array consists of. */
template <integers Values>
using number_of = std::ranges::range_value_t<Values>;

/** A vector that owns its buffers. They are zeroed, with the alignment and the room of a destination, so that a column
 * serves as a source and as a destination. The calls of kel.h take a column as it is; the fields of vec may be changed,
 * but for its pointers: the functions of a column stay inside its buffers however vec describes them. One without
 * memory has no data and is false.
 *
 * An element is a value less the column's base, which is 0 until a call that packs names another, and by which the
 * calls without one go. It is to be at most the least value: then elements are in the order of values. */
class column
{
  public:
    /** One without data. */
    column() noexcept = default;

    /** Takes the buffers over; other is left without data. */
    column(column &&other) noexcept
        : vec(std::exchange(other.vec, {})), data(std::move(other.data)), aux(std::move(other.aux)),
          room(std::exchange(other.room, {})), own_base(std::exchange(other.own_base, 0)),
          text_size(std::exchange(other.text_size, 0))
    {
    }

    /** Takes the buffers over, and releases those that it had. */
    column &operator=(column &&other) noexcept
    {
        column moved(std::move(other));
        std::swap(vec, moved.vec);
        std::swap(data, moved.data);
        std::swap(aux, moved.aux);
        std::swap(room, moved.room);
        std::swap(own_base, moved.own_base);
        std::swap(text_size, moved.text_size);
        return *this;
    }

    /** Elements of width bits. */
    static column bits(uint64_t elements, uint32_t width) noexcept
    {
        return {KEL_BITS, elements, width, 0, elements};
    }

    /** Elements of width bytes. */
    static column bytes(uint64_t elements, uint32_t width) noexcept
    {
        return {KEL_BYTES, elements, width, 0, elements};
    }

    /** Room for this many runs of elements of bits; a run is up to 256 long. See pack_runs. */
    static column runs(uint64_t elements, uint32_t width) noexcept
    {
        return {KEL_BITS | KEL_RLE | KEL_ADD_ONE, elements, width, 8, elements};
    }

    /** Room for the list of the matches among this many rows, with entries of 2 bytes if they suffice, else of 4. */
    static column indexes(uint64_t rows) noexcept
    {
        return bytes(rows, rows <= 65536 ? 2 : 4);
    }

    /** Room for this many texts of up to width bytes, each in width bytes. See append. */
    static column texts_of_width(uint64_t elements, uint32_t width) noexcept
    {
        column made = bytes(elements, width);
        made.vec.elements = 0;
        return made;
    }

    /** Room for this many texts of 1 to 16 bytes, of data_size bytes together. See append. */
    static column texts(uint64_t elements, uint64_t data_size) noexcept
    {
        column made(KEL_VAR | KEL_ADD_ONE, elements, 1, 4, data_size);
        made.vec.elements = 0;
        return made;
    }

    /** A column of the least width that holds all values less base. */
    template <integers Values>
    static column packed(const Values &values, number_of<Values> base = 0) noexcept
    {
        using number = std::make_unsigned_t<number_of<Values>>;
        number greatest = 0;
        for (const auto value : values)
            greatest = std::max(greatest, static_cast<number>(static_cast<number>(value) - static_cast<number>(base)));
        column made = bits(std::ranges::size(values), kel_width_for(greatest));
        if (made)
            (void)made.pack(values, base); // they fit
        return made;
    }

    /** Packs values into the elements from number first on: kel_pack. The base becomes the column's. */
    template <integers Values>
    kel_status_t pack(const Values &values, number_of<Values> base, uint64_t first = 0) noexcept
    {
        const std::span all(values);
        own_base = base;
        return holds(first, all.size())
                   ? kel_pack(&vec, first, all.size(), all.data(), sizeof all[0], static_cast<uint64_t>(base))
                   : KEL_EINVAL;
    }

    /** The same, with the column's base. KEL_EDATASIZE, too: the values' type does not have it. */
    template <integers Values>
    kel_status_t pack(const Values &values) noexcept
    {
        const auto base = static_cast<number_of<Values>>(own_base);
        return wide{base} == own_base ? pack(values, base) : KEL_EDATASIZE;
    }

    /** Reads as many elements as values has, from number first on: kel_unpack. */
    template <integers Values>
    requires std::ranges::output_range<Values, number_of<Values>>
        kel_status_t unpack(Values &&values, number_of<Values> base, uint64_t first = 0)
    const noexcept
    {
        const std::span all(values);
        return holds(first, all.size())
                   ? kel_unpack(&vec, first, all.size(), all.data(), sizeof all[0], static_cast<uint64_t>(base))
                   : KEL_EINVAL;
    }

    /** The same, with the column's base. */
    template <integers Values>
    requires std::ranges::output_range<Values, number_of<Values>> kel_status_t unpack(Values &&values)
    const noexcept
    {
        const auto base = static_cast<number_of<Values>>(own_base);
        return wide{base} == own_base ? unpack(std::forward<Values>(values), base) : KEL_EDATASIZE;
    }

    /** Reads the elements whose bit in mask is 1, as many as values has room for, with the column's base:
     * kel_unpack_selected. */
    template <integers Values>
    requires std::ranges::output_range<Values, number_of<Values>>
    [[nodiscard]] kel_result_t unpack_selected(kel_context_t *ctx, const kel_vec_t *mask,
                                               Values &&values) const noexcept
    {
        const std::span all(values);
        const auto base = static_cast<number_of<Values>>(own_base);
        if (wide{base} != own_base)
            return {KEL_EDATASIZE, 0, 0};
        if (!holds(0, vec.elements))
            return {KEL_EINVAL, 0, 0};
        return kel_unpack_selected(ctx, &vec, mask, all.data(), all.size(), sizeof all[0], static_cast<uint64_t>(base));
    }

    /** Packs values as runs; vec.elements becomes their number: kel_pack_runs. The base becomes the column's. */
    template <integers Values>
    kel_status_t pack_runs(const Values &values, number_of<Values> base = 0) noexcept
    {
        const std::span all(values);
        own_base = base;
        return holds(0, vec.elements) && holds_aux(vec.elements)
                   ? kel_pack_runs(&vec, all.size(), all.data(), sizeof all[0], static_cast<uint64_t>(base))
                   : KEL_EINVAL;
    }

    /** A number to compare the elements of a column of numbers with, in their base and width. */
    template <std::integral Number>
    [[nodiscard]] column_value value(Number number) const noexcept
    {
        const wide stored = static_cast<wide>(number) - own_base;
        const uint64_t bits = kel_element_bits(&vec);
        if (stored < 0)
            return {{}, place::below};
        if (bits <= 64 && stored >> bits != 0)
            return {{}, place::above};
        return {{static_cast<uint32_t>(vec.format & KEL_BITS),
                 vec.elem_width,
                 {0, static_cast<uint64_t>(stored >> 64), static_cast<uint64_t>(stored)}},
                place::inside};
    }

    /** A text to compare the elements of a column of texts with. Where these have a fixed width a shorter one gets zero
     * bytes behind, as they have, so that it compares equal. */
    [[nodiscard]] column_value value(std::string_view text) const noexcept
    {
        const bool varied = vec.format & KEL_VAR;
        kel_int_t made = kel::value(text);
        if (text.empty() && varied)
            return {made, place::below};
        for (; !varied && made.elem_width < std::min(vec.elem_width, 16u); made.elem_width++) {
            made.dword[1] = made.dword[1] << 8 | made.dword[2] >> 56;
            made.dword[2] <<= 8;
        }
        return {made, text.size() > 16 && (varied || vec.elem_width >= 16) ? place::between : place::inside};
    }

    /** Appends a text: kel_append_text, and KEL_EOVERFLOW if there is no room for it. */
    kel_status_t append(std::string_view text) noexcept
    {
        const bool varied = vec.format & KEL_VAR;
        const uint64_t length = varied ? text.size() : (kel_element_bits(&vec) + 7) / 8;
        if (vec.elements >= room.elements || length > room.bytes - text_size ||
            (varied && !holds_aux(vec.elements + 1)))
            return KEL_EOVERFLOW;
        return kel_append_text(&vec, &text_size, text.data(), text.size());
    }

    /** The appended texts as a vector of single bytes, which kel_encode takes: kel_text_bytes. */
    kel_vec_t text_bytes() const noexcept
    {
        return kel_text_bytes(&vec, text_size);
    }

    /** The text in element number at of a column of bytes: kel_text_at. It lives as long as the column; empty if there
     * is no such element. */
    std::string_view text(uint64_t at) const noexcept
    {
        if (at >= vec.elements || !holds(at, 1) || (vec.format & ~KEL_ADD_ONE) != KEL_BYTES)
            return {};
        const char *first = nullptr;
        const size_t length = kel_text_at(&vec, at, &first);
        return {first, length};
    }

    /** What the calls of kel.h take. */
    operator const kel_vec_t *() const noexcept
    {
        return &vec;
    }

    /** Whether there is memory. */
    explicit operator bool() const noexcept
    {
        return vec.data != nullptr;
    }

    kel_vec_t vec = {}; /**< the vector; its buffers are the column's */

  private:
    __extension__ typedef __int128 wide; // has the numbers of all types and their differences

    struct release {
        /** The deleter of an owner. */
        void operator()(void *block) const noexcept
        {
            std::free(block);
        }
    };
    using block = std::unique_ptr<void, release>;

    static block allocate(uint64_t elements, uint64_t width) noexcept
    {
        const uint64_t size = kel_destination_size(elements, width);
        block made(std::aligned_alloc(64, size));
        if (made)
            std::memset(made.get(), 0, size);
        return made;
    }

    column(uint64_t format, uint64_t elements, uint32_t width, uint16_t aux_width, uint64_t data_elements) noexcept
        : vec{format, elements, nullptr, width, 0, 0, aux_width, nullptr, nullptr, 0}
    {
        data = allocate(data_elements, kel_element_bits(&vec));
        aux = aux_width ? allocate(elements, aux_width) : nullptr;
        if (data && (aux || !aux_width)) {
            vec.data = data.get();
            vec.aux_data = aux.get();
            room = {elements, (data_elements * kel_element_bits(&vec) + 7) / 8, elements * aux_width};
        }
    }

    /* Whether data has room for these elements, however vec describes them. An offset is less than what lies behind. */
    bool holds(uint64_t first, uint64_t count) const noexcept
    {
        const uint64_t has = 8 * room.bytes / std::max<uint64_t>(kel_element_bits(&vec), 1);
        return first <= has && count <= has - first;
    }

    /* Whether aux_data has, for no more than data has. */
    bool holds_aux(uint64_t count) const noexcept
    {
        return count * vec.aux_width <= room.aux_bits;
    }

    struct room_t {
        uint64_t elements = 0, bytes = 0, aux_bits = 0;
    };

    block data;
    block aux;
    room_t room;            /**< that the buffers have */
    wide own_base = 0;      /**< what was taken off the values; signed, and beyond 64 bits where those are unsigned */
    uint64_t text_size = 0; /**< bytes of all texts */
};

/** @} */

} // namespace kel

#endif

// Arrays of the host packed into columns and read back, by the companion's inline functions.
#include "bench_column.h"
#include "kel_pack.h"

namespace
{

// A row whose task calls no library that is loaded.
void add(const char *operation, const std::string &shape, uint64_t bytes, const std::function<task_t()> &make)
{
    add_case(list_t::table, {operation, shape, in_cache, limit_t::copy, bytes, make, false, false, true});
}

// From the destination's bytes on, as a plain loop would read them: in the order of the host.
template <class T>
std::vector<uint8_t> bytes_of(const std::vector<T> &values)
{
    std::vector<uint8_t> bytes(values.size() * sizeof(T));
    memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

template <class T>
void add_pack(const width_t &width)
{
    const auto make = [=] {
        const kel_vec_t dst = destination_vec(width, in_cache);
        const plain_t<T> values = make_plain<T>(width, in_cache);
        return make_task(
            [=](const library_t &) {
                return kel_result_t{kel_pack(&dst, 0, in_cache, values->data(), sizeof(T), 0), 0, 0};
            },
            dst.data,
            [=] {
                return outcome_t{{source_bytes(), source_bytes() + packed_bytes(width, in_cache)}, 0};
            });
    };
    add("pack", std::to_string(8 * sizeof(T)) + " to " + width.name(), in_cache * sizeof(T), make);
}

template <class T>
void add_unpack(const width_t &width)
{
    const auto make = [=] {
        const kel_vec_t src = source_vec(width, in_cache);
        return make_task(
            [=](const library_t &) {
                return kel_result_t{kel_unpack(&src, 0, in_cache, destination_bytes(), sizeof(T), 0), 0, 0};
            },
            destination_bytes(),
            [=] {
                return outcome_t{bytes_of(*make_plain<T>(width, in_cache)), 0};
            });
    };
    add("unpack", width.name() + " to " + std::to_string(8 * sizeof(T)), in_cache * sizeof(T), make);
}

// Every element whose bit is 1 in a mask of random bits.
template <class T>
void add_unpack_selected(const width_t &width)
{
    const auto make = [=] {
        const kel_vec_t src = source_vec(width, in_cache);
        const kel_vec_t mask = fixed_vec(KEL_BITS, 1, in_cache, source_bytes() + most_bytes / 2);
        const auto ctx = std::make_shared<bench_context>();
        return make_task(
            [=](const library_t &) {
                return kel_unpack_selected(*ctx, &src, &mask, destination_bytes(), in_cache, sizeof(T), 0);
            },
            destination_bytes(),
            [=] {
                std::vector<T> selected;
                for (uint64_t i = 0; i < in_cache; i++)
                    if (get_field(static_cast<const uint8_t *>(mask.data), i, 1))
                        selected.push_back(static_cast<T>(get_element(source_bytes(), width, i)));
                return outcome_t{bytes_of(selected), selected.size()};
            });
    };
    const std::string shape = width.name() + " to " + std::to_string(8 * sizeof(T)) + ", selected, 50%";
    add("unpack", shape, in_cache * sizeof(T) / 2, make);
}

} // namespace

void add_packing()
{
    add_pack<uint16_t>({KEL_BITS, 12});
    add_pack<uint64_t>({KEL_BITS, 12});
    add_pack<uint16_t>({KEL_BYTES, 2});
    add_unpack<uint16_t>({KEL_BITS, 12});
    add_unpack<uint64_t>({KEL_BITS, 12});
    add_unpack<uint16_t>({KEL_BYTES, 2});
    add_unpack_selected<uint16_t>({KEL_BITS, 12});
    add_unpack_selected<uint32_t>({KEL_BYTES, 4});
}

// Elements of variable width by blocks beside the walk: whole requests over many blocks, with a length that is no
// text's anywhere, and streams at either end of memory between pages that fault.
#include "request_makers.h"

using namespace model;

namespace
{

constexpr uint64_t most_texts = 5000, most_bytes = 32;

class texts : public testing::Test
{
  protected:
    // Heads of two texts that differ in one place, of up to 8 bytes or up to 16; from a length of 0 on there is no data.
    kel_vec_t any_texts()
    {
        uint8_t heads[2][256];
        random.fill(heads[0], sizeof heads[0]);
        memcpy(heads[1], heads[0], sizeof heads[0]);
        heads[1][random.between(0, 15)] ^= 1;
        const uint64_t count = random.between(1, random.one_in(8) ? most_texts : 300);
        const uint64_t longest = random.one_in(2) ? 8 : 16,
                       unsound = random.one_in(3) ? random.between(0, count) : count;
        std::string bytes, lengths;
        for (uint64_t i = 0; i < count; i++) {
            const uint64_t length = i != unsound ? random.between(1, longest) : random.one_in(2) ? 0 : 17;
            lengths += static_cast<char>(length);
            if (length == 0)
                break;
            bytes.append(reinterpret_cast<char *>(heads[random.between(0, 1)]), length);
        }
        lengths.resize(count, '\1');
        texts_value = {KEL_BYTES, random.between<uint32_t>(1, 16), {}};
        for (unsigned i = 0; i < texts_value.elem_width; i++)
            texts_value.dword[2 - i / 8] |= uint64_t{heads[0][texts_value.elem_width - 1 - i]} << i % 8 * 8;
        return {KEL_VAR, count, place(data, bytes), 0, 0, 0, 8, place(aux, lengths), nullptr, 0};
    }

    // Runs a request by the walk, then with each set.
    void compare(auto request)
    {
        request.dst.data = out.data;
        const outcome walked = run_with(nullptr, request);
        for (const kernel_set_t *set = kernel_sets; set->name; set++) {
            if (!set->present())
                continue;
            outcome seen = run_with(set, request);
            ASSERT_TRUE(agree(seen, walked, KEL_LOG_ERROR) && seen.bytes == walked.bytes)
                << set->name << ": " << request << "\n  the walk " << walked << "\n  seen " << seen;
        }
    }

    random_source random{17};
    kel_int_t texts_value = {}; // the head of a text

  private:
    uint8_t *place(const guarded_buffer &buffer, const std::string &bytes)
    {
        uint8_t *const start = buffer.data + (random.one_in(2) ? 0 : buffer.size - bytes.size());
        return static_cast<uint8_t *>(memcpy(start, bytes.data(), bytes.size()));
    }

    outcome run_with(const kernel_set_t *set, const auto &request)
    {
        ctx->kernels = set;
        ctx.lines.clear();
        reset_hooks();
        memset(out.data, unwritten, out.size);
        outcome seen = run(ctx, emulations, request);
        seen.bytes.assign(out.data, out.data + out.size);
        for (const log_line &line : ctx.lines)
            seen.lines.emplace_back(line.level, line.message);
        seen.debug_calls = kel_debug_calls;
        seen.error_calls = emulate_error_calls;
        return seen;
    }

    test_context ctx{2, 0};
    guarded_buffer data{most_texts * most_bytes / 4096 * 4096, 1}, aux{8192, 1}, out{most_texts * 16 + 256, 64};
};

} // namespace

TEST_F(texts, scans)
{
    for (unsigned n = 0; n < 3000; n++) {
        const kel_vec_t src = any_texts();
        const int op = random.one_in(2) ? random.pick(range_operators).op : random.pick(value_operators).op;
        const uint32_t bits = random.one_in(2) ? 1 : random.one_in(2) ? 16 : 32;
        const kel_int_t lower = texts_value;
        texts_value.dword[2] += random.between(0, 2);
        const uint64_t room = random.one_in(4) ? src.elements / 2 : src.elements;
        ASSERT_NO_FATAL_FAILURE(compare(
            scan{bits > 1 ? KEL_ONES_INDEX : 0, src, plain_vector(KEL_BITS, room, bits), op, lower, texts_value}));
    }
}

TEST_F(texts, moves)
{
    for (unsigned n = 0; n < 1500; n++) {
        const kel_vec_t src = any_texts();
        const uint64_t room = random.one_in(4) ? src.elements / 2 : src.elements;
        const uint32_t width = 1u << random.between(0, 4);
        kel_vec_t mask = plain_vector(KEL_BITS, src.elements, 1, src.aux_data);
        mask.offset = random.between<uint8_t>(0, 7);
        ASSERT_NO_FATAL_FAILURE(compare(
            move{random.one_in(2) ? KEL_PAD : 0, src, plain_vector(KEL_BYTES, room, width), random.one_in(2), mask}));
    }
}

// Memory services: the system's functions, or the same family made from a client's plain allocator.
//
// A client's allocator knows neither alignment nor, from a pointer alone, the size of a block. So every block is
// followed by a tail record with what the allocator gave; it stands where the block's size, rounded up to a multiple of
// 8, finds it again, and an aligned block needs no gap in front.
#include "kel_init.h"
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <unistd.h>

namespace
{

struct tail_t {
    void *raw;         // what alloc_func returned
    uint64_t raw_size; // the size that it was asked for
};

constexpr size_t memalign_limit = size_t{1} << 31; // sizes and alignments are below this

size_t round_up(size_t value, size_t unit)
{
    return (value + unit - 1) & ~(unit - 1);
}

// Counted from the block's start, so that the tail of a block at an odd address stays inside what was asked for. It is
// read and written by memcpy for the same reason.
char *tail_of(void *block, size_t size)
{
    return static_cast<char *>(block) + round_up(size, sizeof(uint64_t));
}

void write_tail(void *block, size_t size, const tail_t &tail)
{
    memcpy(tail_of(block, size), &tail, sizeof tail);
}

const kel_init_options_t *allocator(const kel_context_t *ctx)
{
    return ctx ? ctx->init_options : nullptr;
}

void *_kel_alloc(const kel_init_options_t *options, size_t size)
{
    const uint64_t total = round_up(size, sizeof(uint64_t)) + sizeof(tail_t);
    void *raw = options->alloc_func(total, options->cb_data);
    if (raw)
        write_tail(raw, size, {raw, total});
    return raw;
}

void log_no_memory(kel_context_t *ctx, const char *function, size_t size)
{
    kel_log_line(ctx, KEL_LOG_ERROR, "%s failed to allocate %lu bytes", function, size);
}

void log_no_aligned_memory(kel_context_t *ctx, size_t size, size_t align)
{
    kel_log_line(ctx, KEL_LOG_ERROR, "kel_memalign failed to allocate %lu bytes aligned to %lu", size, align);
}

// An aligned block of the client's allocator, which ctx has.
void *alloc_aligned(kel_context_t *ctx, size_t align, size_t size)
{
    const bool power_of_two = (align & (align - 1)) == 0;
    if (size == 0 || align == 0 || !power_of_two || align >= memalign_limit || size >= memalign_limit) {
        kel_log_line(ctx, KEL_LOG_ERROR, "kel_memalign: size = %lu, align = %lu: invalid size or alignment", size,
                     align);
        errno = EINVAL;
        return nullptr;
    }
    const kel_init_options_t *options = ctx->init_options;
    const uint64_t total = align + round_up(size, sizeof(uint64_t)) + sizeof(tail_t);
    void *raw = options->alloc_func(total, options->cb_data);
    if (!raw) {
        log_no_aligned_memory(ctx, size, align);
        return nullptr;
    }
    void *block = reinterpret_cast<void *>(round_up(reinterpret_cast<uintptr_t>(raw), align));
    write_tail(block, size, {raw, total});
    return block;
}

// Threads that meet here store the same value.
size_t page_size()
{
    static std::atomic<size_t> kept{0};
    size_t size = kept.load(std::memory_order_relaxed);
    if (size == 0) {
        size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        kept.store(size, std::memory_order_relaxed);
    }
    return size;
}

} // namespace

void *kel_malloc(kel_context_t *ctx, size_t size)
{
    const kel_init_options_t *options = allocator(ctx);
    void *block = options ? _kel_alloc(options, size) : malloc(size);
    if (!block)
        log_no_memory(ctx, "kel_malloc", size);
    return block;
}

void *kel_calloc(kel_context_t *ctx, size_t count, size_t size)
{
    const kel_init_options_t *options = allocator(ctx);
    void *block;
    if (options) {
        block = _kel_alloc(options, count * size);
        if (block)
            memset(block, 0, count * size);
    } else {
        block = calloc(count, size);
    }
    if (!block)
        log_no_memory(ctx, "kel_calloc", count * size);
    return block;
}

void *kel_memalign(kel_context_t *ctx, size_t align, size_t size)
{
    void *block = allocator(ctx) ? alloc_aligned(ctx, align, size) : memalign(align, size);
    if (!block)
        log_no_aligned_memory(ctx, size, align);
    return block;
}

void *kel_valloc(kel_context_t *ctx, size_t size)
{
    return allocator(ctx) ? kel_memalign(ctx, page_size(), size) : valloc(size);
}

void kel_free(kel_context_t *ctx, void *block, size_t size)
{
    const kel_init_options_t *options = allocator(ctx);
    if (!options) {
        free(block);
    } else if (block) {
        tail_t tail;
        memcpy(&tail, tail_of(block, size), sizeof tail);
        options->free_func(tail.raw, tail.raw_size, options->cb_data);
    }
}

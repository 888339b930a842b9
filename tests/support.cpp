#include "support.h"
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

unsigned kel_debug_calls;
unsigned emulate_error_calls;

void reset_hooks()
{
    kel_debug_calls = 0;
    emulate_error_calls = 0;
}

extern "C" void kel_debug(void)
{
    kel_debug_calls++;
}

extern "C" void emulate_error(void)
{
    emulate_error_calls++;
}

static void capture(kel_context_t *, void *cb_data, uint32_t level, const char *prefix, const char *message)
{
    static_cast<test_context *>(cb_data)->lines.push_back({level, prefix, message});
}

test_context::test_context(uint32_t version, uint32_t debug_options, uint32_t log_options,
                           const kel_init_options_t *allocator)
{
    if (kel_thread_init(version, 1, allocator ? KEL_ALLOC : 0, allocator, &ctx) != KEL_SUCCESS)
        abort();
    ctx->debug_options = debug_options;
    ctx->log.options_set = log_options;
    ctx->log.options = log_options;
    ctx->log.cb = capture;
    ctx->log.cb_data = this;
    reset_hooks();
}

test_context::~test_context()
{
    kel_thread_fini(ctx);
}

std::vector<std::string> test_context::messages()
{
    std::vector<std::string> taken;
    for (const log_line &line : lines)
        taken.push_back(line.message);
    lines.clear();
    return taken;
}

guarded_buffer::guarded_buffer(size_t wanted, size_t align) : size(wanted)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t inner = (size + page - 1) / page * page + page;
    mapped = inner + 2 * page;
    void *memory = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        abort();
    mapping = static_cast<uint8_t *>(memory);
    mprotect(mapping, page, PROT_NONE);
    mprotect(mapping + mapped - page, page, PROT_NONE);
    data = mapping + mapped - page - (size + align - 1) / align * align;
    memset(mapping + page, 0xa5, inner);
}

guarded_buffer::~guarded_buffer()
{
    munmap(mapping, mapped);
}

void random_source::fill(void *data, size_t size)
{
    auto *bytes = static_cast<uint8_t *>(data);
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<uint8_t>(word());
}

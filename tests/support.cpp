#include "support.h"
#include "kel_text.h"
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

std::atomic<unsigned> kel_debug_calls_of_all;
lines_t syslog_lines;

static constexpr pthread_t other_thread = 0x1234;

void reset_hooks()
{
    kel_debug_calls = 0;
    emulate_error_calls = 0;
}

extern "C" void kel_debug(void)
{
    kel_debug_calls++;
    kel_debug_calls_of_all++;
}

extern "C" void emulate_error(void)
{
    emulate_error_calls++;
}

extern "C" __attribute__((weak)) void syslog(int priority, const char *format, ...)
{
    EXPECT_EQ(priority, 15);
    EXPECT_STREQ(format, "%s");
    va_list args;
    va_start(args, format);
    syslog_lines.emplace_back(va_arg(args, const char *));
    va_end(args);
}

std::string log_text(const std::string &level, const std::string &message)
{
    return "libkel " + level + ": tid=" + std::to_string(static_cast<int>(pthread_self())) + ": " + message;
}

std::string pointer_text(const void *pointer)
{
    char text[24];
    snprintf(text, sizeof text, "0x%lx", reinterpret_cast<unsigned long>(pointer));
    return text;
}

lines_t lines_without_context(const std::function<void()> &call)
{
    reset_hooks();
    syslog_lines.clear();
    testing::internal::CaptureStderr();
    call();
    const std::string in_stderr = testing::internal::GetCapturedStderr();
    std::string expected;
    for (const std::string &line : syslog_lines)
        expected += line + "\n";
    EXPECT_EQ(in_stderr, expected);
    return syslog_lines;
}

kel_context_t *open_context(uint32_t version, const kel_init_options_t *allocator)
{
    kel_context_t *ctx = nullptr;
    if (kel_thread_init(version, 1, allocator ? KEL_ALLOC : 0, allocator, &ctx) != KEL_SUCCESS)
        abort();
    return ctx;
}

kel_queue_t *open_queue(kel_context_t *ctx, int length)
{
    kel_queue_t *queue = nullptr;
    if (kel_queue_create(ctx, length, &queue) != KEL_SUCCESS)
        abort();
    return queue;
}

static void capture(kel_context_t *, void *cb_data, uint32_t level, const char *prefix, const char *message)
{
    static_cast<test_context *>(cb_data)->lines.push_back({level, prefix, message});
}

test_context::test_context(uint32_t version, uint32_t debug_options, uint32_t log_options,
                           const kel_init_options_t *allocator)
    : ctx(open_context(version, allocator))
{
    ctx->debug_options = debug_options;
    ctx->log.options_set = log_options;
    ctx->log.options = log_options;
    ctx->log.cb = capture;
    ctx->log.cb_data = this;
    reset_hooks();
}

test_context::~test_context()
{
    ctx->thread->tid = pthread_self();
    kel_thread_fini(ctx);
}

void test_context::disown()
{
    ctx->thread->tid = other_thread;
}

std::string test_context::wrong_thread()
{
    return "Wrong thread " + std::to_string(static_cast<int>(pthread_self())) + " using context; owner is 4660";
}

lines_t test_context::messages()
{
    lines_t taken;
    for (const log_line &line : lines)
        taken.push_back(line.message);
    lines.clear();
    return taken;
}

lines_t test_context::texts()
{
    lines_t taken;
    for (const log_line &line : lines)
        taken.push_back(line.prefix + line.message);
    lines.clear();
    return taken;
}

guarded_buffer::guarded_buffer(size_t wanted, size_t align) : size(wanted)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t inner = std::max<size_t>(1, (size + page - 1) / page) * page;
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

void *block_store::take(uint64_t size, void *cb_data)
{
    auto &store = *static_cast<block_store *>(cb_data);
    store.requests.push_back(size);
    if (store.requests.size() == store.failing)
        return nullptr;
    auto memory = std::make_unique<guarded_buffer>(store.misaligned + size);
    void *block = memory->data + store.misaligned;
    store.live[block] = {size, std::move(memory)};
    return block;
}

void block_store::give(void *block, uint64_t size, void *cb_data)
{
    auto &store = *static_cast<block_store *>(cb_data);
    ASSERT_EQ(store.live.count(block), 1u) << "not a block of this allocator";
    EXPECT_EQ(store.live[block].first, size);
    store.live.erase(block);
}

uint64_t bit_reader::field(uint64_t bits)
{
    uint64_t result = 0;
    for (; bits > 0; bits--, position++)
        result = result << 1 | (static_cast<const uint8_t *>(data)[position / 8] >> (7 - position % 8) & 1);
    return result;
}

std::string bit_reader::bytes(uint64_t bits)
{
    std::string result;
    for (const uint64_t end = position + bits; position < end;)
        result += static_cast<char>(field((end - position - 1) % 8 + 1));
    return result;
}

std::string hex(const void *data, size_t size)
{
    std::string text;
    char byte[3];
    for (size_t i = 0; i < size; i++) {
        snprintf(byte, sizeof byte, "%02x", static_cast<const uint8_t *>(data)[i]);
        text += byte;
    }
    return text;
}

uint64_t random_source::up_to(uint64_t most)
{
    uint64_t drawn = told.empty() ? word() : 0;
    for (uint64_t covered = 0; covered < most && !told.empty(); covered = covered << 8 | 0xff, told = told.subspan(1))
        drawn = drawn << 8 | told[0];
    return most == UINT64_MAX ? drawn : drawn % (most + 1);
}

void random_source::fill(void *data, size_t size)
{
    auto *bytes = static_cast<uint8_t *>(data);
    for (size_t i = 0; i < size; i++)
        bytes[i] = static_cast<uint8_t>(word());
}

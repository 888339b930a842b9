// Diagnostic text: tables of words, and the writers that join them.
#include "kel_text.h"
#include "kel_init.h"
#include "kel_platform.h"
#include "kel_scan.h"
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace
{

struct word_t {
    uint64_t value; // one value, or the bits of which any calls for the word
    const char *word;
};

// Indexed by the negated status; the statuses from KEL_EPIPE on have no word.
constexpr const char *status_words[] = {
    "SUCCESS",   "EINTERNAL", "EINVAL", "EPARSE",  "EDATAFMT", "EOVERFLOW", "ENOMEM",  "EADI",     "ETHREAD", "EBUSY",
    "ENOACCESS", "EBADVER",   "ENODEV", "ECANCEL", "EQEMPTY",  "EQFULL",    "ESERIAL", "ENOMATCH", "EZIP",
};

// Words of statuses that no call returns; the first is that of -30.
constexpr int first_far_status = 30;
constexpr const char *far_status_words[] = {"EAGAIN",   "ENOMAP",   "EUNAVAILABLE",
                                            "ETIMEOUT", "EPARTIAL", "EPAGEOVERFLOW"};

constexpr word_t level_words[] = {
    {KEL_LOG_ERROR, "ERROR"},     {KEL_LOG_ENTRY, "ENTRY"},  {KEL_LOG_RETURN, "RETURN"},
    {KEL_LOG_VERBOSE, "VERBOSE"}, {KEL_LOG_WARN, "WARNING"}, {KEL_LOG_PERF, "PERF"},
};

constexpr word_t op_words[] = {
    {KEL_EQ, "EQ"},
    {KEL_GE, "GE"},
    {KEL_NE, "NE"},
    {KEL_LT, "LT"},
    {KEL_LE, "LE"},
    {KEL_GT, "GT"},
    {KEL_EQ_OR_EQ, "EQ_OR_EQ"},
    {KEL_GE_AND_LE, "GE_AND_LE"},
    {KEL_NE_AND_NE, "NE_AND_NE"},
    {KEL_LT_OR_GT, "LT_OR_GT"},
    {KEL_GE_AND_LT, "GE_AND_LT"},
    {KEL_LT_OR_GE, "LT_OR_GE"},
    {KEL_GT_AND_LE, "GT_AND_LE"},
    {KEL_LE_OR_GT, "LE_OR_GT"},
    {KEL_GT_AND_LT, "GT_AND_LT"},
    {KEL_LE_OR_GE, "LE_OR_GE"},
};
static_assert([] {
    uint32_t ops = 0;
    for (const word_t &op : op_words)
        ops |= 1u << op.value;
    return ops == (kel_value_ops | kel_range_ops);
}());

// In the order of the bits, but for "nowait", which stands behind the synchronisation words.
constexpr word_t flag_words[] = {
    {KEL_ONES_INDEX, "ones"},       {KEL_CACHE, "cache"}, {KEL_PAD, "pad"},       {KEL_INVERT, "invert"},
    {KEL_INVERT_SRC, "invert_src"}, {KEL_COND, "cond"},   {KEL_SERIAL, "serial"}, {KEL_NOWAIT, "nowait"},
};

// The group of KEL_PIPE_MASK contains KEL_PIPE_SRC, so that either prints both words. Kept: clients read these lines.
constexpr word_t pipe_words[] = {
    {KEL_PIPE_SRC, "pipe_src"},
    {KEL_PIPE_AUX, "pipe_aux"},
    {KEL_PIPE_MASK, "pipe_mask"},
};

constexpr word_t format_words[] = {
    {KEL_BITS, "bits"}, {KEL_RLE, "rle"}, {KEL_VAR, "var"}, {KEL_ZIP, "zip"}, {KEL_ADD_ONE, "add1"},
};

constexpr unsigned first_unknown_flag = 11;  // bits from here on have no flag's word
constexpr unsigned first_unknown_format = 5; // bits from here on have no format's word
constexpr size_t badval_size = 20;
constexpr int unknown_bit_length = 7; // what an unknown bit takes in a list: a number of two digits and "(???)"

template <size_t n>
const char *find_word(const word_t (&words)[n], uint64_t value)
{
    for (const word_t &word : words)
        if (word.value == value)
            return word.word;
    return nullptr;
}

// Joins words with "|" in a buffer. Each word moves the position by its nominal length, so the text is exact as long as
// it fits; what lies behind the buffer's end is not written.
class word_list
{
  public:
    word_list(char *to, int to_size) : buffer(to), size(to_size) {}

    template <size_t n>
    void add_set(const word_t (&words)[n], uint64_t set)
    {
        for (const word_t &word : words)
            if (set & word.value)
                add(word.word, static_cast<int>(strlen(word.word)));
    }

    void add_unknown(uint64_t set, unsigned first_bit)
    {
        for (unsigned bit = first_bit; bit < 64; bit++)
            if (set >> bit & 1)
                add(badval(bit), unknown_bit_length);
    }

    char *close()
    {
        if (position < size)
            buffer[position] = '\0';
        return buffer;
    }

  private:
    void add(const char *word, int length)
    {
        if (position > 0 && size - position > 1)
            buffer[position++] = '|';
        if (position < size)
            kel_strlcpy(buffer + position, word, static_cast<size_t>(size - position));
        position += length;
    }

    char *buffer;
    int size;
    int position = 0;
};

size_t text_size(int size)
{
    return size > 0 ? static_cast<size_t>(size) : 0;
}

} // namespace

const char *badval(uint64_t value)
{
    char *text = static_cast<char *>(malloc_helper(badval_size, malloc));
    if (!text)
        return "(?\?\?)";
    snprintf(text, badval_size, "%lu(?\?\?)", value);
    return text;
}

const char *kel_status_str(int32_t status)
{
    const int64_t index = -static_cast<int64_t>(status);
    const int64_t far_index = index - first_far_status;
    if (index >= 0 && index < std::ssize(status_words))
        return status_words[index];
    if (far_index >= 0 && far_index < std::ssize(far_status_words))
        return far_status_words[far_index];
    return badval(static_cast<uint64_t>(static_cast<int64_t>(status)));
}

const char *log_str(uint32_t level)
{
    const char *word = find_word(level_words, level);
    return word ? word : "LOG_UNKNOWN";
}

const char *scan_op_str(kel_context_t *, kel_compare_t op, char *, int)
{
    const auto value = static_cast<uint64_t>(static_cast<int64_t>(op));
    const char *word = find_word(op_words, value);
    return word ? word : badval(value);
}

const char *bit_byte_fmt_str(uint64_t format)
{
    if (format == KEL_BITS)
        return "bits";
    return format == KEL_BYTES ? "bytes" : badval(format);
}

char *flags_str(kel_context_t *ctx, uint64_t flags, char *buffer, int size)
{
    if (flags == 0) {
        kel_strlcpy(buffer, "none", text_size(size));
        return buffer;
    }
    word_list list(buffer, size);
    list.add_set(flag_words, flags);
    if (ctx->api_version == 2)
        list.add_set(pipe_words, flags);
    list.add_unknown(flags, first_unknown_flag);
    return list.close();
}

char *fmt_str(kel_context_t *, uint64_t format, char *buffer, int size)
{
    if (format == KEL_BYTES) {
        kel_strlcpy(buffer, "bytes", text_size(size));
        return buffer;
    }
    word_list list(buffer, size);
    list.add_set(format_words, format);
    list.add_unknown(format, first_unknown_format);
    return list.close();
}

char *src_vec_str(kel_context_t *ctx, const kel_vec_t *vec, char *buffer, int size)
{
    char fmt[64];
    char data[120];
    char aux[80] = "";
    char zip[80] = "";
    snprintf(data, sizeof data, "data=0x%lx, elements=%ld, width=%d, offset=%d,\n      fmt=%s,\n",
             kel_log_ptr(vec->data), static_cast<long>(vec->elements), static_cast<int>(vec->elem_width), vec->offset,
             fmt_str(ctx, vec->format, fmt, sizeof fmt));
    if (vec->format & (KEL_VAR | KEL_RLE))
        snprintf(aux, sizeof aux, "    aux_data=0x%lx, aux_width=%d, aux_offset=%d,\n", kel_log_ptr(vec->aux_data),
                 vec->aux_width, vec->aux_offset);
    if (vec->format & KEL_ZIP)
        snprintf(zip, sizeof zip, "    codec=0x%lx, codewords=%ld,\n", kel_log_ptr(vec->codec),
                 static_cast<long>(vec->codewords));

    const int length = snprintf(buffer, text_size(size), "%s%s%s", data, aux, zip);
    const int last_comma = length - 2;
    if (last_comma >= 0 && last_comma < size)
        buffer[last_comma] = '\0';
    return buffer;
}

char *dst_vec_str(kel_context_t *ctx, const kel_vec_t *vec, char *buffer, int size)
{
    char fmt[64];
    snprintf(buffer, text_size(size), "{ data=0x%lx, elements=%ld, width=%d, offset=%d, fmt=%s }",
             kel_log_ptr(vec->data), static_cast<long>(vec->elements), static_cast<int>(vec->elem_width), vec->offset,
             fmt_str(ctx, vec->format, fmt, sizeof fmt));
    return buffer;
}

char *bv_args_str(kel_context_t *ctx, const kel_vec_t *vec, char *buffer, int size)
{
    return dst_vec_str(ctx, vec, buffer, size);
}

char *val_str(kel_context_t *, const kel_int_t *val, char *buffer, int size)
{
    char dwords[80];
    snprintf(dwords, sizeof dwords, "{0x%lx, 0x%lx}", val->dword[1], val->dword[2]);
    snprintf(buffer, text_size(size), "{ elem_width=%u, fmt=%s, dwords=%s }", val->elem_width,
             bit_byte_fmt_str(val->format & KEL_BITS), dwords);
    return buffer;
}

char *entry_args_str(kel_context_t *ctx, uint64_t flags, const kel_vec_t *src, const kel_vec_t *dst, char *buffer,
                     int size)
{
    char flags_text[kel_request_flags_text_size];
    char src_text[240];
    char dst_text[80];
    snprintf(buffer, text_size(size), "ctx=0x%lx, flags=%s,\n  src = { %s }\n  dst = { %s }", kel_log_ptr(ctx),
             flags_str(ctx, flags, flags_text, sizeof flags_text), src_vec_str(ctx, src, src_text, sizeof src_text),
             dst_vec_str(ctx, dst, dst_text, sizeof dst_text));
    return buffer;
}

// The blank before the line break in the next two is part of the format.
char *copy_args_str(kel_context_t *ctx, uint64_t flags, const void *src, const void *dst, uint64_t count, char *buffer,
                    int size)
{
    char flags_text[kel_request_flags_text_size];
    snprintf(buffer, text_size(size), "ctx=0x%lx, flags=%s, \n  src = 0x%lx, dst = 0x%lx, count = %ld",
             kel_log_ptr(ctx), flags_str(ctx, flags, flags_text, sizeof flags_text), kel_log_ptr(src), kel_log_ptr(dst),
             static_cast<long>(count));
    return buffer;
}

char *fill_args_str(kel_context_t *ctx, uint64_t flags, uint64_t val, const void *dst, uint64_t count,
                    uint32_t val_width, char *buffer, int size)
{
    char flags_text[kel_request_flags_text_size];
    snprintf(buffer, text_size(size), "ctx=0x%lx, flags=%s, \n  val = %lu, val_width=%u, dst = 0x%lx, count = %lu",
             kel_log_ptr(ctx), flags_str(ctx, flags, flags_text, sizeof flags_text), val, val_width, kel_log_ptr(dst),
             count);
    return buffer;
}

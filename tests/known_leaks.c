/* What the library keeps on purpose, for LeakSanitizer: the texts of unknown values, and its copy of a client's
 * allocator. Every other leak is a fault. */
const char *__lsan_default_suppressions(void);

const char *__lsan_default_suppressions(void)
{
    return "leak:badval\nleak:allocate_context\n";
}

/* What sanitizers are told. The library keeps the texts of unknown values, and its copy of a client's allocator, on
 * purpose; every other leak is a fault. An allocation that is too large fails as it does without a sanitizer. */
const char *__lsan_default_suppressions(void);
const char *__asan_default_options(void);

const char *__lsan_default_suppressions(void)
{
    return "leak:badval\nleak:allocate_context\n";
}

const char *__asan_default_options(void)
{
    return "allocator_may_return_null=1";
}

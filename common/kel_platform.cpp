// The assertion that is never compiled out.
#include "kel_platform.h"

#undef NDEBUG // for the declaration of the C library's report
#include <assert.h>

void kel_assert_fail(const char *condition, const char *source, unsigned line, const char *function)
{
    __assert_fail(condition, source, line, function);
}

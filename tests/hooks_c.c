/* A client's own failure hook takes the place of the one in the shared library. */
#include "kel.h"
#include <stdio.h>

void kel_debug(void);

static int calls;

void kel_debug(void)
{
    calls++;
}

int main(void)
{
    kel_context_t *ctx = NULL;
    if (kel_thread_init(1, 1, 0, NULL, &ctx) != KEL_SUCCESS)
        return 1;
    kel_nop(ctx, KEL_CACHE | KEL_COND); /* two tests fail */
    kel_thread_fini(ctx);
    if (calls != 2)
        fprintf(stderr, "%d calls of kel_debug\n", calls);
    return calls != 2;
}

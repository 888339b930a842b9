// The generation layer of thread records: generation 0, which is the library alone, and the place of the coprocessors'.
#include "kel_init.h"

kel_status_t kel0_thread_create(kel_context_t *, kel_thread_t *thread)
{
    if (!thread)
        return KEL_EINVAL;
    thread->ctxl_head = nullptr;
    return KEL_SUCCESS;
}

kel_status_t kel0_thread_destroy(kel_thread_t *, kel_context_t *)
{
    return KEL_SUCCESS;
}

kel_status_t kel1_thread_create(kel_context_t *, kel_thread_t *)
{
    return KEL_EINTERNAL;
}

kel_status_t kel1_thread_destroy(kel_thread_t *, kel_context_t *)
{
    return KEL_EINTERNAL;
}

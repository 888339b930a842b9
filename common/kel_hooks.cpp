// The failure hooks, in a unit of their own so that no compiler sees that they are empty where they are called.
#include "kel_log.h"

extern "C" __attribute__((weak, noinline)) void kel_debug(void)
{
    __asm__ volatile("");
}

extern "C" __attribute__((weak, noinline)) void emulate_error(void)
{
    __asm__ volatile("");
}

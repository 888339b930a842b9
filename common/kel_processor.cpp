// The one use of CPUID, which is off the data path.
#include "kel_processor.h"
#include <cpuid.h>

unsigned popcnt_supported(void)
{
    unsigned eax = 0;
    unsigned ebx = 0;
    unsigned ecx = 0;
    unsigned edx = 0;
    __get_cpuid(0x80000001, &eax, &ebx, &ecx, &edx);
    return ecx >> 23 & 1;
}

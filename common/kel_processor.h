// What depends on the processor: the instructions that functions may be compiled for, and whether they are there.
//
// A function that uses instructions beyond those of every processor is marked with the attribute of their set, and is
// called only if the test beside it holds. The tests read what the compiler's runtime filled in at load: CPUID traps
// under virtualisation, and takes microseconds.
#pragma once

// The widest registers, in bits, that there are vector kernels for; 0: portable code alone.
#if !defined(KEL_VECTOR)
#define KEL_VECTOR 512
#endif

#if KEL_VECTOR >= 256 && defined(__x86_64__)
#define KEL_HAVE_AVX2_UNITS 1
#endif
#if KEL_VECTOR >= 512 && defined(__x86_64__)
#define KEL_HAVE_AVX512_UNITS 1
#endif

#define KEL_POPCNT __attribute__((target("popcnt")))

inline bool kel_have_popcnt()
{
    return __builtin_cpu_supports("popcnt");
}

#define KEL_AVX2 __attribute__((target("avx2,bmi2,popcnt")))

inline bool kel_have_avx2()
{
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("popcnt");
}

// What servers have since they have permutes of bytes.
#define KEL_AVX512                                                                                                     \
    __attribute__((target("avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,avx512vbmi2,avx512bitalg,avx512vpopcntdq,"    \
                          "avx2,bmi2,popcnt")))

inline bool kel_have_avx512()
{
    return kel_have_avx2() && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl") &&
           __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vbmi2") &&
           __builtin_cpu_supports("avx512bitalg") && __builtin_cpu_supports("avx512vpopcntdq");
}

// What CPUID says of the population count: bit 23 of ECX of leaf 0x80000001. It is slow, and the bit is clear on many
// processors that have the instruction, so no request asks here.
unsigned popcnt_supported(void);

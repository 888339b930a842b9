// Static trace probes, as Linux tracers find them: a no-op at the site, and an ELF note that tells its address, the
// names of provider and probe, and where the arguments are. A tracer patches the no-op; no code looks whether one is
// there.
#pragma once

#if defined(__x86_64__) && defined(__ELF__)

// The note of type 3, owner "stapsdt": the site's address, the address of a base symbol (by which a tracer corrects for
// prelinking), a semaphore (none), then provider, probe and arguments as strings. An argument reads size@register.
#define KEL_SDT_PROBE4(provider, probe, a, b, c, d)                                                                    \
    __asm__ volatile("990: nop\n"                                                                                      \
                     ".pushsection .note.stapsdt, \"\", \"note\"\n"                                                    \
                     ".balign 4\n"                                                                                     \
                     ".4byte 992f - 991f, 994f - 993f, 3\n"                                                            \
                     "991: .asciz \"stapsdt\"\n"                                                                       \
                     "992: .balign 4\n"                                                                                \
                     "993: .8byte 990b\n"                                                                              \
                     ".8byte _.stapsdt.base\n"                                                                         \
                     ".8byte 0\n"                                                                                      \
                     ".asciz \"" provider "\"\n"                                                                       \
                     ".asciz \"" probe "\"\n"                                                                          \
                     ".asciz \"8@%0 8@%1 8@%2 8@%3\"\n"                                                                \
                     "994: .balign 4\n"                                                                                \
                     ".popsection\n"                                                                                   \
                     ".ifndef _.stapsdt.base\n"                                                                        \
                     ".pushsection .stapsdt.base, \"aG\", \"progbits\", .stapsdt.base, comdat\n"                       \
                     ".weak _.stapsdt.base\n"                                                                          \
                     ".hidden _.stapsdt.base\n"                                                                        \
                     "_.stapsdt.base: .space 1\n"                                                                      \
                     ".size _.stapsdt.base, 1\n"                                                                       \
                     ".popsection\n"                                                                                   \
                     ".endif\n"                                                                                        \
                     :                                                                                                 \
                     : "r"(a), "r"(b), "r"(c), "r"(d)                                                                  \
                     : "memory") // a tracer reads what the arguments point to

#else

#define KEL_SDT_PROBE4(provider, probe, a, b, c, d) ((void)(a), (void)(b), (void)(c), (void)(d))

#endif

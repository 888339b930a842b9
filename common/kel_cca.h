// The completion record.
#pragma once

#include "kel.h"

// What an emulation leaves behind of its request.
typedef struct {
    uint32_t output_sz;   // bytes written to the destination, padding included
    uint32_t n_processed; // input elements consumed
    uint64_t retval;      // the operation's count
} cca_t;

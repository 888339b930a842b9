// Log and debug options: from the environment when a context opens, later from the setters.
#pragma once

#include "kel_init.h"

// A word of an option list and its bits.
typedef struct {
    const char *name;
    uint64_t value;
} option_t;

// Finds a name in a table; 1 and its value, or 0.
int get_option(const char *name, const option_t *table, size_t n, uint64_t *value);
// The values of all known words of a list that is separated by commas; case counts, empty words are skipped.
uint64_t get_options(const char *text, const option_t *table, size_t n);
// The place in text of its first word that is not in the table, or null.
const char *bad_options(const char *text, const option_t *table, size_t n);

// Read the environment, in this order, while a context opens.
void kel_log_init(kel_context_t *ctx);
void kel_debug_init(kel_context_t *ctx);

// Sets the levels of the client's channel, with no target; the environment's channel stays.
void kel_log_reset(kel_context_t *ctx, uint32_t options);

// Feeds an input to the resolver as the answer to its queries.
#pragma once

#include "osaResolv.h"

#include <cstddef>
#include <cstdint>

/**
 * Looks a name up, with the input as the answer to the first query of its kind and to the first few
 * that follow from it; the others fail. The sanitizer guards what lies behind the input in the
 * resolver's buffer, to the byte.
 */
void feed_answer(queryType_e type, const uint8_t* data, size_t size);

// Visibility of the instrumentation library's symbols: everything is hidden but what carries this
// macro.
#pragma once

#define ZANDOR_INSTRUMENT_API __attribute__((visibility("default")))

// Functions that frequent events call: without a step in between, and a line of it in the cache.
#if __has_attribute(noplt)
#define ZANDOR_INSTRUMENT_DIRECT ZANDOR_INSTRUMENT_API __attribute__((noplt))
#else
#define ZANDOR_INSTRUMENT_DIRECT ZANDOR_INSTRUMENT_API
#endif

// Visibility of the instrumentation library's symbols: everything is hidden but what carries this
// macro.
#pragma once

#define ZANDOR_INSTRUMENT_API __attribute__((visibility("default")))

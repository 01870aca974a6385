// Visibility of the performance library's symbols: everything is hidden but what carries this
// macro.
#pragma once

#define ZANDOR_PERFORMANCE_API __attribute__((visibility("default")))

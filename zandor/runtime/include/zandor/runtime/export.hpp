// Visibility of the runtime library's symbols: everything is hidden but what carries this macro.
#pragma once

#define ZANDOR_RUNTIME_API __attribute__((visibility("default")))

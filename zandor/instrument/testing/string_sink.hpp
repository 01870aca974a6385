// A sink that keeps what it gets.
#pragma once

#include <string>

#include "zandor/instrument/exports.hpp"

namespace instrument::test_support {

struct StringSink : TextSink {
    std::string text;
    std::size_t longest = 0;  // of the pieces
    void write(std::string_view piece) override {
        text += piece;
        longest = std::max(longest, piece.size());
    }
};

}  // namespace instrument::test_support

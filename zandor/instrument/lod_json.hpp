// What a timeline is told, as JSON.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "call_tree.hpp"
#include "json_text.hpp"
#include "lod_pyramid.hpp"
#include "saturating.hpp"
#include "text_buffer.hpp"
#include "trace_names.hpp"

namespace instrument::detail {

/// Writes one value; commas where they belong are its own matter.
class LodJson {
  public:
    /// Times are told from `origin` on.
    explicit LodJson(std::int64_t origin) : origin_(origin), sink_(text_), out_(sink_) {}

    std::string taken() && {
        out_.flush();
        return std::move(text_);
    }

    void open(char bracket) {
        separate();
        out_.append(bracket);
        isFirst_ = true;
    }
    void close(char bracket) {
        out_.append(bracket);
        isFirst_ = false;
    }
    void key(std::string_view name) {
        separate();
        out_.append('"');
        out_.append(name);
        out_.append("\":");
        isFirst_ = true;
    }
    template <class Number>
    void number(Number number) {
        separate();
        out_.appendNumber(number);
    }
    template <class... Numbers>
    void numbers(Numbers... values) {
        (number(values), ...);
    }
    void time(std::int64_t nanoseconds) { number(saturatingSubtract(nanoseconds, origin_)); }
    void word(std::string_view json) {
        separate();
        out_.append(json);
    }
    void text(std::string_view text);
    void name(const Opaque* instrument);
    void value(const ContextValue& value) {
        separate();
        appendJsonValue(out_, value);
    }
    template <class Number>
    void member(std::string_view name, Number value) {
        key(name);
        number(value);
    }

  private:
    class Into : public TextSink {
      public:
        explicit Into(std::string& text) : text_(text) {}
        void write(std::string_view text) override { text_.append(text); }

      private:
        std::string& text_;
    };

    void separate() {
        if (!std::exchange(isFirst_, false))
            out_.append(',');
    }

    const std::int64_t origin_;
    std::string text_;
    Into sink_;
    TextBuffer out_;
    bool isFirst_ = true;
};

/// The members "rows" and "names" of a window.
void appendRows(LodJson& out, const std::vector<LodRowSlices>& rows, const TraceNames& names);
/// The members "threads", "moreThreads", "tree" and "names" of a flame graph.
void appendTree(LodJson& out, const TrimmedTree& tree, std::span<const RecordedSource> sources);

}  // namespace instrument::detail

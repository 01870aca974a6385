// The texts and instruments of a loaded trace: those of all its processes, each distinct one once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "interned_text.hpp"
#include "recorder_context.hpp"
#include "zandor/instrument/control_element.hpp"

namespace instrument::detail {

class TraceNames : public RecordNames {
  public:
    const InternedText& internText(std::string_view text) {
        if (const auto known = numbers_.find(text); known != numbers_.end())
            return *texts_[known->second];
        const auto number = static_cast<std::uint32_t>(texts_.size());
        InternedText& made = makeText(number, text);
        texts_.push_back(&made);
        numbers_.emplace(made.view(), number);
        return made;
    }
    std::uint32_t instrumentNumber(std::string_view name) {
        const std::uint32_t text = internText(name).id;
        const auto next = static_cast<std::uint32_t>(instruments_.size());
        const auto [known, isNew] = instrumentOfText_.try_emplace(text, next);
        if (isNew) {
            Opaque& made = instruments_.emplace_back();
            made.name = texts_[text]->text();
            made.id = next;
            made.nameLength = static_cast<std::uint32_t>(name.size());
        }
        return known->second;
    }

    /// What was said first stays.
    void setPlace(std::uint32_t instrument, const InternedText& place) noexcept {
        const char* none = nullptr;
        instruments_[instrument].place.compare_exchange_strong(none, place.text());
    }

    std::string_view text(std::uint32_t number) const noexcept override {
        return texts_[number]->view();
    }
    const Opaque* instrument(std::uint32_t number) const noexcept override {
        return &instruments_[number];
    }

  private:
    /// Characters behind the head, as those of the process's own texts.
    InternedText& makeText(std::uint32_t number, std::string_view text) {
        const std::size_t words = (sizeof(InternedText) + text.size()) / sizeof(std::uint64_t) + 1;
        auto& memory = memory_.emplace_back(std::make_unique<std::uint64_t[]>(words));
        auto* made =
            std::construct_at(reinterpret_cast<InternedText*>(memory.get()),
                              InternedText{number, static_cast<std::uint32_t>(text.size())});
        std::memcpy(reinterpret_cast<char*>(made + 1), text.data(), text.size());
        return *made;
    }

    std::deque<std::unique_ptr<std::uint64_t[]>> memory_;
    std::vector<const InternedText*> texts_;
    std::unordered_map<std::string_view, std::uint32_t> numbers_;
    std::deque<Opaque> instruments_;
    std::unordered_map<std::uint32_t, std::uint32_t> instrumentOfText_;
};

}  // namespace instrument::detail

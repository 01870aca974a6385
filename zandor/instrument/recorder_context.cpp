#include "recorder_context.hpp"

#include <algorithm>
#include <bit>
#include <string>

#include "control_registry.hpp"
#include "zandor/instrument/event_context.hpp"

namespace instrument::detail {
namespace {

bool isText(const ContextValue& value) noexcept {
    return value.kind() == ContextValue::Kind::text;
}

Word textEntry(const InternedText& name, const InternedText& value) noexcept {
    return Word{name.id} << 32 | value.id;
}

ContextValue numberOf(ContextValue::Kind kind, Word bits) noexcept {
    switch (kind) {
        case ContextValue::Kind::signedInteger:
            return static_cast<std::int64_t>(bits);
        case ContextValue::Kind::real:
            return std::bit_cast<double>(bits);
        case ContextValue::Kind::logical:
            return bits != 0;
        default:
            return bits;
    }
}

[[gnu::always_inline]] inline bool encodeText(std::string_view key, std::string_view value,
                                              TextCache& texts, Word*& out) noexcept {
    const InternedText* const name = texts.intern(key);
    const InternedText* const text = texts.intern(value);
    if (!name || !text)
        return false;
    *out++ = textEntry(*name, *text);
    return true;
}

[[gnu::always_inline]] inline bool encodeNumber(const ContextArg& arg, TextCache& texts,
                                                Word*& out) noexcept {
    const InternedText* const name = texts.intern(arg.name);
    if (!name)
        return false;
    *out++ = numberHead(*name, arg.value);
    *out++ = bitsOf(arg.value);
    return true;
}

std::uint64_t hashOf(std::span<const Word> words) noexcept {
    std::uint64_t hash = words.size();
    for (const Word word : words) {
        hash = (hash ^ word) * 0x9e37'79b9'7f4a'7c15;
        hash ^= hash >> 32;
    }
    return hash;
}

class NamesOfThisProcess : public RecordNames {
  public:
    std::string_view text(std::uint32_t number) const noexcept override {
        return InternedText::fromId(number).view();
    }
    const Opaque* instrument(std::uint32_t number) const noexcept override {
        return instrumentFromId(number);
    }
};

}  // namespace

RecordNames::~RecordNames() = default;

const RecordNames& RecordNames::ofThisProcess() noexcept {
    static const NamesOfThisProcess names;
    return names;
}

std::size_t contextWords(const NewContext& context) noexcept {
    if (context.args.empty())
        return context.set ? context.set->size() : 0;
    std::size_t words = context.args.size();
    for (const ContextArg& arg : context.args)
        words += !isText(arg.value);
    return words;
}

bool encodeContext(const NewContext& context, TextCache& texts, Word* out) noexcept {
    if (context.argsAreInterned) {
        encodeInterned(context.args, out);
        return true;
    }
    if (context.args.empty()) {
        for (const ContextEntry& entry : *context.set)
            if (!encodeText(entry.name, entry.value, texts, out))
                return false;
        return true;
    }
    return encodeGiven(context.args, texts, out) != nullptr;
}

Word* encodeGiven(ContextArgs args, TextCache& texts, Word* out) noexcept {
    for (const ContextArg& arg : args)
        if (!(isText(arg.value) ? encodeText(arg.name, arg.value.text(), texts, out)
                                : encodeNumber(arg, texts, out)))
            return nullptr;
    return out;
}

Word* encodeInterned(ContextArgs args, Word* out) noexcept {
    for (const ContextArg& arg : args) {
        const InternedText& name = InternedText::of(arg.name);
        if (isText(arg.value)) {
            *out++ = textEntry(name, InternedText::of(arg.value.text()));
        } else {
            *out++ = numberHead(name, arg.value);
            *out++ = bitsOf(arg.value);
        }
    }
    return out;
}

ContextArg* decodeContext(std::span<const Word> words, const RecordNames& names,
                          ContextArg* out) noexcept {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string_view name = names.text(static_cast<std::uint32_t>(words[i] >> 32));
        const auto value = static_cast<std::uint32_t>(words[i]);
        if (value < numberMark)
            *out++ = {name, names.text(value)};
        else
            *out++ = {name,
                      numberOf(static_cast<ContextValue::Kind>(value - numberMark), words[++i])};
    }
    return out;
}

ContextSet makeContextSet(ContextArgs args) {
    ContextSet set;
    set.reserve(args.size());
    for (const ContextArg& arg : args)
        set.insert(set.end(), ContextEntry{arg.name, toText(arg.value)});
    return set;
}

ContextTable::ContextTable(const RecordNames& names) : names_(names), contexts_(1), slots_(64) {}

std::uint32_t ContextTable::placeOfWords(std::span<const Word> words) {
    const std::uint64_t hash = hashOf(words);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = hash;; ++slot) {
        const std::uint32_t place = slots_[slot & mask];
        if (place == 0)
            return add(words, hash);
        const Context& known = contexts_[place];
        if (known.hash == hash && std::ranges::equal(known.words, words))
            return place;
    }
}

std::uint32_t ContextTable::add(std::span<const Word> words, std::uint64_t hash) {
    if (contexts_.size() * 2 > slots_.size())
        grow();
    const auto place = static_cast<std::uint32_t>(contexts_.size());
    contexts_.push_back({words, hash, decode(words)});
    std::size_t slot = hash;
    while (slots_[slot % slots_.size()] != 0)
        ++slot;
    slots_[slot % slots_.size()] = place;
    return place;
}

void ContextTable::grow() {
    std::vector<std::uint32_t> larger(slots_.size() * 2);
    for (std::uint32_t place = 1; place < contexts_.size(); ++place) {
        std::size_t slot = contexts_[place].hash;
        while (larger[slot % larger.size()] != 0)
            ++slot;
        larger[slot % larger.size()] = place;
    }
    slots_ = std::move(larger);
}

ContextArgs ContextTable::decode(std::span<const Word> words) {
    const std::span<ContextArg> room = args_.room(words.size());
    auto end = room.begin() + (decodeContext(words, names_, room.data()) - room.data());
    const auto less = [](const ContextArg& a, const ContextArg& b) { return a.name < b.name; };
    const auto equal = [](const ContextArg& a, const ContextArg& b) { return a.name == b.name; };
    std::stable_sort(room.begin(), end, less);
    end = std::unique(room.begin(), end, equal);
    return args_.keep(static_cast<std::size_t>(end - room.begin()));
}

}  // namespace instrument::detail

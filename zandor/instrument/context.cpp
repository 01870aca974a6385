#include "zandor/instrument/context.hpp"

#include <charconv>

#include "context_text.hpp"
#include "zandor/instrument/event_context.hpp"

namespace instrument {
namespace detail {

template <class Number>
std::string_view ValueText::print(Number number) noexcept {
    const auto printed = std::to_chars(digits_, digits_ + sizeof digits_, number);
    return {digits_, static_cast<std::size_t>(printed.ptr - digits_)};
}

ValueText::ValueText(const ContextValue& value) noexcept {
    switch (value.kind()) {
        case ContextValue::Kind::text:
            view_ = value.text();
            break;
        case ContextValue::Kind::signedInteger:
            view_ = print(value.signedInteger());
            break;
        case ContextValue::Kind::unsignedInteger:
            view_ = print(value.unsignedInteger());
            break;
        case ContextValue::Kind::real:
            view_ = print(value.real());
            break;
        case ContextValue::Kind::logical:
            view_ = value.logical() ? "true" : "false";
            break;
    }
}

}  // namespace detail

std::string toText(const ContextValue& value) {
    return std::string(detail::ValueText(value).view());
}

std::string combineEventNameWithContext(std::string name, const ContextSet& context) {
    const char* separator = " [";
    for (const ContextEntry& entry : context) {
        name.append(separator).append(entry.name).append("=").append(entry.value);
        separator = ", ";
    }
    if (!context.empty())
        name += ']';
    return name;
}

const char* getName(EventPointType type) noexcept {
    switch (type) {
        case EventPointType::start:
            return "start";
        case EventPointType::stop:
            return "stop";
        case EventPointType::instant:
            return "instant";
    }
    return "";
}

}  // namespace instrument

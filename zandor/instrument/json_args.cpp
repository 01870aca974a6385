#include "zandor/instrument/json_args.hpp"

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <vector>

#include "zandor/instrument/json_text.hpp"
#include "zandor/runtime/text.hpp"

namespace instrument::detail {

namespace {

constexpr std::array<std::string_view, 4> ownNames{"unfinished", "src", "duration_ns", "start_ns"};

/// Whether no other name of the context can become this one, nor it one of ours.
bool isOrdinary(const ContextArg& entry) {
    const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    return std::all_of(entry.name.begin(), entry.name.end(), isAscii) &&
           std::find(ownNames.begin(), ownNames.end(), entry.name) == ownNames.end();
}

std::vector<std::string> distinctNames(ContextArgs context) {
    std::set<std::string, std::less<>> taken(ownNames.begin(), ownNames.end());
    std::vector<std::string> names;
    names.reserve(context.size());
    for (const ContextArg& entry : context) {
        const std::string name = fl::i18n::sanitize_utf8(entry.name);
        std::string distinct = name;
        for (int number = 2; !taken.insert(distinct).second; ++number)
            distinct = name + "_" + std::to_string(number);
        names.push_back(std::move(distinct));
    }
    return names;
}

}  // namespace

void JsonArgs::beginMember() {
    out_.append(isOpen_ ? "," : ",\"args\":{");
    isOpen_ = true;
}

void JsonArgs::add(std::string_view name, const ContextValue& value) {
    beginMember();
    out_.append('"');
    appendJsonText(out_, name);
    out_.append("\":");
    appendJsonValue(out_, value);
}

void JsonArgs::addContext(ContextArgs context) {
    if (std::all_of(context.begin(), context.end(), isOrdinary)) {
        for (const ContextArg& entry : context)
            add(entry.name, entry.value);
        return;
    }
    const std::vector<std::string> names = distinctNames(context);
    for (std::size_t i = 0; i < context.size(); ++i)
        add(names[i], context[i].value);
}

void JsonArgs::close() {
    if (isOpen_)
        out_.append('}');
}

}  // namespace instrument::detail

#include "zandor/performance/profile_table.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "zandor/performance/terminal_text.hpp"

namespace instrument::detail {

namespace {

constexpr std::size_t nameColumns = 34;

__attribute__((format(printf, 1, 2))) std::string formatted(const char* format, ...) {
    char text[128];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

/// Four digits and a unit.
std::string durationText(std::int64_t nanoseconds) {
    constexpr std::pair<double, const char*> units[] = {{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}};
    const auto value = static_cast<double>(nanoseconds);
    for (const auto& [size, unit] : units) {
        const double scaled = value / size;
        const double magnitude = scaled < 0 ? -scaled : scaled;
        if (magnitude < 0.9995)
            continue;
        const int digits = magnitude < 9.9995 ? 3 : magnitude < 99.995 ? 2 : magnitude < 999.95;
        return formatted("%.*f %s", digits, scaled, unit);
    }
    return formatted("%lld ns", static_cast<long long>(nanoseconds));
}

bool continuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

std::size_t characters(std::string_view utf8) {
    return utf8.size() - static_cast<std::size_t>(std::ranges::count_if(utf8, continuesCharacter));
}

/// As many columns as a name has, with dots where it goes on.
std::string nameCell(std::string_view given) {
    std::string name = given.empty() ? "(unnamed)" : withoutControls(given);
    if (characters(name) > nameColumns) {
        // Whole ones: a character counts no more when its first byte is gone.
        while (characters(name) > nameColumns - 3)
            name.pop_back();
        name.append("...");
    }
    return name.append(nameColumns - std::min(nameColumns, characters(name)), ' ');
}

std::string line(const CallSummary& row, std::int64_t all) {
    const double share =
        all > 0 ? 100.0 * static_cast<double>(row.self) / static_cast<double>(all) : 0;
    return nameCell(row.name) +
           formatted(" %13llu %10s %10s %8.1f\n", static_cast<unsigned long long>(row.calls),
                     durationText(row.total).c_str(), durationText(row.self).c_str(), share);
}

}  // namespace

std::string profileTable(std::vector<CallSummary> profile) {
    std::ranges::stable_sort(profile, std::ranges::greater(), &CallSummary::total);
    std::int64_t all = 0;
    for (const CallSummary& row : profile)
        all += row.self;
    std::string table = nameCell("event") + "         calls      total       self   self %\n";
    for (const CallSummary& row : profile)
        table += line(row, all);
    return table;
}

}  // namespace instrument::detail

#include "account_text.hpp"

#include <charconv>
#include <system_error>

namespace instrument::detail {
namespace {

/// Takes a word off the front.
std::string_view takeWord(std::string_view& line) {
    const std::string_view word = line.substr(0, line.find(' '));
    line.remove_prefix(word.size() < line.size() ? word.size() + 1 : word.size());
    return word;
}

bool takeNumber(std::string_view word, std::uint64_t& number) {
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc() && end == word.data() + word.size();
}

bool takeDrop(std::string_view word, ExternalAccount& account) {
    const std::size_t equals = word.find('=');
    std::uint64_t count = 0;
    if (equals == std::string_view::npos || !takeNumber(word.substr(equals + 1), count))
        return false;
    account.drops[std::string(word.substr(0, equals))] = count;
    return true;
}

}  // namespace

std::string textOf(const ExternalAccount& account) {
    std::string text = std::to_string(account.processId) + " " + std::to_string(account.published) +
                       " " + std::to_string(account.delivered);
    for (const auto& [cause, count] : account.drops)
        text.append(" ").append(cause).append("=").append(std::to_string(count));
    return text.append("\n").append(account.name);
}

std::optional<ExternalAccount> accountFrom(std::uint64_t client, std::string_view untrusted) {
    const std::size_t end = untrusted.find('\n');
    if (end == std::string_view::npos)
        return {};
    ExternalAccount account;
    account.client = client;
    account.name = untrusted.substr(end + 1);
    std::string_view line = untrusted.substr(0, end);
    if (!takeNumber(takeWord(line), account.processId) ||
        !takeNumber(takeWord(line), account.published) ||
        !takeNumber(takeWord(line), account.delivered))
        return {};
    while (!line.empty())
        if (!takeDrop(takeWord(line), account))
            return {};
    return account;
}

}  // namespace instrument::detail

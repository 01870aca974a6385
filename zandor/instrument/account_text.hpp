// Accounts of external clients as trace files have them: "PROCESS PUBLISHED DELIVERED CAUSE=COUNT
// ..", a line end, and the client's name.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "zandor/instrument/external_accounts.hpp"

namespace instrument::detail {

ZANDOR_INSTRUMENT_API std::string textOf(const ExternalAccount& account);
/// Nothing where the text is none.
ZANDOR_INSTRUMENT_API std::optional<ExternalAccount> accountFrom(std::uint64_t client,
                                                                 std::string_view untrusted);

}  // namespace instrument::detail

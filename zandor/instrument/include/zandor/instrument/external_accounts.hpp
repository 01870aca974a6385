// What became of the events of other processes, for the metadata of exports.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zandor/instrument/export.hpp"

namespace instrument {

/// Of one client, since it came. Published is what it had to tell, each start, stop and instant
/// one; it is delivered plus all drops.
struct ExternalAccount {
    std::uint64_t client = 0;  ///< tells it from all others of this process, from 1
    std::string name;
    std::uint64_t processId = 0;
    std::uint64_t published = 0;
    std::uint64_t delivered = 0;
    std::map<std::string, std::uint64_t> drops;  ///< by cause
};

/// Puts the account in the place of an earlier one of the same client. Of more than a thousand the
/// oldest of clients that are gone become one, whose client number is 0.
ZANDOR_INSTRUMENT_API void setExternalAccount(ExternalAccount account);
/// The same for a client that is gone: recordings that lie in files are told of it.
ZANDOR_INSTRUMENT_API void endExternalAccount(const ExternalAccount& account);
/// All of this process's, by client.
ZANDOR_INSTRUMENT_API std::vector<ExternalAccount> externalAccounts();

}  // namespace instrument

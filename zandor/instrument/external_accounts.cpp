#include "zandor/instrument/external_accounts.hpp"

#include <algorithm>
#include <memory>
#include <utility>

#include "account_text.hpp"
#include "process_state.hpp"
#include "run_file.hpp"

namespace instrument {
namespace detail {

namespace {

struct KnownAccount {
    ExternalAccount figures;
    bool hasEnded = false;
};
using Accounts = std::map<std::uint64_t, KnownAccount>;

constexpr std::size_t mostAccounts = 1024;

constinit Accounts* known = nullptr;

/// With the lock held. They stay, since accounts are given while static objects are destroyed; a
/// child leaves its parent's as they are, which may be half changed.
Accounts& accountsOfProcess() {
    if (!std::exchange(processState().hasExternalAccounts, true))
        known = std::make_unique<Accounts>().release();
    return *known;
}

void add(ExternalAccount& sum, const ExternalAccount& account) {
    sum.published += account.published;
    sum.delivered += account.delivered;
    for (const auto& [cause, count] : account.drops)
        sum.drops[cause] += count;
}

/// Of those that have ended, for who still lives will tell all of its figures again. False where
/// there is none.
bool mergeOldest(Accounts& accounts) {
    const auto oldest = std::find_if(accounts.upper_bound(0), accounts.end(),
                                     [](const auto& entry) { return entry.second.hasEnded; });
    if (oldest == accounts.end())
        return false;
    ExternalAccount& sum = accounts[0].figures;
    sum.name = "earlier clients";
    add(sum, oldest->second.figures);
    accounts.erase(oldest);
    return true;
}

void keep(ExternalAccount account, bool hasEnded) {
    const Locked locked(processState().externalAccounts);
    Accounts& accounts = accountsOfProcess();
    const std::uint64_t client = account.client;
    accounts[client] = {std::move(account), hasEnded};
    while (hasEnded && accounts.size() > mostAccounts && mergeOldest(accounts)) {
    }
}

}  // namespace
}  // namespace detail

using namespace detail;

void setExternalAccount(ExternalAccount account) {
    keep(std::move(account), false);
}

void endExternalAccount(const ExternalAccount& account) {
    keep(account, true);
    journalAccount(account.client, textOf(account));
}

std::vector<ExternalAccount> externalAccounts() {
    const Locked locked(processState().externalAccounts);
    std::vector<ExternalAccount> all;
    for (const auto& [client, account] : accountsOfProcess())
        all.push_back(account.figures);
    return all;
}

}  // namespace instrument

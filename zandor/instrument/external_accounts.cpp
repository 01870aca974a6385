#include "zandor/instrument/external_accounts.hpp"

#include <memory>
#include <utility>

#include "account_text.hpp"
#include "process_state.hpp"
#include "run_file.hpp"

namespace instrument {
namespace detail {

namespace {

using Accounts = std::map<std::uint64_t, ExternalAccount>;

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

void mergeOldest(Accounts& accounts) {
    ExternalAccount& sum = accounts[0];
    sum.name = "earlier clients";
    const auto oldest = accounts.upper_bound(0);
    add(sum, oldest->second);
    accounts.erase(oldest);
}

}  // namespace
}  // namespace detail

using namespace detail;

void setExternalAccount(ExternalAccount account) {
    const Locked locked(processState().externalAccounts);
    Accounts& accounts = accountsOfProcess();
    accounts[account.client] = std::move(account);
    if (accounts.size() > mostAccounts)
        mergeOldest(accounts);
}

void endExternalAccount(const ExternalAccount& account) {
    setExternalAccount(account);
    journalAccount(account.client, textOf(account));
}

std::vector<ExternalAccount> externalAccounts() {
    const Locked locked(processState().externalAccounts);
    std::vector<ExternalAccount> all;
    for (const auto& [client, account] : accountsOfProcess())
        all.push_back(account);
    return all;
}

}  // namespace instrument

// Accounts stay for as long as the process does: tests of many are a program of their own.
#include "zandor/instrument/external_accounts.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>

namespace instrument {
namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::SizeIs;

/// The program's other tests use others.
constexpr std::uint64_t firstClient = 1'000'000;

ExternalAccount accountOf(std::uint64_t client, std::uint64_t published) {
    return {client, "client", 7, published, published - 1, {{"full", 1}}};
}

ExternalAccount known(std::uint64_t client) {
    const auto all = externalAccounts();
    const auto found = std::ranges::find(all, client, &ExternalAccount::client);
    return found == all.end() ? ExternalAccount{} : *found;
}

TEST(ExternalAccounts, OfManyClientsThoseThatAreGoneBecomeOneAndTheLivingStay) {
    const auto published = [] {
        const auto all = externalAccounts();
        return std::accumulate(all.begin(), all.end(), std::uint64_t{0},
                               [](std::uint64_t sum, const ExternalAccount& account) {
                                   return sum + account.published;
                               });
    };
    const std::uint64_t before = published();
    setExternalAccount(accountOf(firstClient, 10));
    constexpr std::uint64_t gone = 3000;
    for (std::uint64_t i = 1; i <= gone; ++i) {
        setExternalAccount(accountOf(firstClient + i, 1));
        endExternalAccount(accountOf(firstClient + i, 5));
    }
    setExternalAccount(accountOf(firstClient, 20));

    EXPECT_EQ(known(firstClient).published, 20u);
    EXPECT_THAT(known(firstClient).drops, ElementsAre(Pair("full", 1)));
    EXPECT_EQ(known(firstClient + gone).published, 5u);
    EXPECT_EQ(known(firstClient + 1).published, 0u);
    EXPECT_EQ(known(0).name, "earlier clients");
    EXPECT_EQ(published(), before + 20 + 5 * gone);
    EXPECT_THAT(externalAccounts(), SizeIs(1024));
    endExternalAccount(accountOf(firstClient, 20));
}

TEST(ExternalAccounts, OfClientsThatLiveAreAllKept) {
    constexpr int living = 1500;
    constexpr std::uint64_t first = 2 * firstClient;
    for (int i = 0; i < living; ++i)
        setExternalAccount(accountOf(first + static_cast<std::uint64_t>(i), 5));
    EXPECT_EQ(std::ranges::count_if(externalAccounts(),
                                    [](const ExternalAccount& account) {
                                        return account.client >= first && account.published == 5;
                                    }),
              living);
    for (int i = 0; i < living; ++i)
        endExternalAccount(accountOf(first + static_cast<std::uint64_t>(i), 5));
    EXPECT_THAT(externalAccounts(), SizeIs(1024));
}

}  // namespace
}  // namespace instrument

#include "zandor/instrument/account_text.hpp"

#include <gtest/gtest.h>

namespace instrument::detail {
namespace {

TEST(AccountText, IsReadAsItWasWritten) {
    const ExternalAccount account{3, "a name\nof two lines",     42, 10,
                                  7, {{"full", 2}, {"names", 1}}};
    const auto read = accountFrom(3, textOf(account));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->client, 3u);
    EXPECT_EQ(read->name, account.name);
    EXPECT_EQ(read->processId, 42u);
    EXPECT_EQ(read->published, 10u);
    EXPECT_EQ(read->delivered, 7u);
    EXPECT_EQ(read->drops, account.drops);
}

TEST(AccountText, IsNotTakenFromOtherTexts) {
    for (const char* text : {"", "1 2 3", "1 2\nname", "1 2 x\nname", "1 2 3 full\nname",
                             "1 2 3 full=\nname", "1 2 3 full=-1\nname"})
        EXPECT_FALSE(accountFrom(1, text)) << text;
}

}  // namespace
}  // namespace instrument::detail

#pragma once

#include "directory_test.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <set>
#include <string>

namespace tavo::test {

/// What a directory holds.
struct Population
{
    std::size_t users;
    std::size_t groups;
};

/// Every record has come, none twice, and one call was the last.
template <class Record>
void expectAll(Deliveries<Record>& deliveries, std::size_t count)
{
    EXPECT_EQ(deliveries.waitForEnd(), ldap::Result::ok);
    EXPECT_EQ(deliveries.finals(), 1);
    std::set<QString> names;
    for (const Record& record : deliveries.records()) {
        names.insert(record.dn);
    }
    EXPECT_EQ(names.size(), count);
    EXPECT_EQ(deliveries.records().size(), count);
}

/// Fetches users and groups by so many fetches each, all started at once; over again as often as
/// $TAVO_TEST_REPEATS says.
template <std::size_t Pairs>
void fetchAtOnce(ldap::Manager& manager, const ldap::SearchFilter& everything, const Population& population)
{
    const int repeats = numberFromEnvironment("TAVO_TEST_REPEATS", 2);
    ::testing::Test::RecordProperty("repeats", repeats);
    for (int i = 0; i < repeats && !::testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE("repetition " + std::to_string(i + 1));
        std::array<Deliveries<ldap::User>, Pairs> users;
        std::array<Deliveries<ldap::Group>, Pairs> groups;
        for (std::size_t pair = 0; pair < Pairs; ++pair) {
            manager.fetchUsersAsync(users[pair].handler(), everything);
            manager.fetchGroupsAsync(groups[pair].handler(), everything);
        }
        for (std::size_t pair = 0; pair < Pairs; ++pair) {
            expectAll(users[pair], population.users);
            expectAll(groups[pair], population.groups);
        }
    }
}

} // namespace tavo::test

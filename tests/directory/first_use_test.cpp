// The first moments of a process's use of the library; a program of its own, so that they are the first.
#include "directory_test.h"
#include "support/test_ca.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <latch>

namespace tavo::ldap {
namespace {

using test::qt;
using test::Slapd;
using test::urlOf;
using ::testing::Each;

TEST(FirstUseTest, MayBeMadeByThirtyTwoThreadsAtOncePlainAndWithTls)
{
    test::TestCa ca;
    const auto server = ca.issue();
    const Slapd slapd({.tls = test::SlapdTls{ca.certificate(), server.certificate, server.key}});
    setenv("LDAPTLS_CACERT", ca.certificate().c_str(), 1);

    constexpr int kThreads = 32;
    std::latch start(kThreads);
    std::vector<QString> identities(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const auto url = urlOf(i % 4 == 0 ? slapd.ldapsUrl() : slapd.url());
            const bool startTls = i % 4 == 1;
            const bool ignoresCertificate = i % 8 < 4;
            start.arrive_and_wait();
            try {
                Session session(url, startTls, ignoresCertificate);
                session.bind(qt(slapd.rootDn()), qt(slapd.rootPassword()));
                identities[static_cast<std::size_t>(i)] = session.whoAmI();
            } catch (const BaseError& error) {
                identities[static_cast<std::size_t>(i)] = error.message();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_THAT(identities, Each(QStringLiteral("dn:") + qt(slapd.rootDn())));
}

} // namespace
} // namespace tavo::ldap

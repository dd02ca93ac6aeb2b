// The cost of the small things that are done for each entry, each filter, each line of the log.
#include <ldap/dn.h>
#include <ldap/search_params.h>
#include <ldap/user.h>
#include <tavo_utils/log.h>
#include <tavo_utils/move_only_func.h>
#include <tavo_utils/url.h>

#include <benchmark/benchmark.h>

namespace {

using namespace tavo::ldap;

const QString kDn = QStringLiteral("uid=user.0000001,ou=people,dc=example,dc=test");

SearchEntry userEntry()
{
    const auto attribute = [](const QString& name, const QString& value) { return Attribute{name, {value}}; };
    return {kDn, {attribute(QStringLiteral("displayName"), QStringLiteral("Jürgen Müller")),
                     {QStringLiteral("gecos"), {}},
                     attribute(QStringLiteral("mail"), QStringLiteral("User.0000001@mail.example.test")),
                     attribute(QStringLiteral("uid"), QStringLiteral("user.0000001"))}};
}

void userFromSearchEntry(benchmark::State& state)
{
    const SearchEntry entry = userEntry();
    const QByteArray login("uid");
    for (auto _ : state) {
        benchmark::DoNotOptimize(User::fromSearchEntry(entry, login));
    }
}
BENCHMARK(userFromSearchEntry);

void userToJson(benchmark::State& state)
{
    const User user = User::fromSearchEntry(userEntry(), "uid");
    for (auto _ : state) {
        benchmark::DoNotOptimize(user.toString());
    }
}
BENCHMARK(userToJson);

void groupToJson(benchmark::State& state)
{
    const Group group{
        kDn, QStringLiteral("Group"), std::vector<QString>(static_cast<std::size_t>(state.range(0)), kDn)};
    for (auto _ : state) {
        benchmark::DoNotOptimize(group.toString());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(groupToJson)->Arg(50)->Arg(10000);

void firstItemOfDn(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(dnFirstItem(kDn));
    }
}
BENCHMARK(firstItemOfDn);

void combinedFilter(benchmark::State& state)
{
    const Filter caller(QStringLiteral("department"), QStringLiteral("42"));
    const Filter configured(QStringLiteral("(objectClass=person)"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(Filter(caller) & configured);
    }
}
BENCHMARK(combinedFilter);

void parsedUrl(benchmark::State& state)
{
    const QString text = QStringLiteral("ldaps://ldap.example.test:636");
    for (auto _ : state) {
        benchmark::DoNotOptimize(tavo::utils::Url(text));
    }
}
BENCHMARK(parsedUrl);

void logLineThatIsNotWanted(benchmark::State& state)
{
    struct Logger
    {
    } logger;
    for (auto _ : state) {
        TAVO_LOG_VERBOSE(tavo::log::tag(logger), u"Found %1 users", state.iterations());
    }
}
BENCHMARK(logLineThatIsNotWanted);

void calledHandler(benchmark::State& state)
{
    int calls = 0;
    tavo::utils::MoveOnlyFunc<void()> handler([&calls] { ++calls; });
    for (auto _ : state) {
        handler();
    }
    benchmark::DoNotOptimize(calls);
}
BENCHMARK(calledHandler);

} // namespace

BENCHMARK_MAIN();

// The filter of a caller and the one of the settings, and what the server is asked for.

#include "filter_grammar.h"
#include "fuzzed_server.h"
#include "invariant.h"
#include "process_setup.h"
#include <ldap/manager.h>

#include <future>
#include <memory>
#include <optional>

namespace tavo::fuzz {

namespace {

const QString kUrl = QStringLiteral("ldap://directory.test");

bool isWellFormed(const QString& text)
{
    const std::string utf8 = text.toStdString();
    return isFilter(utf8) || isFilterItem(utf8);
}

/// The filter as the client library encodes it, as text; nothing when it refuses it.
std::optional<Bytes> encoded(const QString& filter)
{
    FuzzedServer server({});
    LDAP* handle = nullptr;
    require(FuzzedServer::connect(&handle) == LDAP_SUCCESS, "a handle can be made");
    const std::unique_ptr<LDAP, int (*)(LDAP*)> owner(handle, &ldap_destroy);
    int messageId = 0;
    const int rc = ldap_search_ext(handle, "", LDAP_SCOPE_BASE, filter.toUtf8().constData(), nullptr, 0,
        nullptr, nullptr, nullptr, 0, &messageId);
    if (!server.understands()) {
        return std::nullopt;
    }
    if (rc != LDAP_SUCCESS) {
        require(rc == LDAP_FILTER_ERROR, "a filter is refused for what it is");
        return std::nullopt;
    }
    return server.requests().at(0).as<test::SearchRequest>().filter;
}

/// The filter that a manager sends for its groups; nothing when it sends none.
std::optional<Bytes> fetched(const QString& callers, const QString& objectClass)
{
    FuzzedServer server({}, managerGreeting(false));
    ldap::Settings settings;
    settings.uri = utils::Url(kUrl);
    settings.groupObjectClass = objectClass;
    std::promise<ldap::Result> promise;
    {
        const auto manager = ldap::createManagerOrThrow(settings);
        manager->fetchGroupsAsync(
            [&](ldap::Result result, std::vector<ldap::Group>) { promise.set_value(result); },
            {QStringLiteral("dc=x"), callers});
        const ldap::Result result = promise.get_future().get();
        require(!server.understands() || (result == ldap::Result::noSuchObject) == server.requests().empty(),
            "a filter is sent or refused");
    }
    server.waitForClose();
    if (server.requests().empty()) {
        return std::nullopt;
    }
    return server.requests()[0].as<test::SearchRequest>().filter;
}

void checkPart(const QString& part)
{
    const auto sent = encoded(part);
    require(!isWellFormed(part) || sent, "the client library takes what the grammar does");
}

void check(const QString& callers, const QString& objectClass)
{
    const ldap::Filter own(QStringLiteral("objectClass"), objectClass);
    checkPart(callers);
    checkPart(own.text);

    const auto sent = fetched(callers, objectClass);
    const QString first = callers.trimmed();
    const QString second = own.text.trimmed();
    if (first.isEmpty() || !isWellFormed(first) || !isWellFormed(second)) {
        return;
    }
    const QString both = (ldap::Filter(first) & ldap::Filter(second)).text;
    require(isFilter(both.toStdString()), "what two filters compose is one");
    require(sent == "(&" + encoded(first).value_or("?") + encoded(second).value_or("?") + ")",
        "both filters have to match, and mean what they meant alone");
}

} // namespace

} // namespace tavo::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tavo::fuzz::setUpProcess();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // One line each; for the client library a NUL would end both.
    const QByteArray text =
        QByteArray(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size)).replace('\0', '0');
    const qsizetype end = text.indexOf('\n');
    const QString callers = QString::fromUtf8(end < 0 ? text : text.left(end));
    tavo::fuzz::check(callers, end < 0 ? QStringLiteral("group") : QString::fromUtf8(text.mid(end + 1)));
    return 0;
}

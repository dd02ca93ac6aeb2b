#include <ldap/manager.h>

#include <ldap/private/wipe.h>
#include <ldap/session.h>
#include <ldap/tavo_ldap_ini.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <utility>

namespace tavo::ldap {

namespace {

const QString kMaskedPassword = QStringLiteral("******");

std::string loggableText(const Settings& settings)
{
    if (log::showPasswords()) {
        return settings.toString();
    }
    Settings masked = settings;
    masked.adminPassword = kMaskedPassword;
    return masked.toString();
}

/// Entries without the caller's part of the filter are those that the directory's own part selects.
QString combinedFilter(const QString& callersFilter, const Filter& configured)
{
    if (callersFilter.isEmpty()) {
        return configured.text;
    }
    return (Filter(callersFilter.trimmed()) & Filter(configured.text.trimmed())).text;
}

bool isSuccess(Result result) { return result == Result::ok || result == Result::moreResults; }

class ManagerImpl final : public Manager
{
public:
    explicit ManagerImpl(Settings settings)
        : m_settings(std::move(settings))
    {
        // It is needed for the bind alone, and a core file of the host should not have it.
        const utils::ScopeGuard wipePassword([this] { wipe(m_settings.adminPassword); });
        TAVO_LOG_VERBOSE(log::tag(*this), u"Init LDAP session with settings %1", loggableText(m_settings));
        enableOpenldapDebugOutput(ini().openldapDebugLevel);

        m_session = std::make_unique<Session>(
            m_settings.uri, m_settings.startTls, m_settings.ignoreCertificateErrors);
        m_session->setResponseTimeout(m_settings.responseTimeout);
        // By design: before the bind, so the root DSE is read without credentials.
        const VendorDefaults defaults = m_session->detectLdapVendor();
        completeMapping(defaults);

        if (m_settings.adminDn.isEmpty()) {
            TAVO_LOG_INFO(log::tag(*this), u"Admin DN not specified, using anonymous session");
        }
        m_session->bind(m_settings.adminDn, m_settings.adminPassword);
    }

    SearchContext* fetchUsersAsync(UsersHandler handler, const SearchFilter& filter) override
    {
        return m_session->asyncSearch(
            {filter.base, combinedFilter(filter.filter, m_userFilter), m_userAttributes,
                SearchScope::subtree},
            [this, handler = std::move(handler)](Result result, std::vector<SearchEntry> entries) mutable {
                deliverUsers(handler, result, std::move(entries));
            },
            m_settings.searchPageSize);
    }

    SearchContext* fetchGroupsAsync(GroupsHandler handler, const SearchFilter& filter) override
    {
        return m_session->asyncSearch(
            {filter.base, combinedFilter(filter.filter, m_groupFilter), m_groupAttributes,
                SearchScope::subtree},
            [this, handler = std::move(handler)](Result result, std::vector<SearchEntry> entries) mutable {
                deliverGroups(handler, result, std::move(entries));
            },
            m_settings.searchPageSize);
    }

    void stopAsyncFetch(SearchContext* context) override { m_session->stopAsyncSearch(context); }

private:
    void completeMapping(const VendorDefaults& defaults)
    {
        m_userFilter = Filter(defaults.userFilter);
        m_loginAttribute = m_settings.loginAttribute.value_or(defaults.loginAttribute).toUtf8();
        m_memberAttribute =
            m_settings.memberAttribute.value_or(QString::fromUtf8(defaults.memberAttribute)).toUtf8();
        m_userAttributes = User::attributes();
        m_userAttributes.push_back(m_loginAttribute);
        m_groupFilter = Filter(
            QStringLiteral("objectClass"), m_settings.groupObjectClass.value_or(defaults.groupObjectClass));
        m_groupAttributes = {m_memberAttribute};
    }

    void deliverUsers(UsersHandler& handler, Result result, std::vector<SearchEntry> entries)
    {
        if (!isSuccess(result)) {
            TAVO_LOG_WARNING(log::tag(*this), u"Users fetching error: %1", toString(result));
            handler(result, {});
            return;
        }
        std::vector<User> users;
        users.reserve(entries.size());
        for (SearchEntry& entry : entries) {
            User user = User::fromSearchEntry(std::move(entry), m_loginAttribute);
            if (user.login.isEmpty()) {
                TAVO_LOG_DEBUG(log::tag(*this), u"Ignoring entry with empty login: %1", user.dn);
                continue;
            }
            users.push_back(std::move(user));
        }
        TAVO_LOG_VERBOSE(log::tag(*this), u"Found %1 users", users.size());
        handler(result, std::move(users));
    }

    void deliverGroups(GroupsHandler& handler, Result result, std::vector<SearchEntry> entries)
    {
        if (!isSuccess(result)) {
            TAVO_LOG_WARNING(log::tag(*this), u"Groups fetching error: %1", toString(result));
            handler(result, {});
            return;
        }
        const QString memberAttribute = QString::fromUtf8(m_memberAttribute);
        std::vector<Group> groups;
        groups.reserve(entries.size());
        for (SearchEntry& entry : entries) {
            std::vector<QString> members = entry.getAttribute(memberAttribute).values;
            QString name = dnFirstItem(entry.dn);
            groups.push_back({std::move(entry.dn), std::move(name), std::move(members)});
        }
        TAVO_LOG_VERBOSE(log::tag(*this), u"Found %1 groups", groups.size());
        handler(result, std::move(groups));
    }

    Settings m_settings;
    Filter m_userFilter;
    Filter m_groupFilter;
    QByteArray m_loginAttribute;
    QByteArray m_memberAttribute;
    std::vector<QByteArray> m_userAttributes;
    std::vector<QByteArray> m_groupAttributes;
    std::unique_ptr<Session> m_session;
};

} // namespace

Manager::Manager() = default;
Manager::~Manager() = default;

std::unique_ptr<Manager> createManagerOrThrow(Settings settings)
{
    return std::make_unique<ManagerImpl>(std::move(settings));
}

bool testLdapConnection(const Settings& settings)
{
    try {
        const auto session =
            std::make_unique<Session>(settings.uri, settings.startTls, settings.ignoreCertificateErrors);
        session->setResponseTimeout(settings.responseTimeout);
        session->bind(settings.adminDn, settings.adminPassword);
        return true;
    } catch (const BaseError&) {
        return false;
    }
}

std::future<void> testLdapConnectionAsync(const Settings& settings, utils::MoveOnlyFunc<void()> onFailure)
{
    auto task = [settings = Settings(settings), onFailure = std::move(onFailure)]() mutable {
        // Moved out of the task, which lives as long as the future: password and handler shall not.
        Settings tested = std::move(settings);
        const utils::ScopeGuard wipePassword([&] { wipe(tested.adminPassword); });
        utils::MoveOnlyFunc<void()> handler = std::move(onFailure);
        if (!testLdapConnection(tested)) {
            handler();
        }
    };
    return std::async(std::launch::async, std::move(task));
}

} // namespace tavo::ldap

#include "ldap/manager.h"

#include <ldap/entry.h>
#include <ldap/error.h>
#include <ldap/open_session.h>
#include <ldap/private/group_reader.h>
#include <ldap/private/user_reader.h>
#include <ldap/private/wipe.h>
#include <ldap/session.h>
#include <ldap/tavo_ldap_ini.h>
#include <ldap/utils.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <exception>
#include <new>
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
    masked.uri = masked.uri.withoutUserInfo();
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
    ManagerImpl(Settings settings, const ConnectionOptions& options)
        : m_settings(std::move(settings))
    {
        // It is needed for the bind alone, and a core file of the host should not have it.
        const utils::ScopeGuard wipePassword([this] { wipe(m_settings.adminPassword); });
        TAVO_LOG_VERBOSE(log::tag(*this), u"Init LDAP session with settings %1", loggableText(m_settings));
        enableOpenldapDebugOutput(ini().openldapDebugLevel);

        m_session = openSession(m_settings, options);
        // By design: before the bind, so the root DSE is read without credentials.
        const VendorDefaults defaults = m_session->detectLdapVendor();
        if (!defaults.failure.isEmpty()) {
            TAVO_LOG_WARNING(log::tag(*this),
                u"Could not find out which kind of directory this is; using OpenLDAP's attributes: %1",
                defaults.failure);
        }
        completeMapping(defaults);

        if (m_settings.adminDn.isEmpty()) {
            TAVO_LOG_INFO(log::tag(*this), u"Admin DN not specified, using anonymous session");
        }
        m_session->bind(m_settings.adminDn, m_settings.adminPassword);
    }

    SearchContext* fetchUsersAsync(UsersHandler handler, const SearchFilter& filter) override
    {
        return fetchUsersAsync(std::move(handler), filter, Completeness::asReported, {});
    }

    SearchContext* fetchGroupsAsync(GroupsHandler handler, const SearchFilter& filter) override
    {
        return fetchGroupsAsync(std::move(handler), filter, Completeness::asReported, {});
    }

    SearchContext* fetchUsersAsync(UsersHandler handler, const SearchFilter& filter,
        Completeness completeness, std::shared_ptr<SearchReport> report) override
    {
        return fetch(UserReader{QString::fromUtf8(m_loginAttribute)}, std::move(handler),
            {filter.base, combinedFilter(filter.filter, m_userFilter), m_userAttributes, SearchScope::subtree,
                completeness, std::move(report)});
    }

    SearchContext* fetchGroupsAsync(GroupsHandler handler, const SearchFilter& filter,
        Completeness completeness, std::shared_ptr<SearchReport> report) override
    {
        return fetch(GroupReader{QString::fromUtf8(m_memberAttribute)}, std::move(handler),
            {filter.base, combinedFilter(filter.filter, m_groupFilter), m_groupAttributes,
                SearchScope::subtree, completeness, std::move(report), m_groupAttributes});
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

    template <class Reader, class Handler>
    SearchContext* fetch(Reader reader, Handler handler, SearchParams&& params)
    {
        auto report = params.report;
        return m_session->asyncSearch(
            std::move(params),
            [this, reader = std::move(reader), handler = std::move(handler), report = std::move(report)](
                Result result, std::vector<SearchEntry> entries) mutable {
                deliver(reader, handler, report.get(), result, std::move(entries));
            },
            m_settings.searchPageSize);
    }

    template <class Reader, class Handler>
    void deliver(const Reader& reader, Handler& handler, SearchReport* report, Result result,
        std::vector<SearchEntry> entries)
    {
        if (!isSuccess(result)) {
            endWithFailure<Reader>(handler, result);
            return;
        }
        std::vector<typename Reader::Record> records;
        const int code = read(reader, std::move(entries), records);
        if (code == LDAP_SUCCESS) {
            Reader::logCount(log::tag(*this), records.size());
            handler(result, std::move(records));
        } else if (result == Result::moreResults) {
            // Ends the search, whose final call then comes here.
            throw BaseError(code, QStringLiteral("read entries"), 0);
        } else {
            if (report != nullptr) {
                report->ldapCode = code;
            }
            endWithFailure<Reader>(handler, translateErrorCode(code));
        }
    }

    /// Makes records of a page's entries. \return what failed; LDAP_SUCCESS when nothing did
    template <class Reader>
    int read(const Reader& reader, std::vector<SearchEntry> entries,
        std::vector<typename Reader::Record>& records) const
    {
        try {
            records.reserve(entries.size());
            for (SearchEntry& entry : entries) {
                reader.read(log::tag(*this), std::move(entry), records);
            }
            return LDAP_SUCCESS;
        } catch (const BaseError& error) {
            // An entry without a name fails without a code, and must not read as a success.
            return error.ldapCode != LDAP_SUCCESS ? error.ldapCode : LDAP_LOCAL_ERROR;
        } catch (const std::bad_alloc&) {
            return LDAP_NO_MEMORY;
        } catch (const std::exception&) {
            return LDAP_LOCAL_ERROR;
        }
    }

    template <class Reader, class Handler>
    void endWithFailure(Handler& handler, Result result)
    {
        Reader::warnOfFailure(log::tag(*this), result);
        handler(result, {});
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
    return createManagerOrThrow(std::move(settings), ConnectionOptions());
}

std::unique_ptr<Manager> createManagerOrThrow(Settings settings, const ConnectionOptions& options)
{
    return std::make_unique<ManagerImpl>(std::move(settings), options);
}

} // namespace tavo::ldap

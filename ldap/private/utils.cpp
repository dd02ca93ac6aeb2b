#include <ldap/private/utils.h>

#include <ldap/private/positions.h>
#include <tavo_utils/assert.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

#include <utility>

namespace tavo::ldap {

namespace {

/// The first one counts when a server sends several.
LDAPControl* findPageControl(const ControlsPtr& controls)
{
    return ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls.get(), nullptr);
}

int parsePageControl(LDAP* ld, LDAPControl* control, berval& cookie)
{
    // Without a value, or with an empty one, both of which any server may send, the client library brings the
    // whole process down.
    if (control->ldctl_value.bv_val == nullptr || control->ldctl_value.bv_len == 0) {
        return LDAP_DECODING_ERROR;
    }
    return ldap_parse_pageresponse_control(ld, control, nullptr, &cookie);
}

} // namespace

LdapSearchEntryAccessor::LdapSearchEntryAccessor(LDAP* ld, LDAPMessage* entry)
    : m_ldap(ld)
    , m_entry(entry)
{}

SearchEntry LdapSearchEntryAccessor::createSearchEntry(std::vector<QByteArray> attributes)
{
    SearchEntry entry{getDn(), {}};
    const std::vector<QByteArray> names = attributes.empty() ? getAttributeNames() : std::move(attributes);
    entry.attributes.reserve(names.size());
    for (const QByteArray& name : names) {
        try {
            entry.attributes.push_back(getAttribute(QString::fromUtf8(name)));
        } catch (const BaseError& error) {
            TAVO_LOG_VERBOSE(
                log::tag(*this), u"No attribute [%1] for [%2]: [%3]", name, entry.dn, error.what());
        }
    }
    return entry;
}

QString LdapSearchEntryAccessor::getDn()
{
    char* dn = ldap_get_dn(m_ldap, m_entry);
    if (dn == nullptr) {
        throw BaseError(getLdapError(m_ldap), QStringLiteral("ldap_get_dn"), 0);
    }
    const utils::ScopeGuard freeDn([&] { ldap_memfree(dn); });
    return QString::fromUtf8(dn);
}

std::vector<QByteArray> LdapSearchEntryAccessor::getAttributeNames()
{
    std::vector<QByteArray> names;
    // By design: the iteration's element is never passed to ber_free, only the names are released; it costs
    // 80 bytes for each entry that is read without a list of attributes.
    BerElement* ber = nullptr;
    char* name = ldap_first_attribute(m_ldap, m_entry, &ber);
    while (name != nullptr) {
        {
            const utils::ScopeGuard freeName([&] { ldap_memfree(name); });
            names.emplace_back(name);
        }
        name = ldap_next_attribute(m_ldap, m_entry, ber);
    }
    const int code = getLdapError(m_ldap);
    // The client library reports the end of the list as a decoding error.
    if (code != LDAP_SUCCESS && code != LDAP_DECODING_ERROR) {
        TAVO_LOG_VERBOSE(log::tag(*this), u"ldap_next_attribute error: %1", BaseError::ldapErrorString(code));
    }
    return names;
}

Attribute LdapSearchEntryAccessor::getAttribute(QString name)
{
    const QByteArray key = name.toUtf8();
    Attribute attribute{std::move(name), {}};
    berval** values = ldap_get_values_len(m_ldap, m_entry, key.constData());
    if (values == nullptr) {
        return attribute;
    }
    const utils::ScopeGuard freeValues([&] { ldap_value_free_len(values); });
    attribute.values.reserve(static_cast<std::size_t>(ldap_count_values_len(values)));
    for (berval** value = values; *value != nullptr; ++value) {
        const auto length = (*value)->bv_val != nullptr ? static_cast<qsizetype>((*value)->bv_len) : 0;
        attribute.values.push_back(QString::fromUtf8((*value)->bv_val, length));
    }
    return attribute;
}

SearchResponse::SearchResponse(LDAP* ld, MessagePtr chain)
    : m_ldap(ld)
    , m_chain(std::move(chain))
{}

std::vector<SearchEntry> SearchResponse::entries(const std::vector<QByteArray>& attributes)
{
    std::vector<SearchEntry> entries;
    for (LDAPMessage* entry = ldap_first_entry(m_ldap, m_chain.get()); entry != nullptr;
         entry = ldap_next_entry(m_ldap, entry)) {
        try {
            entries.push_back(LdapSearchEntryAccessor(m_ldap, entry).createSearchEntry(attributes));
        } catch (const BaseError& error) {
            TAVO_LOG_DEBUG(log::tag(*this), u"Search entry handling error: %1", error.what());
        }
    }
    return entries;
}

ControlsPtr SearchResponse::controls()
{
    int errcode = LDAP_SUCCESS;
    LDAPControl** received = nullptr;
    const int rc = ldap_parse_result(
        m_ldap, m_chain.get(), &errcode, nullptr, nullptr, nullptr, &received, /*freeit*/ 0);
    ControlsPtr controls(received, &ldap_controls_free);
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("ldap_parse_result"), 0);
    }
    if (errcode != LDAP_SUCCESS) {
        assertFailure(positions::responseWithError, "errcode == 0x00");
    }
    return controls;
}

void SearchResponse::logReferences()
{
    TAVO_LOG_VERBOSE(log::tag(*this), u"Logging references");
    for (LDAPMessage* reference = ldap_first_reference(m_ldap, m_chain.get()); reference != nullptr;
         reference = ldap_next_reference(m_ldap, reference)) {
        char** urls = nullptr;
        const int rc = ldap_parse_reference(m_ldap, reference, &urls, nullptr, /*freeit*/ 0);
        const utils::ScopeGuard freeUrls([&] { ber_memvfree(reinterpret_cast<void**>(urls)); });
        if (rc != LDAP_SUCCESS) {
            TAVO_LOG_DEBUG(
                log::tag(*this), u"Failed to parse LDAP reference entry: %1", BaseError::ldapErrorString(rc));
            return;
        }
        for (char** url = urls; url != nullptr && *url != nullptr; ++url) {
            TAVO_LOG_VERBOSE(log::tag(*this), u"Not chasing reference received from server: %1", *url);
        }
    }
}

Cookie::Cookie(LDAP* ld)
    : m_ldap(ld)
    , m_cookie{0, nullptr}
{}

Cookie::~Cookie() { release(); }

bool hasPageControl(const ControlsPtr& controls) { return findPageControl(controls) != nullptr; }

bool hasLivePageCookie(LDAP* ld, const ControlsPtr& controls)
{
    LDAPControl* control = findPageControl(controls);
    berval cookie{0, nullptr};
    const utils::ScopeGuard freeCookie([&] { ber_memfree(cookie.bv_val); });
    return control != nullptr && parsePageControl(ld, control, cookie) == LDAP_SUCCESS && cookie.bv_len != 0;
}

void Cookie::update(const ControlsPtr& controls)
{
    // First of all, so that a failed update leaves no cookie of an earlier page behind.
    release();
    LDAPControl* control = findPageControl(controls);
    if (control == nullptr) {
        TAVO_LOG_DEBUG(log::tag(*this), u"Page control not found");
        return;
    }
    const int rc = parsePageControl(m_ldap, control, m_cookie);
    if (rc != LDAP_SUCCESS) {
        release();
        throw BaseError(rc, QStringLiteral("ldap_parse_pageresponse_control"), 0);
    }
}

bool Cookie::isEmpty() const { return m_cookie.bv_val == nullptr || m_cookie.bv_len == 0; }

int Cookie::size() const { return static_cast<int>(m_cookie.bv_len); }

ControlPtr Cookie::createPageControl(int pageSize)
{
    LDAPControl* created = nullptr;
    // Critical: a server that can't page must fail the search rather than cut it.
    const int rc = ldap_create_page_control(m_ldap, pageSize, &m_cookie, /*iscritical*/ 1, &created);
    ControlPtr control(created, &ldap_control_free);
    if (rc != LDAP_SUCCESS) {
        throw BaseError(rc, QStringLiteral("ldap_create_page_control"), 0);
    }
    return control;
}

void Cookie::release()
{
    if (m_cookie.bv_val != nullptr) {
        ber_memfree(m_cookie.bv_val);
    }
    m_cookie = {0, nullptr};
}

} // namespace tavo::ldap

#include "ldap/private/page_cookie.h"

#include <ldap/error.h>
#include <tavo_utils/log.h>
#include <tavo_utils/scope_guard.h>

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

Cookie::Cookie(LDAP* ld)
    : m_ldap(ld)
    , m_cookie{0, nullptr}
{}

Cookie::~Cookie() { release(); }

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

bool hasPageControl(const ControlsPtr& controls) { return findPageControl(controls) != nullptr; }

PageState pageState(LDAP* ld, const ControlsPtr& controls)
{
    LDAPControl* control = findPageControl(controls);
    if (control == nullptr) {
        return PageState::last;
    }
    berval cookie{0, nullptr};
    const utils::ScopeGuard freeCookie([&] { ber_memfree(cookie.bv_val); });
    if (parsePageControl(ld, control, cookie) != LDAP_SUCCESS) {
        return PageState::unreadable;
    }
    return cookie.bv_len != 0 ? PageState::moreRemains : PageState::last;
}

} // namespace tavo::ldap

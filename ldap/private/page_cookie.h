#pragma once

#include <ldap/private/owners.h>

#include <ldap.h>

namespace tavo::ldap {

/// The state of a paged search between two pages (RFC 2696).
class Cookie
{
public:
    explicit Cookie(LDAP* ld);
    ~Cookie();
    Cookie(const Cookie&) = delete;
    Cookie& operator=(const Cookie&) = delete;

    /// Replaces the cookie by the one in a response's controls; it becomes empty when there is none.
    /// \throws BaseError when the page control can't be parsed; the cookie is empty then
    void update(const ControlsPtr& controls);

    bool isEmpty() const;

    /// The length in bytes.
    int size() const;

    /// The critical request control for the next page.
    /// \throws BaseError when it can't be built
    ControlPtr createPageControl(int pageSize);

private:
    void release();

    LDAP* m_ldap;
    berval m_cookie;
};

/// Whether a response's controls hold a page control, of whatever content.
bool hasPageControl(const ControlsPtr& controls);

/// What a response's page control says.
enum class PageState
{
    /// That this is the last page; also when there is no page control.
    last,
    moreRemains,
    unreadable,
};

PageState pageState(LDAP* ld, const ControlsPtr& controls);

} // namespace tavo::ldap

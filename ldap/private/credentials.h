#pragma once

#include <lber.h>

#include <QString>

namespace tavo::ldap {

/// The credentials of a simple bind in the client library's memory, wiped before they are freed.
class Credentials
{
public:
    /// \throws BaseError when there is no memory for them
    explicit Credentials(const QString& password);
    ~Credentials();
    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;

    berval* get() { return &m_value; }

private:
    berval m_value{0, nullptr};
};

} // namespace tavo::ldap

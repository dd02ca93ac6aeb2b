#include "ldap/private/credentials.h"

#include <ldap/error.h>
#include <ldap/private/wipe.h>
#include <tavo_utils/scope_guard.h>

#include <ldap.h>

#include <QByteArray>

#include <cerrno>
#include <cstring>

namespace tavo::ldap {

Credentials::Credentials(const QString& password)
{
    QByteArray text = password.toUtf8();
    const utils::ScopeGuard wipeText([&] { wipe(text); });
    m_value.bv_len = static_cast<ber_len_t>(text.size());
    m_value.bv_val = ber_strdup(text.constData());
    if (text.contains('\0')) {
        // ber_strdup stopped there, short of the length that is announced with the copy.
        ber_memfree(m_value.bv_val);
        ber_mem2bv(text.constData(), m_value.bv_len, /*duplicate*/ 1, &m_value);
    }
    if (m_value.bv_val == nullptr) {
        throw BaseError(LDAP_NO_MEMORY, QStringLiteral("bind"), errno);
    }
}

Credentials::~Credentials()
{
    explicit_bzero(m_value.bv_val, m_value.bv_len);
    ber_memfree(m_value.bv_val);
}

} // namespace tavo::ldap

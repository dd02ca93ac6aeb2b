#pragma once

#include <QByteArray>
#include <QString>

#include <cstring>

namespace tavo::ldap {

/// Empties a secret, and overwrites its text first unless somebody else shares it.
template <class Text>
void wipe(Text& secret)
{
    if (secret.isDetached()) {
        explicit_bzero(secret.data(), static_cast<std::size_t>(secret.size()) * sizeof(*secret.data()));
    }
    secret.clear();
}

} // namespace tavo::ldap

#include <ldap/private/client_library.h>

#include <ldap.h>

namespace tavo::ldap {

Mutex& initMutex()
{
    static Mutex mutex(Mutex::RecursionMode::recursive);
    return mutex;
}

void setUpGlobalOptions()
{
    // Not at library load: a program may set the environment before its first use of the library.
    [[maybe_unused]] static const bool once = [] {
        const MutexLocker lock(initMutex());
        int level = 0;
        return ldap_get_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level) == LDAP_OPT_SUCCESS;
    }();
}

void stopReading(LDAP* ld)
{
    Sockbuf* connection = nullptr;
    if (ldap_get_option(ld, LDAP_OPT_SOCKBUF, &connection) == LDAP_OPT_SUCCESS && connection != nullptr) {
        // The longest message that is accepted: shorter than any. A longer one ends the connection. Another
        // thread may be reading the number in the client library; it is a word, and either value will do.
        ber_len_t limit = 1;
        ber_sockbuf_ctrl(connection, LBER_SB_OPT_SET_MAX_INCOMING, &limit);
    }
}

} // namespace tavo::ldap

#pragma once

#include <ldap/export.h>

#include <memory>

namespace tavo::ldap {

class Interruption;

/// Ends connections from any thread, at once and for good. Made before the connections, which take it in their
/// `ConnectionOptions`.
///
///     ConnectionOptions options;
///     options.interrupter = Interrupter();
///     std::thread watchdog([interrupter = *options.interrupter] { ...; interrupter.interrupt(); });
///     auto manager = createManagerOrThrow(settings, options);
///
/// Copies are the same interrupter. Thread-safe.
class TAVO_LDAP_EXPORT Interrupter
{
public:
    /// \throws std::system_error when no descriptor can be had, std::bad_alloc
    Interrupter();
    ~Interrupter() = default;
    // Copied where others are moved: a moved-from one would be of no use.
    Interrupter(const Interrupter&) = default;
    Interrupter& operator=(const Interrupter&) = default;

    /// Ends all connections that have this interrupter, also those that are yet to be made: connecting,
    /// handshakes, answers that are waited for, searches that wait for their turn. Their calls fail with
    /// `LDAP_USER_CANCELLED`, their searches end with `Result::cancelled`. Looking up a name can't be ended; the
    /// call fails when that is done. Returns at once; what was ended may be ending yet. May be called from
    /// handlers, any number of times.
    void interrupt() const noexcept;

    bool isInterrupted() const noexcept;

private:
    friend class Connection;
    friend class Session;

    std::shared_ptr<Interruption> m_interruption;
};

} // namespace tavo::ldap

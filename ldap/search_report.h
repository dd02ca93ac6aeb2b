#pragma once

#include <ldap/connect_failure.h>

#include <QString>

#include <cstdint>

namespace tavo::ldap {

/// What a search does when it can see that its list is incomplete.
enum class Completeness : std::int32_t
{
    /// It goes by what the server reports. A list that was cut without an error ends as
    /// `Result::ok`, mostly with a warning in the log.
    asReported = 0,

    /// It fails: with `Result::sizeLimitExceeded` and no more entries, or with an exception where it throws.
    /// For callers who conclude something from what a list lacks, such as that an account is to be deleted.
    required = 1,
};

/// How a search ended, in more words than a `Result`. A plain value type.
///
/// Give one to a search in `SearchParams::report`. It is filled before the final call of the handler begins,
/// or before a blocking search returns or throws, on the same thread; read it from then on. A search that was
/// detached leaves it as it is. Use one for one search.
struct SearchReport
{
    /// Why entries are missing from what was delivered.
    enum class Loss : std::int32_t
    {
        /// As far as the server's answers tell, none are. Continuation references don't count: what they lead
        /// to is in other directories.
        none = 0,

        /// A page was shorter than asked for, though the server says that it has more.
        shortPage = 1,

        /// The last page came with a page control that can't be read, or is full and came without one.
        unreadablePageControl = 2,

        /// An entry was left out, because its DN can't be read.
        unreadableEntry = 3,

        /// An entry was left out, because it vanished before all its values were read.
        vanishedEntry = 4,

        /// A handler ended the search by an error without a code.
        handlerError = 5,

        /// The search was refused: its page size is below 1.
        refusedStart = 6,
    };

    /// The LDAP result code (`LDAP_*`) with which the search ended; the `Result` is its translation.
    int ldapCode = 0;

    /// See `BaseError::serverMessage`.
    QString serverMessage;

    /// See `BaseError::matchedDn`.
    QString matchedDn;

    /// See `BaseError::connectFailure`.
    ConnectFailure connectFailure;

    /// The first loss that was seen; others may have followed from it. `Loss::none` says nothing about a search
    /// that failed: its list is cut in any case.
    Loss loss = Loss::none;

    /// The losses in words, for an administrator; empty when there is none.
    QString lossDetail;

    /// Whether the list was cut without the server reporting it.
    bool isIncomplete() const { return loss != Loss::none; }
};

} // namespace tavo::ldap

#pragma once

#include <tavo_utils/source_position.h>

/// The positions under which assertions and locks of this library are reported.
///
/// By design: they are fixed numbers and not `__LINE__`, because monitoring matches on them; moving code must
/// not change them.
namespace tavo::ldap::positions {

inline constexpr SourcePosition unknownResult{"ldap/result", 30};
inline constexpr SourcePosition resultCodeUnreadable{"ldap/utils", 122};
inline constexpr SourcePosition responseWithError{"ldap/private/utils", 140};

inline constexpr SourcePosition unknownScope{"ldap/search_context", 24};
inline constexpr SourcePosition pageSizeNotPositive{"ldap/search_context", 186};
inline constexpr SourcePosition searchAlreadyRunning{"ldap/search_context", 192};

inline constexpr SourcePosition sessionEndsInIntermediateCall{"ldap/session", 64};
inline constexpr SourcePosition sessionDestructorLock{"ldap/session", 65};
inline constexpr SourcePosition halfEmptyCredentials{"ldap/session", 80};
inline constexpr SourcePosition alreadySecure{"ldap/session", 107};
inline constexpr SourcePosition registerSearchLock{"ldap/session", 141};
inline constexpr SourcePosition completeSearchLock{"ldap/session", 153};
inline constexpr SourcePosition forgetSearchLock{"ldap/session", 177};

} // namespace tavo::ldap::positions

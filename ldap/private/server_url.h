#pragma once

#include <tavo_utils/url.h>

#include <QString>

namespace tavo::ldap {

/// Why a session can't use this URL, or list of URLs, in words that repeat nothing of it; empty when it can.
///
/// Only what the client library would take for something else is refused here: it connects to the machine
/// itself when there is no text or no host, ignores a name and password, and knows schemes that aren't LDAP
/// version 3. Everything else is left to it.
QString refusalOf(const utils::Url& url);

} // namespace tavo::ldap

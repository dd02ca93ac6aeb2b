#pragma once

#include <tavo_utils/url.h>

#include <QString>
#include <QStringList>

namespace tavo::ldap {

/// Why a session can't use this URL, or list of URLs, in words that repeat nothing of it; empty when it can.
///
/// Only what the client library would take for something else is refused here: it connects to the machine
/// itself when there is no text or no host, takes a name and password for parts of the host's name, and knows
/// schemes that aren't LDAP version 3. So is a list that is secure in part. Everything else is left to it.
QString refusalOf(const utils::Url& url);

/// The URLs of a list, in the order in which they are tried.
QStringList urlsOf(const utils::Url& url);

} // namespace tavo::ldap

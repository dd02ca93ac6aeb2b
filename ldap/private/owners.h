#pragma once

#include <ldap.h>

#include <memory>

/// Owners of what the client library hands over, each with the function that frees it. The owner of
/// the connection handle is in handle.h.
namespace tavo::ldap {

/// A result's chain of messages.
using MessagePtr = std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)>;

/// The array of controls that came with a result; null when the server sent none.
using ControlsPtr = std::unique_ptr<LDAPControl*, void (*)(LDAPControl**)>;

/// One request control.
using ControlPtr = std::unique_ptr<LDAPControl, void (*)(LDAPControl*)>;

} // namespace tavo::ldap

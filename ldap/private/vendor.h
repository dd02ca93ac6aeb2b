#pragma once

#include <ldap/entry.h>
#include <ldap/vendor.h>

#include <vector>

namespace tavo::ldap {

/// The kind of directory that has this root DSE (RFC 4512, section 5.1).
Vendor recognizeVendor(const std::vector<SearchEntry>& rootDse);

VendorDefaults defaultsFor(Vendor vendor);

/// Whether the vendor's servers keep the state of several paged searches for one connection.
bool servesConcurrentPagedSearches(Vendor vendor);

} // namespace tavo::ldap

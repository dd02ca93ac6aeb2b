#pragma once

#include <ldap/search_params.h>

#include <ldap.h>

#include <QByteArray>

#include <chrono>
#include <vector>

namespace tavo::ldap {

/// The attribute list as the client library takes it: pointers into `attributes`, then a null pointer; empty
/// for an empty list.
std::vector<char*> attributeNamePointers(std::vector<QByteArray>& attributes);

/// The arguments of a search request in the client library's form; lives for one call.
struct SearchRequest
{
    SearchRequest(const SearchParams& params, std::vector<char*> names, std::chrono::seconds timeLimit);

    const char* filter() const { return filterText.isEmpty() ? nullptr : filterText.constData(); }
    char** attributes() { return attributeNames.empty() ? nullptr : attributeNames.data(); }

    QByteArray base;
    QByteArray filterText;
    int scope;
    std::vector<char*> attributeNames;
    timeval timeout;
};

} // namespace tavo::ldap

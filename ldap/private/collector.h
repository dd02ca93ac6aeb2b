#pragma once

#include <ldap/entry.h>
#include <ldap/result.h>

#include <future>
#include <memory>
#include <vector>

namespace tavo::ldap {

/// Collects all pages of a paged search for a caller who waits for them; used as the search's handler.
class Collector
{
public:
    std::future<Result> finished() { return m_result.get_future(); }
    std::shared_ptr<std::vector<SearchEntry>> entries() const { return m_entries; }

    /// \throws BaseError on a page of several for which there is no memory
    void operator()(Result result, std::vector<SearchEntry> page);

private:
    bool append(std::vector<SearchEntry> page);

    std::promise<Result> m_result;
    std::shared_ptr<std::vector<SearchEntry>> m_entries = std::make_shared<std::vector<SearchEntry>>();
};

} // namespace tavo::ldap

#include "ldap/private/attribute_names.h"

#include <QByteArrayView>

namespace tavo::ldap {

namespace {

/// Far more than entries have of their own; a server that makes up names gets no more memory and time.
constexpr std::size_t kMostSent = 64;

} // namespace

AttributeNames::AttributeNames(
    const std::vector<QByteArray>& requested, const std::vector<QByteArray>& ranged)
    : m_requested(requested.begin(), requested.end())
    , m_ranged(ranged.begin(), ranged.end())
{}

AttributeName AttributeNames::sent(const char* name)
{
    const QByteArrayView bytes(name);
    // Entries mostly have the same attributes in the same order: the next is found at the first try.
    for (std::size_t tried = 0; tried < m_sent.size(); ++tried) {
        m_last = (m_last + 1) % m_sent.size();
        if (m_sent[m_last].key == bytes) {
            return m_sent[m_last];
        }
    }
    AttributeName decoded(bytes.toByteArray());
    // One that isn't valid UTF-8 would not be found by its bytes.
    if (m_sent.size() < kMostSent && decoded.key == bytes) {
        m_last = m_sent.size();
        m_sent.push_back(decoded);
    }
    return decoded;
}

} // namespace tavo::ldap

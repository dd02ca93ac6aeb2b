#pragma once

#include <ldap/search_report.h>
#include <tavo_utils/formatter.h>

#include <QByteArray>
#include <QString>

#include <memory>
#include <utility>
#include <vector>

namespace tavo::ldap {

/// How deep a search goes (RFC 4511, section 4.5.1.2); the numbers are the protocol's.
enum class SearchScope : int
{
    /// The base entry alone.
    base = 0,

    /// The entries right below the base, without it.
    oneLevel = 1,

    /// The base and everything below it.
    subtree = 2,
};

/// A search filter as text (RFC 4515). A plain value type; an empty one means "no filter".
///
///     Filter(u"objectClass"_qs, u"person"_qs) & Filter(u"(mail=*)"_qs)   // (&(objectClass=person)(mail=*))
struct Filter
{
    Filter() = default;

    /// A filter with exactly this text.
    explicit Filter(QString filterText)
        : text(std::move(filterText))
    {}

    /// The filter `name=value`, without parentheses.
    ///
    /// By design: no character of the value is escaped, so that `*` can ask for presence or substrings.
    /// Escape user input (RFC 4515, section 3: `\2a`, `\28`, `\29`, `\5c`, `\00`).
    Filter(QString const& name, QString const& value)
        : text(utils::format(u"%1=%2", name, value))
    {}

    /// The filter as one component of a compound filter: in parentheses, unless it begins with one.
    ///
    /// By design: only the first character is looked at; whether parentheses balance is not checked.
    QString toCompoundString() const
    {
        return text.startsWith(QLatin1Char('(')) ? text : utils::format(u"(%1)", text);
    }

    /// Both filters must match; this one comes first. An empty side leaves the other as it is.
    Filter operator&(Filter const& other)
    {
        if (text.isEmpty()) {
            return other;
        }
        if (other.text.isEmpty()) {
            return *this;
        }
        return Filter(utils::format(u"(&%1%2)", toCompoundString(), other.toCompoundString()).trimmed());
    }

    QString text;
};

/// Everything that describes one search.
struct SearchParams
{
    /// The DN at which the search starts; empty for the root DSE (with `SearchScope::base`).
    QString base;

    /// The filter text; empty: none is sent and the client library's default, `(objectClass=*)`, applies.
    QString filter;

    /// The attributes to return, UTF-8; empty: all user attributes.
    std::vector<QByteArray> attributes;

    SearchScope scope = SearchScope::subtree;

    /// Whether a list that is visibly incomplete fails the search.
    Completeness completeness = Completeness::asReported;

    /// Filled at the end of the search; may be null.
    std::shared_ptr<SearchReport> report = {};

    /// Attributes, out of `attributes`, of which a paged search reads all values where the server sends only
    /// the first range of them (see `RangedValues`). Costs further requests for the entries concerned, which
    /// are made before their page is delivered. An entry that vanishes meanwhile is left out, with a warning
    /// in the log. Not followed by `simpleSearch`.
    std::vector<QByteArray> rangedAttributes = {};
};

/// Which users or groups are fetched.
struct SearchFilter
{
    /// The DN below which entries are searched for.
    QString base;

    /// The caller's filter text. Entries must match it and the directory's own filter: for users that of the
    /// vendor, for groups their object class. Empty: the directory's own alone.
    QString filter;
};

} // namespace tavo::ldap

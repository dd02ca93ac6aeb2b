#include "ldap/entry.h"

#include <tavo_utils/formatter.h>

#include <algorithm>

namespace tavo::ldap {

namespace {

template <class Container, class ToText>
QString joined(const Container& container, ToText toText)
{
    return utils::containerString(container, u", ", u"{ ", u" }", u"none", toText);
}

} // namespace

bool Attribute::empty() const { return values.empty(); }

QString Attribute::toString() const
{
    const QString text =
        values.size() == 1 ? values.front() : joined(values, [](const QString& value) { return value; });
    return utils::format(u"%1: %2", name, text);
}

Attribute SearchEntry::getAttribute(const QString& name) const
{
    const auto found = std::find_if(attributes.begin(), attributes.end(),
        [&](const Attribute& attribute) { return attribute.name == name; });
    return found != attributes.end() ? *found : Attribute{name, {}};
}

QString SearchEntry::getAttributeFirstValue(const QString& name) const
{
    // By design: unlike getAttribute, a namesake without values doesn't end the scan.
    const auto found = std::find_if(attributes.begin(), attributes.end(),
        [&](const Attribute& attribute) { return attribute.name == name && !attribute.empty(); });
    return found != attributes.end() ? found->values.front() : QString();
}

QString SearchEntry::toString() const
{
    // By design: a single attribute is braced here, while a single value of an attribute is not.
    const QString text = joined(attributes, [](const Attribute& attribute) { return attribute.toString(); });
    return utils::format(u"%1: %2", dn, text);
}

} // namespace tavo::ldap

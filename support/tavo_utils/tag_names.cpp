#include "tavo_utils/tag_names.h"

#include <cxxabi.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace tavo::log {

namespace {

/// Far more than a program has tags. Libraries that come and go must not fill the memory with names.
constexpr std::size_t maxNames = 256;

QString demangled(const std::type_info& type)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    return QString::fromUtf8(name ? name.get() : type.name());
}

/// The part after the last `::` that is not inside the arguments of a template or function.
QString lastComponent(const QString& name)
{
    int depth = 0;
    for (qsizetype i = name.size() - 1; i > 0; --i) {
        const QChar c = name[i];
        depth += c == u'>' || c == u')' ? 1 : 0;
        depth -= c == u'<' || c == u'(' ? 1 : 0;
        if (depth == 0 && c == u':' && name[i - 1] == u':') {
            return name.mid(i + 1);
        }
    }
    return name;
}

} // namespace

QString tagName(const std::type_info& type, bool isScope)
{
    const QString name = demangled(type);
    return isScope ? lastComponent(name) : name;
}

QString TagNames::of(const std::type_info& type, bool isScope)
{
    Names& names = isScope ? m_scopes : m_objects;
    const auto known = names.find(std::string_view(type.name()));
    if (known != names.end()) {
        return known->second;
    }
    QString name = tagName(type, isScope);
    if (names.size() < maxNames) {
        names.emplace(type.name(), name);
    }
    return name;
}

} // namespace tavo::log

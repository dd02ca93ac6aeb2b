#pragma once

#include <QString>

#include <functional>
#include <map>
#include <string>
#include <typeinfo>

namespace tavo::log {

/// The name of a tag: the type as C++ writes it; of a scope, the last part of that.
QString tagName(const std::type_info& type, bool isScope);

/// The names of the tags seen so far, so that each is composed once.
///
/// Threads: one at a time uses an object.
class TagNames
{
public:
    /// `tagName` of the same arguments; allocates no memory when they were asked for before.
    QString of(const std::type_info& type, bool isScope);

private:
    /// By the type's mangled name. That is what `std::type_info` compares, too, but its objects may go with
    /// the library that they are in, and another library may take their place.
    using Names = std::map<std::string, QString, std::less<>>;

    Names m_objects;
    Names m_scopes;
};

} // namespace tavo::log

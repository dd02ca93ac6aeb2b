#pragma once

#include <tuple>

namespace tavo::reflect {

/// A field of a record: its name and where it is.
template <class Record, class T>
struct Field
{
    const char* name; ///< a literal
    T Record::*member;
};

/// Names a field for Fields<Record>.
template <class Record, class T>
[[nodiscard]] constexpr Field<Record, T> field(const char* name, T Record::*member)
{
    return {name, member};
}

/// The fields of a record, to be specialised beside it:
///
///     template <>
///     struct tavo::reflect::Fields<Point>
///     {
///         static constexpr auto value = std::make_tuple(
///             tavo::reflect::field("x", &Point::x), tavo::reflect::field("y", &Point::y));
///     };
///
/// Their order is the order in which a serializer visits them. Field names are ASCII.
template <class Record>
struct Fields;

/// Whether Fields is specialised for the type.
template <class Record>
concept Reflected = requires
{
    Fields<Record>::value;
};

/// Calls @p visitor with the name and the value of every field of @p record, in the order of Fields.
template <Reflected Record, class Visitor>
constexpr void forEachField(const Record& record, Visitor&& visitor)
{
    const auto visit = [&](const auto&... fields) { (visitor(fields.name, record.*(fields.member)), ...); };
    std::apply(visit, Fields<Record>::value);
}

} // namespace tavo::reflect

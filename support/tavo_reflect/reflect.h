#pragma once

#include <tuple>

namespace tavo::reflect {

/// A field of a record.
template <class Record, class T>
struct Field
{
    /// A string literal.
    const char* name;

    T Record::*member;
};

/// Makes a field for `Fields<Record>`.
template <class Record, class T>
constexpr Field<Record, T> field(const char* name, T Record::*member)
{
    return {name, member};
}

/// The fields of a record. Specialise it beside the record:
///
///     template <>
///     struct tavo::reflect::Fields<Point>
///     {
///         static constexpr auto value = std::make_tuple(
///             tavo::reflect::field("x", &Point::x), tavo::reflect::field("y", &Point::y));
///     };
///
/// A serializer visits them in this order. Field names are ASCII.
template <class Record>
struct Fields;

/// Whether `Fields` is specialised for the type.
template <class Record>
concept Reflected = requires
{
    Fields<Record>::value;
};

/// Calls `visitor` with the name and the value of every field of `record`, in the order of `Fields`.
template <Reflected Record, class Visitor>
constexpr void forEachField(const Record& record, Visitor&& visitor)
{
    const auto visit = [&](const auto&... fields) { (visitor(fields.name, record.*(fields.member)), ...); };
    std::apply(visit, Fields<Record>::value);
}

} // namespace tavo::reflect

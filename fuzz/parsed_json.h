#pragma once

#include <QString>

#include <rapidjson/document.h>

#include <string>

namespace tavo::fuzz {

/// The object that the text is; requires it to be one, in valid UTF-8.
rapidjson::Document parsedObject(const std::string& json);

/// Whether the object has such a member, a string with this text. A surrogate without its other half stands
/// for U+FFFD.
bool holds(const rapidjson::Value& object, const char* member, const QString& text);

/// Whether the value is a string with this text.
bool isText(const rapidjson::Value& value, const QString& text);

} // namespace tavo::fuzz

#pragma once

#include <rapidjson/document.h>

#include <QString>

#include <string>

namespace tavo::fuzz {

/// Parses the text, which must be a JSON object in valid UTF-8.
rapidjson::Document parsedObject(const std::string& json);

/// Whether the object has a string member with this name and text. A lone surrogate in `text` counts as
/// U+FFFD.
bool holds(const rapidjson::Value& object, const char* member, const QString& text);

/// Whether the value is a string with this text.
bool isText(const rapidjson::Value& value, const QString& text);

} // namespace tavo::fuzz

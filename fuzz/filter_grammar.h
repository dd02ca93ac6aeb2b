#pragma once

#include <string_view>

namespace tavo::fuzz {

/// Whether the text is a filter by RFC 4515, section 3, in UTF-8: nothing before or after its parentheses.
bool isFilter(std::string_view text);

/// Whether it is what may stand between the parentheses of a filter that compares one attribute.
bool isFilterItem(std::string_view text);

} // namespace tavo::fuzz

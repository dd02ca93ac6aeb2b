#pragma once

/// Marks what libtavo_utils.so exports; everything else stays hidden.
#define TAVO_UTILS_EXPORT __attribute__((visibility("default")))

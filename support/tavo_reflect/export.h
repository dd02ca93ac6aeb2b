#pragma once

/// Marks what libtavo_reflect.so exports; everything else stays hidden.
#define TAVO_REFLECT_EXPORT __attribute__((visibility("default")))

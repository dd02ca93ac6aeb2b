#pragma once

/// Marks what libtavo_kit.so exports; everything else stays hidden.
#define TAVO_KIT_EXPORT __attribute__((visibility("default")))

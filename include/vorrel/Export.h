#pragma once

/// Marks what `libvorrel.so.1` exports; everything else in it is hidden.
#define VORREL_EXPORT __attribute__((visibility("default")))

#pragma once

namespace vorrel {

/// Writes one line "file(line): message" to the trace log. Any thread.
/// @param format  As for printf, with its arguments behind it.
void Trace(const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/// Writes `text` to the trace log. Any thread; null writes nothing.
void OutputDebugString(const char* text);

}  // namespace vorrel

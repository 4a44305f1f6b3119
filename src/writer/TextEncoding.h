#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

// Text of tags: UTF-8 into the encodings of file formats. What cannot be converted is substituted,
// one substitute for each character, where a character is a byte together with the continuation
// bytes behind it; where the C library comes without an encoding's table, that is all but ASCII.
// The process's locale is neither used nor changed, it is the host's.
//
// The conversions throw `std::bad_alloc`, and `std::system_error` where the C library cannot begin
// one for another cause (no memory, no descriptor): such a text is not to be taken for one that
// cannot be converted.
namespace vorrel {

/// The bytes of the text in Shift-JIS (code page 932), "?" for what that lacks and for malformed
/// bytes. No terminator.
std::string Utf8ToShiftJIS(std::string_view utf8);

/// Converts into `out`, filling the rest of it with zero; what does not fit is cut off, a last
/// zero byte always fits.
/// @return Bytes in front of the first zero byte.
std::size_t UnicodeToShiftJIS(std::span<char> out, std::string_view utf8);

/// The bytes of the text in UTF-16 little-endian, U+FFFD for malformed bytes. No byte-order mark,
/// no terminator.
std::string Utf8ToUtf16(std::string_view utf8);

/// Converts like `Utf8ToUtf16`.
/// @return Bytes that a tag takes of `out`: twice the characters of the text.
/// Kept: a character outside the basic plane counts once although it takes two code units, so
/// that such a text loses its end (TextEncodingTest.CountsACharacterBeyondTheBasicPlaneOnce).
std::size_t ToUtf16(std::string& out, std::string_view utf8);

/// Replaces every occurrence of `from` by `to`, going on behind each replacement. An empty `from`
/// replaces nothing.
std::string StrReplace(std::string text, std::string_view from, std::string_view to);

}  // namespace vorrel

#include "writer/TextEncoding.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <tuple>

namespace vorrel {

namespace {

using std::string_view_literals::operator""sv;

/// A target encoding: its name for iconv, and what stands for a character that it lacks. The
/// substitute's length is that of the encoding's smallest code unit.
struct Encoding {
    const char* name;
    std::string_view substitute;
    bool hasTagCharacters;
};
constexpr Encoding kShiftJis = {"CP932", "?"sv, false};
constexpr Encoding kUtf16 = {"UTF-16LE", "\xFD\xFF"sv, true};  // U+FFFD

bool IsContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// Bytes of the first character of a text that is not empty.
std::size_t FirstCharacterBytes(std::string_view utf8) {
    const auto end = std::find_if_not(utf8.begin() + 1, utf8.end(), IsContinuation);
    return static_cast<std::size_t>(end - utf8.begin());
}

/// Characters as the tags count them: bytes that continue no other.
std::size_t CountCharacters(std::string_view utf8) {
    return static_cast<std::size_t>(
        std::count_if(utf8.begin(), utf8.end(), [](char byte) { return !IsContinuation(byte); }));
}

/// Where the first tag character (U+E0000 to U+E007F, as in the flags of regions) begins, else the
/// text's size. iconv leaves them out without a word where the target encoding lacks them.
std::size_t FindTagCharacter(std::string_view utf8) {
    for (std::size_t at = 0; (at = utf8.find("\xF3\xA0"sv, at)) != std::string_view::npos; ++at) {
        const std::string_view rest = utf8.substr(at + 2);
        if (!rest.empty() && (rest.front() == '\x80' || rest.front() == '\x81')) {
            return at;
        }
    }
    return utf8.size();
}

/// A conversion from UTF-8. Not open where the C library comes without the encoding's table.
class Conversion {
public:
    explicit Conversion(const char* name) : descriptor(::iconv_open(name, "UTF-8")) {
        if (const int error = errno; !IsOpen() && error != EINVAL) {
            throw std::system_error(error, std::generic_category(), "iconv_open");
        }
    }
    ~Conversion() {
        if (IsOpen()) {
            ::iconv_close(descriptor);
        }
    }
    Conversion(const Conversion&) = delete;
    Conversion& operator=(const Conversion&) = delete;

    // The failure value is a pointer made of -1 by its definition.
    bool IsOpen() const { return reinterpret_cast<std::intptr_t>(descriptor) != -1; }

    /// Appends what can be converted from the front of `utf8`, and takes it off there.
    void TakeFront(std::string_view& utf8, std::string& out) {
        char* input = const_cast<char*>(utf8.data());  // the C interface; it does not write there
        std::size_t inputLeft = utf8.size();
        for (bool more = true; more;) {
            std::array<char, kPieceBytes> piece{};
            char* output = piece.data();
            std::size_t outputLeft = piece.size();
            const std::size_t result =
                ::iconv(descriptor, &input, &inputLeft, &output, &outputLeft);
            more = result == static_cast<std::size_t>(-1) && errno == E2BIG;
            out.append(piece.data(), piece.size() - outputLeft);
        }
        std::ignore = ::iconv(descriptor, nullptr, nullptr, nullptr, nullptr);  // forget the error
        utf8.remove_prefix(utf8.size() - inputLeft);
    }

private:
    static constexpr std::size_t kPieceBytes = 1024;
    iconv_t descriptor;
};

/// Appends `utf8`, one substitute for each character that cannot be converted.
void ConvertPiece(Conversion& conversion, const Encoding& encoding, std::string_view utf8,
                  std::string& out) {
    while (!utf8.empty()) {
        if (conversion.IsOpen()) {
            conversion.TakeFront(utf8, out);
        } else if (!(static_cast<unsigned char>(utf8.front()) & 0x80U)) {
            out += utf8.front();  // without a table the common part of all encodings remains
            out.append(encoding.substitute.size() - 1, '\0');
            utf8.remove_prefix(1);
            continue;
        }
        if (!utf8.empty()) {
            out += encoding.substitute;
            utf8.remove_prefix(FirstCharacterBytes(utf8));
        }
    }
}

std::string Convert(std::string_view utf8, const Encoding& encoding) {
    std::string out;
    Conversion conversion(encoding.name);
    while (!utf8.empty()) {
        const std::size_t tag = encoding.hasTagCharacters ? utf8.size() : FindTagCharacter(utf8);
        ConvertPiece(conversion, encoding, utf8.substr(0, tag), out);
        utf8.remove_prefix(tag);
        if (!utf8.empty()) {
            out += encoding.substitute;
            utf8.remove_prefix(FirstCharacterBytes(utf8));
        }
    }
    return out;
}

}  // namespace

std::string Utf8ToShiftJIS(std::string_view utf8) {
    return Convert(utf8, kShiftJis);
}

std::size_t UnicodeToShiftJIS(std::span<char> out, std::string_view utf8) {
    if (out.empty()) {
        return 0;
    }
    const std::string text = Utf8ToShiftJIS(utf8);
    const std::size_t bytes = std::min(text.size(), out.size() - 1);
    std::copy_n(text.begin(), bytes, out.begin());
    std::fill(out.begin() + static_cast<std::ptrdiff_t>(bytes), out.end(), '\0');
    return std::strlen(out.data());
}

std::string Utf8ToUtf16(std::string_view utf8) {
    return Convert(utf8, kUtf16);
}

std::size_t ToUtf16(std::string& out, std::string_view utf8) {
    out = Utf8ToUtf16(utf8);
    return 2 * CountCharacters(utf8);
}

std::string StrReplace(std::string text, std::string_view from, std::string_view to) {
    if (from.empty()) {
        return text;
    }
    for (std::size_t found = text.find(from); found != std::string::npos;
         found = text.find(from, found + to.size())) {
        text.replace(found, from.size(), to);
    }
    return text;
}

}  // namespace vorrel

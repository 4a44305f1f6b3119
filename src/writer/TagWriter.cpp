#include "writer/TagWriter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>
#include <tuple>

#include "writer/FileHeader.h"
#include "writer/TextEncoding.h"

namespace vorrel {

namespace {

/// Where a tag goes: the host's key and the id under which a format knows it.
struct TagPlace {
    const char* key;
    const char* id;
};
// "Alubum" is what hosts send; "Album" is nobody's key.
constexpr std::array kInfoPlaces = {
    TagPlace{"Title", "INAM"},
    TagPlace{"Alubum", "IPRD"},
    TagPlace{"Artist", "IART"},
};
constexpr std::array kId3Places = {
    TagPlace{"Alubum", "TALB"},
    TagPlace{"Title", "TIT2"},
    TagPlace{"Artist", "TPE1"},
    TagPlace{"AlbumArtist", "TPE2"},
};

constexpr std::size_t kIdBytes = 4;
constexpr std::size_t kChunkHeadBytes = 8;      // id and size
constexpr std::size_t kId3HeadBytes = 10;       // "ID3", version, revision, flags, size
constexpr std::size_t kId3FrameHeadBytes = 10;  // id, size, flags
constexpr std::size_t kId3TextPrefixBytes = 3;  // encoding byte and byte-order mark

/// The value of `key`; a missing key reads as an empty value.
const std::string& Value(const TagMap& tags, const char* key) {
    static const std::string empty;
    const auto found = tags.find(key);
    return found == tags.end() ? empty : found->second;
}

template <std::size_t Count>
using Texts = std::array<std::optional<std::string>, Count>;

template <std::size_t Count>
bool AllEmpty(const Texts<Count>& texts) {
    return std::none_of(texts.begin(), texts.end(),
                        [](const auto& text) { return text.has_value(); });
}

bool Write(std::FILE* file, std::span<const std::uint8_t> bytes) {
    return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
}

bool Write(std::FILE* file, std::string_view text) {
    return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

bool WriteChunkHead(std::FILE* file, const char* id, std::uint64_t size) {
    std::array<std::uint8_t, kChunkHeadBytes> head{};
    std::memcpy(head.data(), id, kIdBytes);
    PutLittleEndian(head.data() + kIdBytes, size, 4);
    return Write(file, head);
}

/// The text of an INFO sub-chunk: Shift-JIS, a zero byte, and one more where that makes it even.
std::string InfoText(const std::string& value) {
    std::string text = Utf8ToShiftJIS(value);
    text.resize(std::strlen(text.c_str()) + 1);  // a zero inside the value ends the text
    text.resize(text.size() + text.size() % 2);
    return text;
}

/// The text of an ID3 frame, as long as its size field will say.
std::string Id3Text(const std::string& value) {
    std::string text;
    text.resize(ToUtf16(text, value));
    return text;
}

template <std::size_t Count>
Texts<Count> Convert(const TagMap& tags, const std::array<TagPlace, Count>& places,
                     std::string (*convert)(const std::string& value)) {
    Texts<Count> texts;
    for (std::size_t place = 0; place < Count; ++place) {
        if (const std::string& value = Value(tags, places[place].key); !value.empty()) {
            texts[place] = convert(value);
        }
    }
    return texts;
}

VrError WriteInfo(const std::string& text, const char* id, std::FILE* file) {
    return WriteChunkHead(file, id, text.size()) && Write(file, text) ? VrSuccess : VrErrorFailed;
}

VrError WriteFrame(const std::string& text, const char* id, std::FILE* file) {
    if (text.empty()) {
        return VrErrorInvalidParameter;
    }
    constexpr std::array<std::uint8_t, kId3TextPrefixBytes> kUtf16WithMark = {1, 0xFF, 0xFE};
    std::array<std::uint8_t, kId3FrameHeadBytes> head{};  // the two flag bytes stay 0
    std::memcpy(head.data(), id, kIdBytes);
    PutBigEndian(head.data() + kIdBytes, text.size() + kId3TextPrefixBytes, 4);
    return Write(file, head) && Write(file, kUtf16WithMark) && Write(file, text) ? VrSuccess
                                                                                 : VrErrorFailed;
}

/// A number in four bytes of seven bits, most significant first.
void PutSyncsafe(std::uint8_t* out, std::uint64_t value) {
    for (std::size_t index = 0; index < 4; ++index) {
        out[index] = static_cast<std::uint8_t>((value >> (7 * (3 - index))) & 0x7FU);
    }
}

}  // namespace

Id3Texts::Id3Texts(const TagMap& tags) : frames(Convert(tags, kId3Places, &Id3Text)) {}

RiffTexts::RiffTexts(const TagMap& tags) : info(Convert(tags, kInfoPlaces, &InfoText)) {
    if (!AllEmpty(info)) {
        id3 = Id3Texts(tags);
    }
}

std::uint64_t CalculateSaveID3TagSize(const Id3Texts& tags) {
    if (AllEmpty(tags.frames)) {
        return 0;
    }
    std::uint64_t size = kId3HeadBytes;
    for (const auto& text : tags.frames) {
        if (text) {
            size += kId3FrameHeadBytes + kId3TextPrefixBytes + text->size();
        }
    }
    return size;
}

std::uint64_t CalculateSaveTagSize(const RiffTexts& tags) {
    if (AllEmpty(tags.info)) {
        return 0;
    }
    std::uint64_t list = kChunkHeadBytes + kIdBytes;  // "LIST", its size, "INFO"
    for (const auto& text : tags.info) {
        if (text) {
            list += kChunkHeadBytes + text->size();
        }
    }
    const std::uint64_t id3 = CalculateSaveID3TagSize(tags.id3);
    return list + kChunkHeadBytes + id3 + id3 % 2;
}

VrError SaveTags(const RiffTexts& tags, std::FILE* file) {
    if (file == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (AllEmpty(tags.info)) {
        return VrSuccess;
    }
    const std::uint64_t id3 = CalculateSaveID3TagSize(tags.id3);
    const std::uint64_t list =
        CalculateSaveTagSize(tags) - kChunkHeadBytes - (id3 + id3 % 2) - kChunkHeadBytes;
    if (!WriteChunkHead(file, "LIST", list) || !Write(file, std::string_view("INFO"))) {
        return VrErrorFailed;
    }
    for (std::size_t place = 0; place < tags.info.size(); ++place) {
        if (const auto& text = tags.info[place]) {
            if (const VrError error = WriteInfo(*text, kInfoPlaces[place].id, file);
                error != VrSuccess) {
                return error;
            }
        }
    }
    std::ignore = SaveID3TagAsRIFF(tags.id3, file);  // a failed write shows at the close
    return VrSuccess;
}

VrError SaveTag(const std::string& value, const char* id, std::FILE* file) {
    if (value.empty() || file == nullptr) {
        return VrErrorInvalidParameter;
    }
    return WriteInfo(InfoText(value), id, file);
}

VrError SaveID3TagAsRIFF(const Id3Texts& tags, std::FILE* file) {
    const std::uint64_t size = CalculateSaveID3TagSize(tags);
    if (size == 0 || file == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (!WriteChunkHead(file, "id3 ", size + size % 2)) {
        return VrErrorFailed;
    }
    if (const VrError error = SaveID3Tags(tags, file); error != VrSuccess) {
        return error;
    }
    if (size % 2 != 0) {
        return Write(file, std::string_view("\0", 1)) ? VrErrorFailed : VrSuccess;  // kept
    }
    return VrSuccess;
}

VrError SaveID3Tags(const Id3Texts& tags, std::FILE* file) {
    if (file == nullptr) {
        return VrErrorInvalidParameter;
    }
    if (AllEmpty(tags.frames)) {
        return VrSuccess;
    }
    std::array<std::uint8_t, kId3HeadBytes> head = {'I', 'D', '3', 3};  // version 3, no flags
    PutSyncsafe(head.data() + 6, CalculateSaveID3TagSize(tags) - kId3HeadBytes);
    if (!Write(file, head)) {
        return VrErrorFailed;
    }
    for (std::size_t place = 0; place < tags.frames.size(); ++place) {
        if (const auto& text = tags.frames[place]) {
            if (const VrError error = WriteFrame(*text, kId3Places[place].id, file);
                error != VrSuccess) {
                return error;
            }
        }
    }
    return VrSuccess;
}

VrError SaveID3Tag(const std::string& value, const char* id, std::FILE* file) {
    if (file == nullptr) {
        return VrErrorInvalidParameter;
    }
    return WriteFrame(Id3Text(value), id, file);
}

}  // namespace vorrel

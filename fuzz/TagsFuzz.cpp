// Tags of any bytes: as much is written as was announced, and no text is read past its end.
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <tuple>

#include "Require.h"
#include "writer/TagWriter.h"
#include "writer/TextEncoding.h"

namespace {

/// Bytes that `write` puts into a stream, or none when it refuses.
template <class Write>
long BytesOf(const Write& write) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = ::open_memstream(&text, &size);
    const VrError error = write(stream);
    std::ignore = std::fclose(stream);
    std::free(text);
    return error == VrSuccess ? static_cast<long>(size) : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vorrel;
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    TagMap tags;
    for (const char* key : {"Title", "Alubum", "Artist", "AlbumArtist"}) {
        const std::size_t end = rest.find('\n');
        tags[key] = std::string(rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    const long id3 = BytesOf([&](std::FILE* file) { return SaveID3Tags(tags, file); });
    fuzz::Require(id3 < 0 || id3 == static_cast<long>(CalculateSaveID3TagSize(tags)));
    const long chunks = BytesOf([&](std::FILE* file) { return SaveTags(tags, file); });
    // A text of which ID3 makes nothing is refused on the way, behind the INFO texts.
    fuzz::Require(chunks < 0 || id3 < 0 || chunks == static_cast<long>(CalculateSaveTagSize(tags)));
    for (const auto& [key, value] : tags) {
        std::string utf16;
        fuzz::Require(ToUtf16(utf16, value) <= utf16.size());
    }
    return 0;
}

#include "FileDigest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <vector>

namespace vorrel::cli {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{1} << 20;

}  // namespace

struct FileDigest::State {
    int descriptor = -1;
    EVP_MD_CTX* context = nullptr;
    std::vector<std::uint8_t> piece = std::vector<std::uint8_t>(kPieceBytes);
    bool complete = false;
};

FileDigest::FileDigest(const std::string& path) : state(std::make_unique<State>()) {
    state->descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    state->context = ::EVP_MD_CTX_new();
    if (state->context != nullptr &&
        ::EVP_DigestInit_ex(state->context, ::EVP_sha256(), nullptr) != 1) {
        ::EVP_MD_CTX_free(state->context);
        state->context = nullptr;
    }
}

FileDigest::~FileDigest() {
    ::EVP_MD_CTX_free(state->context);
    if (state->descriptor >= 0) {
        ::close(state->descriptor);
    }
}

bool FileDigest::Step(std::size_t bytes) {
    if (state->context == nullptr || state->descriptor < 0) {
        return true;
    }
    while (bytes > 0) {
        const ssize_t count =
            ::read(state->descriptor, state->piece.data(), std::min(bytes, state->piece.size()));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            state->complete = count == 0;
            return true;
        }
        const auto taken = static_cast<std::size_t>(count);
        if (::EVP_DigestUpdate(state->context, state->piece.data(), taken) != 1) {
            return true;
        }
        bytes -= taken;
    }
    return false;
}

std::string FileDigest::Text() {
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    if (!state->complete || ::EVP_DigestFinal_ex(state->context, digest.data(), &length) != 1) {
        return "";
    }
    state->complete = false;
    constexpr const char* kDigits = "0123456789abcdef";
    std::string text;
    for (std::size_t index = 0; index < length; ++index) {
        text += kDigits[digest[index] >> 4U];
        text += kDigits[digest[index] & 15U];
    }
    return text;
}

}  // namespace vorrel::cli

#include "FileDigest.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

std::string DigestOf(const std::string& path, std::size_t step) {
    FileDigest digest(path);
    while (!digest.Step(step)) {
    }
    return digest.Text();
}

// The values of FIPS 180-4's examples.
TEST(FileDigestTest, KnownTextsHaveTheirDigestsInPiecesOfAnySize) {
    const test::TempDirectory directory;
    std::ofstream(directory.File("abc")) << "abc";
    std::ofstream(directory.File("empty")) << "";
    std::ofstream(directory.File("million")) << std::string(1'000'000, 'a');

    for (const std::size_t step : {std::size_t{1} << 25, std::size_t{4099}}) {
        EXPECT_EQ(DigestOf(directory.File("abc"), step),
                  "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
        EXPECT_EQ(DigestOf(directory.File("empty"), step),
                  "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
        EXPECT_EQ(DigestOf(directory.File("million"), step),
                  "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    }
}

TEST(FileDigestTest, WhatCannotBeReadHasNone) {
    const test::TempDirectory directory;

    EXPECT_EQ(DigestOf(directory.File("none"), 100), "");
    EXPECT_EQ(DigestOf(directory.Path(), 100), "");
}

TEST(FileDigestTest, AHalfReadFileHasNone) {
    const test::TempDirectory directory;
    std::ofstream(directory.File("abc")) << "abc";
    FileDigest digest(directory.File("abc"));

    EXPECT_FALSE(digest.Step(2));

    EXPECT_EQ(digest.Text(), "");
}

}  // namespace
}  // namespace vorrel::cli

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ostream>

#include "convert/BitReversal.h"
#include "support/FileSizeLimit.h"
#include "writer/DsfHeader.h"
#include "writer/DsfWriterRig.h"
#include "writer/SaveRun.h"

namespace vorrel {
namespace {

using test::Bytes;
using test::DsfWriterTest;
using test::FileSizeLimit;
using test::RandomBytes;

/// A range in blocks against a recording of `recorded` blocks: everything that a save leaves
/// behind is that of the literal, block by block writer.
struct Shape {
    std::uint16_t channels;
    double recorded;
    double start;
    double end;
    double gain;
};

void PrintTo(const Shape& shape, std::ostream* out) {
    *out << shape.channels << " channels of " << shape.recorded << " blocks, " << shape.start
         << " to " << shape.end << ", " << shape.gain << " dB";
}

class DsfBatchTest : public DsfWriterTest, public testing::WithParamInterface<Shape> {
protected:
    VrSaveSettingInternal Make() {
        const Shape& shape = GetParam();
        MakeRecording(shape.channels,
                      static_cast<std::size_t>(std::lround(shape.recorded * 4'096)));
        return {directory.File("take.dsf"),
                shape.start,
                shape.end,
                shape.gain,
                {{"Title", "AB"}, {"Artist", "C"}}};
    }
};

TEST_P(DsfBatchTest, LeavesWhatBlockByBlockLeaves) {
    const VrSaveSettingInternal setting = Make();
    for (const std::int32_t pending : {kSaveCancelNone, kSaveCancelDelete, kSaveCancelKeep}) {
        cancelState = pending;
        ExpectLikeBlockByBlock(setting);
    }
}

TEST_P(DsfBatchTest, FailsAWriteWhereBlockByBlockFails) {
    const VrSaveSettingInternal setting = Make();
    for (const std::uint64_t bytes :
         {50U, 92U, 3'000U, 30'000U, 90'000U, 1'048'575U, 1'048'576U, 1'060'000U, 1'200'000U}) {
        const FileSizeLimit limit(bytes);
        ExpectLikeBlockByBlock(setting);
    }
}

TEST_F(DsfWriterTest, WhatTheFileStillKeepsIsNotReadOver) {
    // Batches of three channels end anywhere in the mebibytes in which the file takes them, and
    // their memory comes round twice.
    constexpr std::size_t kBlocks = 40 * kDsfBatchBlocks;
    MakeRecording(3, kBlocks * 4'096);

    ASSERT_EQ(Save(0, kBlocks), VrSuccess);

    const Bytes bytes = Saved();
    ASSERT_EQ(bytes.size(), 92U + kBlocks * 3 * 4'096);
    for (std::uint16_t channel = 0; channel < 3; ++channel) {
        Bytes expected = RandomBytes(kBlocks * 4'096, channel + 1U);
        ReverseBits(expected.data(), expected.size());
        for (std::size_t block = 0; block < kBlocks; ++block) {
            ASSERT_EQ(std::memcmp(&bytes[92 + (block * 3 + channel) * 4'096],
                                  &expected[block * 4'096], 4'096),
                      0)
                << channel << ", " << block;
        }
    }
}

constexpr double kSample = 1.0 / 32'768;  // of a block
constexpr double kBatch = kDsfBatchBlocks;

INSTANTIATE_TEST_SUITE_P(
    Shapes, DsfBatchTest,
    testing::Values(
        // Around one batch and two, whole and short last blocks.
        Shape{1, 2, 0, 1, 0}, Shape{2, 2 * kBatch, 0, kBatch - 1, 0},
        Shape{2, 2 * kBatch, 0, kBatch - 0.5, 0}, Shape{3, 2 * kBatch, 0, kBatch, 0},
        Shape{2, 2 * kBatch, 0, kBatch + 8 * kSample, 0},
        Shape{2, 2 * kBatch, 0, 2 * kBatch - 0.25, 0}, Shape{1, 2 * kBatch, 0, 2 * kBatch, 0},
        Shape{2, 3 * kBatch, 0, 2 * kBatch + 1, 0}, Shape{8, 3 * kBatch, 0, 2.5 * kBatch + 0.25, 0},
        Shape{2, 5, 0, 0, 0}, Shape{2, 5, 0, 16 * kSample, 0},
        // Last blocks of no whole byte, aligned and not: the latter write a block of zeros.
        Shape{1, 5, 0, 7 * kSample, 0}, Shape{2, 2 * kBatch, 0, kBatch + 7 * kSample, 0},
        Shape{2, 5, 3 * kSample, 10 * kSample, 0},
        Shape{2, 2 * kBatch, 3 * kSample, kBatch + 9 * kSample, 0},
        Shape{2, 2 * kBatch, 0, kBatch + 1 + 4 * kSample, 0},
        // Starts within a byte and within a batch.
        Shape{2, 2 * kBatch, 5 * kSample, kBatch + 4, 0},
        Shape{1, 2 * kBatch, 7 * kSample, kBatch + 15 * kSample, 0},
        Shape{1, 5, 7 * kSample, 1 + 22 * kSample, 0},
        Shape{2, 2 * kBatch, 10.25, kBatch + 20.5, 0},
        // Ends past the recording, in every place of a batch.
        Shape{2, 10, 0, 12, 0}, Shape{2, kBatch - 0.5, 0, kBatch, 0},
        Shape{2, kBatch, 0, kBatch + 1, 0}, Shape{2, kBatch + 0.25, 0, 2 * kBatch, 0},
        Shape{2, 2 * kBatch - 1, 0, 2 * kBatch, 0}, Shape{2, 2 * kBatch, 0, 2 * kBatch + 0.5, 0},
        Shape{1, 2 * kBatch + 1, 0, 20 * kBatch, 0}, Shape{2, 20, 20, 21, 0},
        Shape{2, 20, 25, 30, 0}, Shape{2, 20.5, 4 * kSample, 20.5 + 4 * kSample, 0},
        // More than all batches that are in hand.
        Shape{1, 20 * kBatch, 0, 19.5 * kBatch, 0},
        // With gain, which goes on from block to block.
        Shape{2, kBatch + 4, 0, kBatch + 2.5, -6}, Shape{1, 2 * kBatch, 0.5, kBatch + 3.25, 6},
        Shape{2, 17, 0.5, 30, -20}, Shape{2, kBatch + 4, 5 * kSample, kBatch + 7 * kSample, -3},
        Shape{8, 2, 0, 2, -0.5}, Shape{1, kBatch + 4, 0, kBatch + 1, -400}));

}  // namespace
}  // namespace vorrel

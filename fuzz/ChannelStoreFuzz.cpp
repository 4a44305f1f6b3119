// Any order of blocks, ranges and reads: the channel store holds what a plain model holds.
#include <cstdint>
#include <vector>

#include "Input.h"
#include "Require.h"
#include "ScratchDirectory.h"
#include "store/TemporaryData.h"
#include "support/FakeManager.h"
#include "support/models/TemporaryDataModel.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace vorrel;
    static const fuzz::ScratchDirectory directory;
    test::FakeManager manager(directory.Path());
    fuzz::Input input(data, size);
    const auto memorySize = static_cast<std::uint32_t>(1 + input.Below(32));
    const std::uint64_t segmentBytes = 1 + input.Below(200);
    test::TemporaryDataModel model(memorySize, segmentBytes);
    TemporaryData store(manager, segmentBytes);
    fuzz::Require(store.Init(memorySize) == VrSuccess);
    std::uint64_t length = 0;
    while (!input.Ended()) {
        if (input.Below(3) != 0) {
            std::vector<std::uint8_t> block(input.Below(100));
            for (std::uint8_t& byte : block) {
                byte = static_cast<std::uint8_t>(length++ * 7);
            }
            std::vector<PositionRange> ranges;
            for (std::uint64_t at = length - block.size(); input.Below(2) != 0 && at < length;) {
                const std::uint64_t first = at + input.Below(length - at);
                const std::uint64_t second = first + input.Below(length - first + 1);
                ranges.emplace_back(first, second);
                at = second + 1;
                if (first == second) {
                    break;  // an open range is the last
                }
            }
            fuzz::Require(store.Add(block, ranges) == VrSuccess);
            fuzz::Require(model.Add(block, ranges, true));
        } else {
            const std::uint64_t available = model.AvailableLength();
            fuzz::Require(store.GetLength(true) == available);
            const std::uint64_t from = input.Below(available);
            const std::uint64_t to = from + input.Below(available - from + 1);
            std::vector<std::uint8_t> out;
            const VrError error = store.GetData(from, to, out, true);
            fuzz::Require(to > from ? error == VrSuccess && out == model.Available(from, to)
                                    : error == VrErrorInvalidParameter);
        }
    }
    return 0;
}

#include "CaptureStream.h"

namespace vorrel::e2e {
namespace {

unsigned PatternBits(const WireFormat& format) {
    return format.bits == 16 ? 16 : 24;
}

}  // namespace

CaptureStream::CaptureStream(const WireFormat& format, StreamMode mode, std::uint32_t rateHz)
    : bytes(format.bytes),
      shift(format.bytes * 8 - PatternBits(format)),
      pattern(mode, PatternBits(format)),
      pacer(rateHz) {}

void CaptureStream::AppendPacket(ByteVector& out) {
    for (std::uint32_t left = pacer.Next(); left > 0; --left) {
        for (const std::uint32_t sample : pattern.At(frame)) {
            AppendNumber(out, sample << shift, bytes);
        }
        ++frame;
    }
}

void CaptureStream::Skip(std::uint64_t packets) {
    for (; packets > 0; --packets) {
        frame += pacer.Next();
    }
}

}  // namespace vorrel::e2e

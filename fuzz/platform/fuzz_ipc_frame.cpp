// The IPC frame reader: a byte stream arriving in arbitrary pieces.
#include <cstddef>
#include <cstdint>
#include <string>

#include "frame.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    // The first byte picks the piece size, so frames straddle reads.
    const size_t piece = 1 + data[0] % 64;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    size_t left = size - 1;
    kemipc::FrameReader reader;
    size_t taken = 0;
    bool bad = false;
    while (left > 0 && !bad) {
        const size_t n = left < piece ? left : piece;
        reader.feed(bytes, n);
        bytes += n;
        left -= n;
        kemipc::Frame frame;
        for (;;) {
            kemipc::FrameReader::Result result = reader.take(&frame);
            if (result == kemipc::FrameReader::Result::Bad) {
                bad = true;
                break;
            }
            if (result == kemipc::FrameReader::Result::NeedMore) break;
            FUZZ_CHECK(frame.data.size() <= kemipc::kMaxFrameData);
            taken += sizeof(kemipc::FrameHeader) + frame.data.size();
        }
    }
    // Frames never claim more bytes than arrived.
    FUZZ_CHECK(taken <= size - 1);
    return 0;
}

#include "frame_numbers.h"

#include "sdv_scan.h"

namespace sdv {
uint64_t missing_between(uint32_t before, uint32_t after)
{
    const uint32_t step = after - before;
    return step > 1 && step <= LongestLoss ? step - 1 : 0;
}

void add_number(FrameNumbers& numbers, uint32_t number)
{
    if (number == 0) return;
    if (numbers.last && number - *numbers.last != 1) {
        ++numbers.gaps;
        numbers.missing += missing_between(*numbers.last, number);
    }
    numbers.last = number;
}

FrameNumbers numbers_of(const std::string& path)
{
    RecordingFile file;
    FrameNumbers numbers;
    std::string why;
    constexpr int Mpeg4Mode = 11; // its frames have no numbers
    if (open_recording(file, path, why) != Opened::Fine || file.header.Mode == Mpeg4Mode) return numbers;
    const auto count = [&numbers](const ScannedFrame& frame) {
        if (is_consistent(frame)) add_number(numbers, frame.header.u32FrameNO);
    };
    scan_frames(file, {}, {count, [](const Gap&) {}}, why);
    return numbers;
}

} // namespace sdv

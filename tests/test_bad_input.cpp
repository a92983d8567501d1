#include <algorithm>

#include "support.h"

static const std::vector<Bytes> slot = {sdv::g711_slot(noise(8, 1))};
static const Frames frames = {with_audio(picture(1, 20, 0), 2, {}, slot), picture(2, 21),
                              with_audio(picture(3, 22, 0), 2, {}, slot)};

TEST(BadInput, EveryPrefixGivesItsWholeFrames)
{
    TempDir dir;
    const Bytes bytes = recording(frames);
    std::vector<size_t> ends;
    for (const sdv::FrameFields& frame : frames)
        ends.push_back((ends.empty() ? 88 : ends.back()) + sdv::frame(frame).size());
    for (size_t length = 0; length <= bytes.size(); ++length) {
        SCOPED_TRACE(length);
        write_file(dir / "in", part(bytes, 0, length));
        const Outcome outcome = convert(dir / "in", dir / "out");
        EXPECT_EQ(outcome, length < 7 ? noHeader : length < 88 + 32 ? noKeyFrame : done);
        const size_t whole = size_t(std::upper_bound(ends.begin(), ends.end(), length) - ends.begin());
        EXPECT_EQ(whole ? expect_sound(dir / "out").videoLength : 0, whole);
        EXPECT_EQ(file_size(dir / "out") == 212, outcome == done && !whole);
        EXPECT_EQ(exists(dir / "out"), outcome == done);
    }
}

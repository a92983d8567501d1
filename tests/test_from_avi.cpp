// Recording to AVI file and back: the second AVI file is the first one.
#include "adts.h"
#include "from_avi.h"
#include "support.h"

static Bytes aac(std::initializer_list<size_t> sizes, size_t room)
{
    Bytes bytes;
    for (const size_t size : sizes) sdv::append(bytes, adts::frame(noise(size, uint32_t(size)), 16000));
    bytes.resize(std::max(room, bytes.size()), 0);
    return bytes;
}

static std::vector<std::pair<const char*, Frames>> shapes()
{
    const auto pic = [](uint32_t number, size_t size = 100) { return picture(number, size, number != 1); };
    auto slot = [seed = 0u](size_t samples) mutable { return sdv::g711_slot(noise(samples, ++seed)); };
    const std::vector<Bytes> two = {slot(320), slot(320)}, odd = {slot(33)};
    const std::vector<Bytes> most(255, odd[0]);
    const std::vector<Bytes> long90(90, slot(511)); // too much for a frame that has as many already
    return {
        {"video", {pic(1), pic(2, 33), pic(3, 0)}},
        {"slots on both sides", {with_audio(pic(1), 2, two, two), with_audio(pic(2), 2, two, {})}},
        {"several sizes", {with_audio(pic(1), 1, odd, odd), with_audio(pic(2), 1, two, two), pic(3)}},
        {"most slots", {with_audio(pic(1), 1, {}, most), with_audio(pic(2), 1, most, odd)}},
        {"large", {with_audio(pic(1, 1000000), 2, {}, long90), with_audio(pic(2), 2, long90, {})}},
        {"announced, but never there", {with_audio(pic(1), 2, {}, {}), pic(2)}},
        {"late", {pic(1), pic(2), with_audio(pic(3), 2, odd, odd)}},
        {"AAC",
         {with_audio(pic(1), 22, {aac({50}, 80)}, {aac({43}, 80)}),
          with_audio(pic(2), 22, {}, {aac({200, 0}, 300)}),
          with_audio(pic(3), 22, {aac({8184}, 9000)}, {aac({1, 2, 3}, 9000)})}},
        {"longest AAC", {with_audio(pic(1), 22, {}, std::vector<Bytes>(15, aac({8184, 8184, 8184}, 0)))}},
    };
}

static Bytes to_avi(const Frames& frames, const sdv::FileFields& header)
{
    Recording pushed(header);
    for (sdv::FrameFields fields : frames) {
        fields.flag = uint32_t(GetFrameFlagByMode(header.mode));
        Bytes frame = sdv::frame(fields);
        EXPECT_EQ(RecordAviEx(frame.data(), int(frame.size())), 0);
    }
    EXPECT_EQ(StopRecordEx(0), 0);
    return read_file(pushed.path);
}

TEST(FromAvi, TheWayBackEndsWhereItBegan)
{
    TempDir dir;
    std::string why;
    Frames again;
    sdv::FileFields back;
    for (const uint16_t mode : {21, 31, 32, 41})
        for (const auto& [what, frames] : shapes()) {
            SCOPED_TRACE(testing::Message() << what << ", mode " << mode);
            const sdv::FileFields header = {.mode = mode, .frameRate = 12, .width = 640, .sampleRate = 16000};
            const Bytes avi = to_avi(frames, header);
            write_file(dir / "a.avi", avi);
            ASSERT_TRUE(sdv::from_avi(dir / "a.avi", back = {}, again = {}, why)) << why;
            back.mode = mode;
            EXPECT_TRUE(same_bytes(to_avi(again, back), avi));
        }
    write_file(dir / "a.avi", part(read_file(dir / "a.avi"), 0, 1000));
    EXPECT_FALSE(sdv::from_avi(dir / "a.avi", back, again, why));
}

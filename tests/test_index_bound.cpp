// A camera whose chunks are hardly more than index: its audio is left out, at last its frames.
#include "index_bound.h"
#include "support.h"

TEST(IndexBound, LeavesOutWhatOnlyFillsTheMemory)
{
    sdv::FrameFields silent = picture(7);
    silent.audioCode = 22;
    const auto whole = with_audio(silent, 22, {noise(50, 1)}, {noise(50, 2), noise(50, 3)});
    sdv::FrameFields enciphered = whole, halfSilent = whole;
    enciphered.reserved = halfSilent.reserved = 2;
    halfSilent.audioAfter.clear();
    const Bytes all = sdv::frame(whole), video = with(sdv::frame(silent), 26, half(50));
    const std::tuple<const char*, int32_t, int, Bytes, Bytes, const char*> rows[] = {
        {"what any file may have", 1 << 20, 8 << 20, all, all, ""},
        {"one chunk more", (1 << 20) + 1, 8 << 20, all, video, "audio"},
        {"and enciphered", (1 << 20) + 1, 8 << 20, sdv::frame(enciphered), sdv::frame(halfSilent), "audio"},
        {"one more in a large file", (1 << 20) + 1, 1 << 30, all, all, ""},
        {"far too many there", 9 << 20, 1 << 30, all, {}, "key frame"},
    };
    for (const auto& [what, chunks, size, frame, kept, words] : rows) {
        SCOPED_TRACE(what);
        Recording recording;
        ASSERT_EQ(fseeko(g_tSdv2Avi.m_fsRec, size, SEEK_SET), 0);
        g_tSdv2Avi.m_iTotalFrames = chunks;
        EXPECT_EQ(tools::is_index_full(), chunks >= 8 << 20);
        tools::IndexBound bound;
        for (const std::string told : {words, ""}) { // once
            Bytes bytes = frame;
            std::span<uint8_t> left;
            const std::string said = written_to(2, [&] { left = tools::bound_index(bound, bytes); });
            EXPECT_TRUE(same_bytes(Bytes(left.begin(), left.end()), kept));
            EXPECT_TRUE(told.empty() ? said.empty() : said.find(told) != said.npos) << said;
        }
        g_tSdv2Avi.m_iTotalFrames = 0;
    }
}

#include "support.h"

struct Entry
{
    uint32_t id, flags, offset, size;
    bool operator==(const Entry&) const = default;
};

const uint32_t videoId = 0x63643030, audioId = 0x62773130;

TEST(AviIndex, EntriesAndOffsetsByKind)
{
    Job job;
    const std::tuple<int, int, Entry> rows[] = {{1001, 0, {videoId, 0x10, 4, 1001}},
                                                {1000, 1, {videoId, 0, 1014, 1000}},
                                                {320, 5, {audioId, 0x10, 2022, 320}},
                                                {0, 1, {videoId, 0, 2350, 0}},
                                                {1, 5, {audioId, 0x10, 2358, 1}}};
    for (const auto& [length, kind, want] : rows) {
        for (const int unknown : {-1, 2, 3, 4, 6, 255}) EXPECT_EQ(AVI_AddIndex(77, unknown), -1);
        const int32_t at = g_tSdv2Avi.m_IndexBlock->m_iIndexCount;
        ASSERT_EQ(AVI_AddIndex(length, kind), 0);
        ASSERT_EQ(g_tSdv2Avi.m_IndexBlock->m_iIndexCount, at + 1);
        const AVI_IndexEntity& got = g_tSdv2Avi.m_IndexBlock->m_IndexBlock[at];
        EXPECT_EQ((Entry{got.dwChunkId, got.dwFlags, got.dwOffset, got.dwSize}), want);
    }
    EXPECT_EQ(g_tSdv2Avi.m_iAviOffset, 2368);
}

TEST(AviIndex, OffsetsPassTwoGiB)
{
    Job job;
    g_tSdv2Avi.m_iAviOffset = 0x7FFFFF00;
    ASSERT_EQ(AVI_AddIndex(1000, 1), 0);
    ASSERT_EQ(AVI_AddIndex(1000, 1), 0);
    const AVI_IndexBlock& block = *g_tSdv2Avi.m_IndexBlock;
    EXPECT_EQ(block.m_IndexBlock[block.m_iIndexCount - 1].dwOffset, 0x7FFFFF00u + 1008);
    EXPECT_EQ(uint32_t(g_tSdv2Avi.m_iAviOffset), 0x7FFFFF00u + 2016);
}

TEST(AviIndex, BlocksAreWrittenInChunkOrder)
{
    const std::tuple<int, uint32_t, int> rows[] = {
        {1, 0, 1}, {3000, 0, 3000}, {3001, 1, 1}, {6000, 1, 3000}, {7000, 2, 1000}};
    for (const auto& [entries, queued, current] : rows) {
        TempDir dir;
        Job job;
        ASSERT_EQ(StartRecord(0, (dir / "i").c_str(), 1), 0);
        std::vector<Entry> want;
        uint32_t offset = 4;
        for (int i = 0; i < entries; ++i) {
            const uint32_t size = uint32_t(i) * 7 % 1000;
            ASSERT_EQ(AVI_AddIndex(int(size), i % 5 == 0 ? 5 : i % 3 == 0 ? 0 : 1), 0);
            want.push_back(
                {i % 5 == 0 ? audioId : videoId, i % 5 == 0 || i % 3 == 0 ? 0x10u : 0, offset, size});
            offset += 8 + size + size % 2;
        }
        EXPECT_EQ(adt_dlist_size(g_tSdv2Avi.m_lstIndex), queued);
        EXPECT_EQ(g_tSdv2Avi.m_IndexBlock->m_iIndexCount, current);

        UCHAR front[] = "chunks";
        WriteTofile(front, 6);
        rewind(g_tSdv2Avi.m_fsRec); // the index belongs at the end, wherever the position is
        EXPECT_EQ(AVI_CreateAVIIndex(entries, AVI_Video), 0);
        fflush(g_tSdv2Avi.m_fsRec);
        const Bytes bytes = read_file(dir / "i");
        ASSERT_EQ(bytes.size(), 6 + 8 + 16 * size_t(entries));
        EXPECT_EQ(number_at(bytes, 6), 0x31786469u);
        EXPECT_EQ(number_at(bytes, 10), 16 * uint32_t(entries));
        for (size_t i = 0; i < want.size(); ++i) {
            const size_t at = 14 + 16 * i;
            ASSERT_EQ((Entry{number_at(bytes, at), number_at(bytes, at + 4), number_at(bytes, at + 8),
                             number_at(bytes, at + 12)}),
                      want[i])
                << "entry " << i;
        }
        EXPECT_EQ(g_tSdv2Avi.m_IndexBlock, nullptr);
        EXPECT_EQ(adt_dlist_size(g_tSdv2Avi.m_lstIndex), 0u);
        EXPECT_EQ(adt_dlist_size(m_lstIndexPoll), queued + 1);
        EXPECT_EQ(AVI_AddIndex(10, 0), -1);
    }
}

#include "support.h"

TEST(AviIndex, EntriesAndOffsetsByKind)
{
    Job job;
    const std::tuple<int, int, Bytes> rows[] = {{1001, 0, words("00dc", 0x10, 4, 1001)},
                                                {1000, 1, words("00dc", 0, 1014, 1000)},
                                                {320, 5, words("01wb", 0x10, 2022, 320)},
                                                {0, 1, words("00dc", 0, 2350, 0)}};
    AVI_IndexBlock& block = *g_tSdv2Avi.m_IndexBlock;
    for (const auto& [length, kind, want] : rows) {
        for (const int unknown : {-1, 2, 4, 6, 255}) EXPECT_EQ(AVI_AddIndex(77, unknown), -1);
        ASSERT_EQ(AVI_AddIndex(length, kind), 0);
        const auto* entry = reinterpret_cast<const uint8_t*>(&block.m_IndexBlock[block.m_iIndexCount - 1]);
        EXPECT_TRUE(same_bytes(Bytes(entry, entry + 16), want));
    }
    EXPECT_EQ(block.m_iIndexCount, 4);

    g_tSdv2Avi.m_iAviOffset = 0x7FFFFF00; // offsets pass 2 GiB
    for (int i = 0; i < 2; ++i) ASSERT_EQ(AVI_AddIndex(1000, 1), 0);
    EXPECT_EQ(block.m_IndexBlock[block.m_iIndexCount - 1].dwOffset, 0x7FFFFF00u + 1008);
    EXPECT_EQ(uint32_t(g_tSdv2Avi.m_iAviOffset), 0x7FFFFF00u + 2016);
}

TEST(AviIndex, BlocksAreWrittenInChunkOrder)
{
    const std::tuple<int, uint32_t, int> rows[] = {{1, 0, 1}, {3000, 0, 3000}, {3001, 1, 1}, {7000, 2, 1000}};
    for (const auto& [entries, queued, current] : rows) {
        SCOPED_TRACE(entries);
        Recording open;
        Bytes want = Bytes{'f', 'r', 'o', 'n', 't'} + words("idx1", 16 * entries);
        uint32_t offset = 4;
        for (int i = 0; i < entries; ++i) {
            const uint32_t size = uint32_t(i) * 7 % 1000;
            const bool audio = i % 5 == 0, key = i % 3 == 0;
            ASSERT_EQ(AVI_AddIndex(int(size), audio ? 5 : key ? 0 : 1), 0);
            sdv::append(want, words(audio ? "01wb" : "00dc", audio || key ? 0x10 : 0, offset, size));
            offset += 8 + size + size % 2;
        }
        EXPECT_EQ(adt_dlist_size(g_tSdv2Avi.m_lstIndex), queued);
        EXPECT_EQ(g_tSdv2Avi.m_IndexBlock->m_iIndexCount, current);

        WriteTofile(want.data(), 5);
        rewind(g_tSdv2Avi.m_fsRec); // the index belongs at the end, wherever the position is
        EXPECT_EQ(AVI_CreateAVIIndex(entries, AVI_Video), 0);
        fflush(g_tSdv2Avi.m_fsRec);
        EXPECT_TRUE(same_bytes(read_file(open.path), want));
        EXPECT_EQ(g_tSdv2Avi.m_IndexBlock, nullptr);
        EXPECT_EQ(adt_dlist_size(g_tSdv2Avi.m_lstIndex), 0u);
        EXPECT_EQ(adt_dlist_size(m_lstIndexPoll), queued + 1);
        EXPECT_EQ(AVI_AddIndex(10, 0), -1);
    }
}

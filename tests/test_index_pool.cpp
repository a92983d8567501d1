#include <cstring>

#include "support.h"

TEST(IndexPool, BlocksComeBackCleanInTheOrderGiven)
{
    Job job;
    const int32_t held = m_iSize;
    AVI_IndexBlock* blocks[3];
    for (AVI_IndexBlock*& block : blocks) {
        ASSERT_TRUE((block = MallocIndexBlock()));
        memset(block, 0xA5, sizeof(*block));
    }
    for (AVI_IndexBlock* block : blocks) FreeIndexBlock(block);
    FreeIndexBlock(nullptr);
    EXPECT_EQ(m_iSize, held + 3);
    for (AVI_IndexBlock* block : blocks) {
        EXPECT_EQ(MallocIndexBlock(), block);
        EXPECT_TRUE(all_zero(block, sizeof(*block)));
    }
    FreeIndexBlock(blocks[0]);
    Destroy();
    EXPECT_EQ(m_iSize, held + 2) << "blocks still held count";

    for (const auto& [size, kept] : {std::pair{7200, 1u}, {7201, 0u}}) {
        const int32_t real = m_iSize;
        m_iSize = size;
        FreeIndexBlock(blocks[kept ? 1 : 2]);
        EXPECT_EQ(adt_dlist_size(m_lstIndexPoll), kept) << "more than 7200 blocks are not kept";
        m_iSize += real - size;
        Destroy();
    }
    two_at_once([](int) {
        for (int i = 0; i < 200; ++i) {
            AVI_IndexBlock* block = MallocIndexBlock();
            EXPECT_EQ(block->m_iIndexCount++, 0);
            FreeIndexBlock(block);
        }
    });
    Destroy();
    EXPECT_EQ(m_iSize, held);
}

TEST(AviIndex, TakesKnownKindsWhileItHoldsABlock)
{
    Job job;
    for (const int unknown : {-1, 2, 4, 6, 255}) EXPECT_EQ(AVI_AddIndex(77, unknown), -1);
    EXPECT_EQ(g_tSdv2Avi.m_iAviOffset, 4);
    EXPECT_EQ(AVI_AddIndex(77, 5), 0);
    EXPECT_EQ(AVI_CreateAVIIndex(1, AVI_Video), 0);
    EXPECT_EQ(g_tSdv2Avi.m_IndexBlock, nullptr);
    EXPECT_EQ(AVI_AddIndex(10, 0), -1);
}

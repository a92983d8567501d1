#include <algorithm>
#include <cstring>

#include "support.h"

static bool all_zero(const AVI_IndexBlock* block)
{
    const auto* bytes = reinterpret_cast<const char*>(block);
    return std::all_of(bytes, bytes + sizeof(*block), [](char byte) { return byte == 0; });
}

TEST(IndexPool, BlocksComeBackCleanInTheOrderGiven)
{
    static_assert(sizeof(AVI_IndexBlock) == 48004 && sizeof(AVI_IndexEntity) == 16);
    Job job;
    const int32_t held = m_iSize;
    AVI_IndexBlock* blocks[3];
    for (AVI_IndexBlock*& block : blocks) {
        block = MallocIndexBlock();
        ASSERT_TRUE(block && all_zero(block));
        memset(block, 0xA5, sizeof(*block));
    }
    EXPECT_EQ(m_iSize, held + 3);
    for (AVI_IndexBlock* block : blocks) FreeIndexBlock(block);
    FreeIndexBlock(nullptr);
    EXPECT_EQ(m_iSize, held + 3);
    EXPECT_EQ(adt_dlist_size(m_lstIndexPoll), 3u);
    for (AVI_IndexBlock* block : blocks) {
        EXPECT_EQ(MallocIndexBlock(), block);
        EXPECT_TRUE(all_zero(block));
    }
    FreeIndexBlock(blocks[0]);
    FreeIndexBlock(blocks[2]);
    Destroy();
    EXPECT_EQ(m_iSize, held + 1) << "blocks still held count";
    EXPECT_EQ(adt_dlist_size(m_lstIndexPoll), 0u);
    FreeIndexBlock(blocks[1]);
}

TEST(IndexPool, MoreThan7200BlocksAreNotKept)
{
    Job job;
    const int32_t before = m_iSize;
    for (const auto& [size, kept] : {std::pair{7200, true}, {7201, false}}) {
        AVI_IndexBlock* block = MallocIndexBlock();
        const int32_t real = m_iSize;
        m_iSize = size;
        FreeIndexBlock(block);
        EXPECT_EQ(m_iSize, kept ? size : size - 1);
        EXPECT_EQ(adt_dlist_size(m_lstIndexPoll), kept ? 1u : 0u);
        m_iSize = kept ? real : real - 1;
        Destroy();
        EXPECT_EQ(m_iSize, before);
    }
}

TEST(IndexPool, ThreadsShareIt)
{
    Job job;
    const int32_t before = m_iSize;
    two_at_once([](int) {
        for (int i = 0; i < 200; ++i) {
            AVI_IndexBlock* block = MallocIndexBlock();
            EXPECT_EQ(block->m_iIndexCount++, 0);
            FreeIndexBlock(block);
        }
    });
    EXPECT_LE(m_iSize, before + 2);
    Destroy();
    EXPECT_EQ(m_iSize, before);
}

#include "CLS_SingleAviIndex.h"

#include <stdlib.h>
#include <string.h>

#include "block_list.h"

static_assert(sizeof(AVI_IndexEntity) == 16 && sizeof(AVI_IndexBlock) == 48004);

static const int32_t MAX_BLOCKS = 7200;

int32_t m_iSize;
pthread_mutex_t m_Lock = PTHREAD_MUTEX_INITIALIZER;
DList* m_lstIndexPoll;

void SingleAviIndexInit(void)
{
    pthread_mutex_init(&m_Lock, nullptr);
}

void SingleAviIndexDestroy(void)
{
    pthread_mutex_destroy(&m_Lock);
}

static void discard_block(AVI_IndexBlock* block)
{
    free(block);
    --m_iSize;
}

static AVI_IndexBlock* take_or_allocate()
{
    PlainLock pool(m_Lock);
    ListLock waiting(m_lstIndexPoll);
    if (AVI_IndexBlock* block = take_first_block(m_lstIndexPoll)) return block;

    AVI_IndexBlock* block = static_cast<AVI_IndexBlock*>(malloc(sizeof(AVI_IndexBlock)));
    if (block) ++m_iSize;
    return block;
}

AVI_IndexBlock* MallocIndexBlock(void)
{
    AVI_IndexBlock* block = take_or_allocate();
    if (block) memset(block, 0, sizeof(*block));
    return block;
}

void FreeIndexBlock(AVI_IndexBlock* _pIndexBlock)
{
    if (!_pIndexBlock) return;

    PlainLock pool(m_Lock);
    if (m_iSize > MAX_BLOCKS) {
        discard_block(_pIndexBlock);
        return;
    }
    ListLock waiting(m_lstIndexPoll);
    if (!queue_block(m_lstIndexPoll, _pIndexBlock)) discard_block(_pIndexBlock);
}

void Destroy(void)
{
    ListLock waiting(m_lstIndexPoll);
    while (AVI_IndexBlock* block = take_first_block(m_lstIndexPoll)) discard_block(block);
}

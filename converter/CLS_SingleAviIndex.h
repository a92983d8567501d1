/*
 * CLS_SingleAviIndex.h: blocks of index entries, and the pool that keeps them for reuse.
 *
 * A recording takes one block per 3000 chunks. Blocks given back wait in the pool and are handed out again,
 * the one that has waited longest first, before a new one is allocated.
 *
 * Lock order, never reversed: m_Lock, then the lock of m_lstIndexPoll. A caller that holds the lock of the
 * job's list m_lstIndex may call FreeIndexBlock().
 */
#ifndef QUORLIN_CLS_SINGLEAVIINDEX_H
#define QUORLIN_CLS_SINGLEAVIINDEX_H

#include <pthread.h>

#include "libos.h"
#include "platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One entry of the idx1 chunk, as it lies in the file. */
typedef struct AVI_IndexEntity
{
    DWORD dwChunkId; /* "00dc" video, "01wb" audio */
    DWORD dwFlags;   /* 0x10 for a video key frame and for audio, else 0 */
    DWORD dwOffset;  /* of the chunk's header, from the "movi" FourCC; the first chunk has 4 */
    DWORD dwSize;    /* data bytes, without the pad byte */
} AVI_IndexEntity;

enum
{
    AVI_INDEX_BLOCK_ENTRIES = 3000
};

typedef struct AVI_IndexBlock
{
    int32_t m_iIndexCount; /* entries in use */
    AVI_IndexEntity m_IndexBlock[AVI_INDEX_BLOCK_ENTRIES];
} AVI_IndexBlock;

/* Blocks in existence, handed out or waiting. */
extern QUORLIN_API int32_t m_iSize;
/* The pool's lock. */
extern QUORLIN_API pthread_mutex_t m_Lock;
/* Waiting blocks, oldest at the head; each node carries one block pointer. NULL outside of a prepared job. */
extern QUORLIN_API DList* m_lstIndexPoll;

/** Initialise m_Lock with default attributes. Initialize() calls it. */
QUORLIN_API void SingleAviIndexInit(void);

/** Destroy m_Lock. QuorlinRelease() calls it. */
QUORLIN_API void SingleAviIndexDestroy(void);

/**
 * Take a block, all of its bytes zero, from the pool or newly allocated (and then counted in m_iSize).
 * It is the caller's until it is given back. Returns NULL when no memory is to be had.
 */
QUORLIN_API AVI_IndexBlock* MallocIndexBlock(void);

/**
 * Give a block back: it waits in the pool, or is freed when more than 7200 blocks exist or it cannot be
 * queued. NULL does nothing.
 */
QUORLIN_API void FreeIndexBlock(AVI_IndexBlock* _pIndexBlock);

/** Free every block that waits in the pool. Takes the list's lock only; call it when no recording runs. */
QUORLIN_API void Destroy(void);

#ifdef __cplusplus
}
#endif

#endif

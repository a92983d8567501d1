/*
 * libos.h: the operating-system layer. Mutexes, threads and sleep; logging; lists;
 * ring buffer; hex text and character sets.
 *
 * Results. Operations return 1 for success and 0 for failure, creators a pointer or NULL, unless an entry
 * below says otherwise. Every failure that an entry calls "reported" is written as one line to standard
 * error, and to a dated log file when logging to file is on:
 *
 *     2026-03-09 14:05:59 file: libos_dlist.cpp line: 31 dlist is null
 *
 * with ": " and the system's error text behind the message where an entry says "with errno".
 *
 * Threads. Any thread may call any operation, under the rules that its section gives.
 */
#ifndef QUORLIN_LIBOS_H
#define QUORLIN_LIBOS_H

#include <pthread.h>
#include <stdint.h>

#if defined(__GNUC__)
#define LIBOS_API __attribute__((visibility("default")))
#define LIBOS_PRINTF(text, args) __attribute__((format(printf, text, args)))
#define LIBOS_NORETURN __attribute__((noreturn))
#else
#define LIBOS_API
#define LIBOS_PRINTF(text, args)
#define LIBOS_NORETURN
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int8_t int8;
typedef uint8_t uint8;
typedef uint16_t uint16;
typedef int32_t int32;
typedef uint32_t uint32;

/* ---------------------------------------------------------------------------------------------------------
 * Mutexes, threads, sleep
 *
 * A mutex is embedded in another record and prepared with os_mutex_init(), or made by os_mutex_create() and
 * released with os_mutex_free(). Destroying a locked mutex, or using a destroyed one, is the caller's error;
 * nothing checks it. A NULL mutex is reported with "mutex is null", a NULL thread with "thr is null"; a
 * platform call that fails is told by the result 0 alone unless an entry says more.
 */
typedef struct LMutex
{
    pthread_mutex_t mutex;
} LMutex;

typedef struct LThread
{
    pthread_t thr;
} LThread;

typedef void* (*ThreadStartFunc)(void* arg);

/** Prepare a mutex. recursive non-zero: its owner may lock it again, and unlocks it as often. */
LIBOS_API int os_mutex_init(LMutex* mutex, int recursive);

/** A new mutex on the heap, to be released with os_mutex_free(). NULL, reported, when there is none. */
LIBOS_API LMutex* os_mutex_create(int recursive);

/** End the life of a mutex; its memory stays the caller's. */
LIBOS_API int os_mutex_destroy(LMutex* mutex);

/** Destroy and release a mutex made by os_mutex_create(). Always 1, also for NULL (which is reported). */
LIBOS_API int os_mutex_free(LMutex* mutex);

/** Wait until the mutex is ours. */
LIBOS_API int os_mutex_lock(LMutex* mutex);
LIBOS_API int os_mutex_unlock(LMutex* mutex);

/**
 * Start a thread running start(arg). It is joinable: one os_thread_join() or os_thread_detach() is due.
 *
 * @param thr        filled in; the caller's record
 * @param stack_size bytes; 0 means 1 MiB. A size that the platform refuses leaves its default in force.
 * @return 1; 0 when it could not be created ("pthread_create fail", with errno, which tells the cause)
 */
LIBOS_API int os_thread_create(LThread* thr, uint32 stack_size, ThreadStartFunc start, void* arg);

/** Wait for the thread's end. Its result is not collected. */
LIBOS_API int os_thread_join(LThread* thr);

LIBOS_API int os_thread_detach(LThread* thr);

/** The calling thread's identifier, cut to 32 bits. */
LIBOS_API int32 os_thread_self(void);

/** Sleep i milliseconds; 0 or less returns at once. A signal that the thread handles ends the sleep early. */
LIBOS_API void os_sleep(int32 i);

/* ---------------------------------------------------------------------------------------------------------
 * Logging
 *
 * Every report becomes one line on standard error. When an entry named "dbg" exists in the working directory
 * at the process's first report, every line is also appended to the file
 *
 *     <path>log_YYYY-MM-DD        <path> as given to log_set_path(), empty at first
 *
 * of the local day, and flushed. Opening a log file removes, from the directory <path>/ ("/root/x1/" while
 * the path is empty), regular files named log_YYYY-MM-DD of a day more than 7 days ago, and regular files
 * whose names begin with "core." and that were modified more than 7 days ago. The logging never reports
 * failures of its own. Lines are cut to 65535 bytes and keep their line end.
 *
 * Each report takes about 64 KiB of its thread's stack. All calls leave errno as it was.
 *
 * A line in pieces: log_buf_lock(), then any of log_buf_date() and log_buf_msg(), then one closing call
 * (*_unlock), which finishes the line and writes it. The lock is held between the two; the thread must not
 * begin another report in between and must always come to a closing call.
 */
LIBOS_API void log_buf_lock(void);

/** Append the local time, "YYYY-MM-DD hh:mm:ss " (20 characters). */
LIBOS_API void log_buf_date(void);

LIBOS_API void log_buf_msg(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void _log_buf_msg(const char* fmt, ...) LIBOS_PRINTF(1, 2);

/** Closing calls. err_: ": " and the text of errno follow the message. quit: ends the process, status 1. */
LIBOS_API void log_buf_msg_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void err_buf_msg_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void log_buf_quit_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;
LIBOS_API void err_buf_quit_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;
LIBOS_API void _log_buf_msg_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void _err_buf_msg_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void _log_buf_quit_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;
LIBOS_API void _err_buf_quit_unlock(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;

/**
 * Whole lines, with the date in front. err_msg() puts ": " and the text of errno behind the message; the
 * quit calls end the process with status 1, and err_quit() writes no error text. The calls ending in 2 do the
 * same without the date.
 */
LIBOS_API void log_msg(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void err_msg(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void log_quit(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;
LIBOS_API void err_quit(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;
LIBOS_API void log_msg2(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void err_msg2(const char* fmt, ...) LIBOS_PRINTF(1, 2);
LIBOS_API void log_quit2(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;
LIBOS_API void err_quit2(const char* fmt, ...) LIBOS_PRINTF(1, 2) LIBOS_NORETURN;

/** Write the date alone, without a line end, to standard error; never to the log file. */
LIBOS_API void log_date(void);

/**
 * Set the text put in front of the log file's name, at most 259 characters (more is cut; NULL counts as
 * empty). It takes effect when a log file is next opened. No lock: set it before logging starts.
 */
LIBOS_API void log_set_path(char* path);

/** Copy the path into the caller's 260 bytes. */
LIBOS_API void log_get_path(char* path);

/* ---------------------------------------------------------------------------------------------------------
 * Lists
 *
 * A doubly linked list whose nodes carry a copy of node_size bytes. The operations do not lock: take
 * adt_dlist_lock() (recursive) around whatever other threads could disturb. The list owns its nodes and the
 * bytes in them, the caller what those bytes point to. A node stays valid until it is deleted or its list
 * destroyed; that it belongs to the list given with it is trusted. A list that carries pointers is made with
 * node_size sizeof(void*).
 *
 * A NULL list is reported with "dlist is null", a NULL node with "node is null", and the result is 0 or NULL.
 */
typedef struct DListNode
{
    struct DListNode* next;
    struct DListNode* prev;
    uint8 data[1]; /* node_size bytes */
} DListNode;

typedef struct DList
{
    DListNode* head;
    DListNode* end;
    uint32 node_size;
    uint32 len;
    LMutex mutex;
} DList;

/** A new, empty list. NULL, reported with "malloc fail" and errno, when no memory is to be had. */
LIBOS_API DList* adt_dlist_create(uint32 node_size);

/** Release the nodes, the mutex and the list. */
LIBOS_API int adt_dlist_destroy(DList* dlist);

/**
 * Put a copy of the node_size bytes at data before node: at the front when node is NULL.
 *
 * @return the new node; NULL with the list unchanged when no memory is to be had ("malloc fail", with errno)
 *         or data is NULL ("data is null")
 */
LIBOS_API DListNode* adt_dlist_insert(DList* dlist, DListNode* node, void* data);

/** The same behind node: at the end when node is NULL. */
LIBOS_API DListNode* adt_dlist_add(DList* dlist, DListNode* node, void* data);

/** Neighbours; NULL at the ends and for a NULL node, which is not reported. */
LIBOS_API DListNode* adt_dlist_next(DListNode* node);
LIBOS_API DListNode* adt_dlist_prev(DListNode* node);

LIBOS_API DListNode* adt_dlist_head(DList* dlist);
LIBOS_API DListNode* adt_dlist_end(DList* dlist);

/** Number of nodes, in constant time. */
LIBOS_API uint32 adt_dlist_size(DList* dlist);

/** 1 when there are no nodes. 0 for a NULL list. */
LIBOS_API int adt_dlist_empty(DList* dlist);

LIBOS_API int adt_dlist_delete(DList* dlist, DListNode* node);

/**
 * Delete a node and return the one that followed it, so that a walk can delete as it goes.
 * Reports "dlist == NULL" and "node == NULL".
 */
LIBOS_API DListNode* adt_dlist_delete_ex(DList* dlist, DListNode* node);

/** The node's bytes, to read and write in place. node is not NULL. */
LIBOS_API void* adt_dlist_getdata(DListNode* node);

LIBOS_API int adt_dlist_lock(DList* dlist);
LIBOS_API int adt_dlist_unlock(DList* dlist);

/* A dynamic array that was declared and never built: every operation ignores its arguments and gives 0. */
typedef struct DArray DArray;

LIBOS_API DArray* adt_darray_create(uint32 node_size);
LIBOS_API int adt_darray_insert(DArray* darray, uint32 index, void* data);
LIBOS_API int adt_darray_push_back(DArray* darray, void* data);
LIBOS_API int adt_darray_delete(DArray* darray, uint32 index);
LIBOS_API void* adt_darray_get_by_index(DArray* darray, uint32 index);
LIBOS_API int adt_darray_length(DArray* darray);
LIBOS_API int adt_darray_destroy(DArray* darray);

/* ---------------------------------------------------------------------------------------------------------
 * Ring buffer
 *
 * A stream of bytes between threads through a buffer of fixed size, all of which can be filled. A writer that
 * finds too little room either waits for readers (RINGBUF_WRITE_BLOCK) or runs over the oldest bytes, so that
 * the buffer holds the newest (RINGBUF_WRITE_COVER). Readers never wait.
 *
 * Any thread may call; each operation but ringbuf_destroy() and ringbuf_get_index() takes the buffer's own
 * lock, which is recursive. A size of 0 or less is looked at first: writing, reading and copying return it
 * and do nothing. A NULL buffer is reported with "ptbuf is null" unless an entry says otherwise.
 */
enum
{
    RINGBUF_WRITE_BLOCK = 0,
    RINGBUF_WRITE_COVER = 1
};

/*
 * readpos and writepos count the bytes taken and stored since both were last 0; the byte number p lies at
 * buf[p % bufsize]. They start again at 0 when an operation finds the buffer empty, and are both brought
 * down by a multiple of bufsize when a write finds writepos above 536870911.
 */
typedef struct RingBuf
{
    LMutex mutex;
    int32 type;
    int32 bufsize;
    uint32 readpos;
    uint32 writepos;
    uint8 buf[1]; /* bufsize bytes */
} RingBuf;

/**
 * A new, empty buffer of bufsize bytes, to be released with ringbuf_destroy().
 *
 * @param type RINGBUF_WRITE_BLOCK or RINGBUF_WRITE_COVER
 * @return NULL, reported, when bufsize is 0 or less ("bufsize<=0"), for another type ("unkonw ringbug write
 *         type"), without memory ("NULL == ptBuf") or without a mutex ("os_mutex_init failed")
 */
LIBOS_API RingBuf* ringbuf_create(int32 bufsize, int type);

/** Release the buffer, which no thread uses any more. NULL is ignored. */
LIBOS_API void ringbuf_destroy(RingBuf* ptbuf);

/** Bytes stored; negative after more was removed than was stored. 0 for NULL, which is not reported. */
LIBOS_API int32 ringbuf_datasize(RingBuf* ptbuf);

/** Bytes that can be written at once: bufsize less ringbuf_datasize(). 0 for NULL, which is not reported. */
LIBOS_API int32 ringbuf_capacity(RingBuf* ptbuf);

/**
 * Store size bytes. A blocking write stores what fits and waits for room for the rest, without a limit in
 * time; it releases the lock meanwhile, so the pieces of several such writers may mix. A read, remove or
 * clear wakes it at once. A covering write of bufsize bytes or more leaves the last bufsize of them.
 *
 * @return bufsize (not size) when all is stored; -1 for a NULL buffer, a NULL src ("src is null") or a
 *         buffer whose bufsize is not positive, which is not reported
 */
LIBOS_API int32 ringbuf_write(int32 size, const void* src, RingBuf* ptbuf);

/**
 * Move up to size of the oldest bytes to dst.
 *
 * @return bytes moved, 0 when there are none; -1 as ringbuf_write() gives it ("dst is null")
 */
LIBOS_API int32 ringbuf_read(int32 size, void* dst, RingBuf* ptbuf);

/** As ringbuf_read(), but the bytes stay in the buffer, and a NULL buffer is not reported. */
LIBOS_API int32 ringbuf_copy(int32 size, void* dst, RingBuf* ptbuf);

/**
 * Drop the size oldest bytes. The amount is not compared with what is stored: after too much the buffer
 * counts as empty, and the next read or write starts it afresh. 0 or less changes nothing.
 *
 * @return 0, or -1 for a NULL buffer
 */
LIBOS_API int32 ringbuf_remove(int32 size, RingBuf* ptbuf);

/** Drop everything. Returns 0, or -1 for a NULL buffer. */
LIBOS_API int32 ringbuf_clear(RingBuf* ptbuf);

/**
 * Where the oldest byte lies, to read in place: the stored bytes follow one another up to the end of buf at
 * most and go on at its start. ringbuf_remove() consumes them. The lock is not held on return, so a covering
 * writer may overwrite them meanwhile. NULL for a NULL buffer or one whose bufsize is not positive.
 */
LIBOS_API void* ringbuf_getdata(RingBuf* ptbuf);

/**
 * The counts readpos and writepos, each where its pointer is not NULL. No lock is taken, so they may be of
 * different moments. Nothing for a NULL buffer, which is not reported.
 */
LIBOS_API void ringbuf_get_index(RingBuf* ptbuf, int32* iread, int32* iwrite);

/* ---------------------------------------------------------------------------------------------------------
 * Hex text, character sets, custom functions
 *
 * Any thread may call; nothing is kept but gpiCustomFunc.
 */

/**
 * Write in_num bytes as hex text, two lower-case digits for each, and a terminating zero.
 *
 * @param out_buf 2 * in_num + 1 bytes; not in_buf. With in_num of 0 or less nothing is written.
 * @return 1; 0 when a buffer is NULL, which is not reported
 */
LIBOS_API int os_encode(char* in_buf, int32 in_num, char* out_buf);

/**
 * Read in_num characters of hex text, upper or lower case, as in_num / 2 bytes, without a terminator. An odd
 * last character is ignored. A pair whose second character is no digit gives the first's value; one whose
 * first is none repeats the byte before it (0 at the start).
 *
 * @param out_buf in_num / 2 bytes; may be in_buf
 * @return 1; 0 when a buffer is NULL, which is not reported
 */
LIBOS_API int os_decode(char* in_buf, int32 in_num, char* out_buf);

/**
 * Convert srclen bytes between two character sets, named as iconv_open() takes them. No terminator is
 * written: pass a save filled with zeros and a savelen at least 1 less than its size. After a failure save
 * holds what was converted before it.
 *
 * @return length of the text in save, up to its first zero and at most savelen. A character that the input
 *         breaks off in is dropped. Failures, all reported with an empty message and errno:
 *         -1 srclen is 0 or less; -3 the input holds what the set named from (or to) does not have;
 *         -5 save is too small; -6 anything else: a pair of sets that cannot be converted, a NULL argument
 */
LIBOS_API int32 os_code_convert(const char* from, const char* to, char* save, int32 savelen, char* src,
                                int32 srclen);

/* Values of optional features: 0 at first, filled in by the program before its threads read them. No lock. */
extern LIBOS_API int32 gpiCustomFunc[1024];

/** gpiCustomFunc[_iCustomFunc], and 0 outside 0 to 1023. */
LIBOS_API int32 getcustomfunction(int _iCustomFunc);

#ifdef __cplusplus
}
#endif

#endif

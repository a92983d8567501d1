/*
 * libos.h: the operating-system layer. Mutexes, threads and sleep; logging; lists;
 * ring buffer; hex text and character sets; the event loop with timers, posted functions, TCP and UDP.
 *
 * Results. Operations return 1 for success and 0 for failure, creators a pointer or NULL, unless an entry
 * below says otherwise. Every failure that an entry calls "reported" is written as one line to standard
 * error, and to a dated log file when logging to file is on:
 *
 *     2026-03-09 14:05:59 file: libos_dlist.cpp line: 31 dlist is null
 *
 * with ": " and the system's error text behind the message where an entry says "with errno".
 *
 * Threads. Any thread may call any operation, under the rules that its section gives. A thread that is
 * cancelled (pthread_cancel()) inside a call finishes it, and is cancelled at its next own cancellation
 * point: nothing stays locked or half done. Cancelled at once are only calls that hold nothing: os_sleep(),
 * os_thread_join(), log_date(), and the TCP and UDP calls that send and read. After log_buf_lock() a thread
 * is not cancelled before the closing call.
 *
 * Child processes. Every descriptor of the layer is close-on-exec. A child that was forked and goes on
 * without exec has copies of them all and shares the loop's set of descriptors, but has no loop: it calls
 * nothing of this layer but os_cleanup(). A destroy or close call there would make the parent deaf.
 *
 * The library stays loaded once it is: dlclose() does nothing.
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
 * at the process's first report (mind such a file where the program is started), every line is also appended
 * to the file
 *
 *     <path>log_YYYY-MM-DD        <path> as given to log_set_path(), empty at first
 *
 * of the local day, and flushed. Opening a log file removes, from the directory <path>/ ("/root/x1/" while
 * the path is empty), regular files named log_YYYY-MM-DD of a day more than 7 days ago, and regular files
 * whose names begin with "core." and that were modified more than 7 days ago. The logging never reports
 * failures of its own. Lines are cut to 65534 bytes, the line end among them. A report to a standard error
 * that is a pipe or socket whose reader has gone raises SIGPIPE: ignore the signal where that can happen.
 *
 * The zone is TZ's at the time of the line. Each report takes about 64 KiB of its thread's stack. All calls
 * leave errno as it was.
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
 * Put a copy of the node_size bytes at data before node: at the front when node is NULL. In an empty list
 * node is not looked at.
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

/** Bytes that can be written at once: bufsize less ringbuf_datasize(), so more than bufsize after more was
 * removed than was stored; at most 2147483647. 0 for NULL, which is not reported. */
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
 * last character is ignored. Each pair is read as the C library scans "%x": up to the first character that is
 * no digit, behind a blank or a sign if there is one. A pair without any number repeats the byte before it (0
 * at the start).
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
/* ---------------------------------------------------------------------------------------------------------
 * Event loop
 *
 * os_startup() makes fixed tables of TCP servers, TCP clients and UDP sockets and starts two threads: the
 * loop, which waits for all of them and runs every callback, timer function and posted function, and a tick
 * thread, which wakes it once a second. One loop per process; it runs until the process ends. os_startup()
 * comes before every other call of this and the following sections.
 *
 * The main lock. The loop holds it around each single event: every callback, timer function and posted
 * function runs under it. It is recursive. Another thread takes it with os_main_lock() to keep the loop out
 * while it works on shared records. Closing and destroying calls take it themselves; opening, sending and
 * reading take no lock, so a thread other than the loop's holds os_main_lock() around them wherever a
 * callback of the same object could run meanwhile. Creating and destroying calls lock their table for a
 * moment. Never wait, while holding the main lock, for a thread that needs it.
 *
 * Records are slots of the tables: taken by a create call (or by an accepted connection), given back by a
 * destroy call, never freed by the caller. The lowest free slot is taken, in constant time. Read their fields
 * through the calls; bind callbacks before opening, from a callback, or under the main lock.
 *
 * Callbacks may call any operation on their own object, close it, open it again or destroy it; but a
 * disconnect callback does not destroy its client. What a callback closed or destroyed is left alone for the
 * rest of the event. Events that come too late, for a connection that has gone, are dropped: in silence when
 * the same object was closed or opened again, with a report when its slot was given back ("client index == -1
 * fail", "index session fail").
 *
 * A callback that does not return stops everything. In particular a read callback that reads until there is
 * nothing more lets one busy peer hold the loop: read a bounded amount, then post a function that reads on.
 * What is posted during a drain runs in the same drain: after some rounds, leave the rest to the next event
 * or to a timer.
 *
 * Sends never raise SIGPIPE. Signals are the program's own business: the two threads have the signal mask of
 * the thread that called os_startup().
 */
typedef void (*OnTimerFunc)(void* cxt);
typedef void (*PostFunc)(void* context);

/* A timer; all fields are the layer's own. index counts the milliseconds since the last expiry. */
typedef struct LTimer
{
    OnTimerFunc func;
    uint32 tm;
    void* cxt;
    uint32 index;
    DListNode* node;
} LTimer;

/**
 * Start the layer. Call it from one thread.
 *
 * @param max_cient_num  TCP clients, accepted ones among them, and as many UDP sockets; 0 to 65536
 * @param max_server_num TCP servers; 0 to 65536
 * @return 1; 1 as well, without doing anything, when it runs already (the first sizes stay); 0, reported, for
 *         a size out of range ("size out") and when memory, a descriptor or a thread is not to be had. What
 * was made before a failure is not released, and once the epoll set exists the layer counts as started.
 */
LIBOS_API int os_startup(int32 max_cient_num, int32 max_server_num);

/**
 * Close the descriptors of all servers and UDP sockets, before the program ends or replaces itself, or in a
 * forked child that goes on. Nothing else happens: TCP clients, threads and records stay. Do not use those
 * servers and UDP sockets afterwards. Takes no lock. Always 1.
 */
LIBOS_API int os_cleanup(void);

/** 1 once os_startup() has made the epoll set, else 0. */
LIBOS_API int os_is_startup(void);

/**
 * A timer that calls func(cxt) on the loop thread, again and again.
 *
 * The resolution is one second: it expires on every tick when tm is 1000 or less, on every second one up to
 * 2000, and so on; the first time at most that many seconds from now. The count begins anew at each expiry.
 * Within one tick the newest timer comes first. Timer functions run with the main lock and the timers' lock
 * held: a thread that creates or destroys a timer meanwhile waits. A timer function may create timers, which
 * count from the next tick, and destroy any timer, its own included.
 *
 * @param func what to call; NULL makes a timer that does nothing
 * @param tm   milliseconds
 * @return the timer, to be released with os_timer_destroy(). NULL without memory ("malloc fail"). Before
 *         os_startup(), or when the list cannot take it, the process ends with status 1.
 */
LIBOS_API LTimer* os_timer_create(OnTimerFunc func, uint32 tm, void* cxt);

/** Stop and release a timer. NULL: "timer is null", 0. */
LIBOS_API int os_timer_destroy(LTimer* timer);

/**
 * Run func(context) on the loop thread, once, in the order of posting. From any thread, and never waits for
 * room; but it waits while posted functions run, since they run with the main lock and the posts' lock held.
 * So hold no lock when you post that a posted function takes: each would wait for the other for ever. All
 * that is posted runs before the loop looks at sockets again: a function that posts itself keeps the loop to
 * itself.
 *
 * @return 1; 0, reported, for a NULL func ("func is null"), without memory ("malloc fail"), before
 * os_startup()
 */
LIBOS_API int os_post_func(PostFunc func, void* context);

/** Keep the loop out, and let it in again. 1; 0 when the lock call failed. */
LIBOS_API int os_main_lock(void);
LIBOS_API int os_main_unlock(void);

/* ---------------------------------------------------------------------------------------------------------
 * TCP servers
 *
 * A NULL server is reported with "server is NULL", and the result is 0, of os_tcp_server_get_status() -1.
 * Addresses are dotted-quad texts, ports in host byte order. Of other texts those count as addresses that
 * inet_addr() takes: fewer numbers ("127.1", "0": the last one fills the bytes that are left), numbers in
 * octal
 * ("010.0.0.1" is 8.0.0.1) or hex ("0x7f.1"), and, with many C libraries, anything behind a blank.
 * 255.255.255.255 does not count. Check what a person typed before it gets here.
 */
typedef struct TcpServer TcpServer;
typedef struct TcpClient TcpClient;

/** A new connection. client is connected, its addresses are filled in; bind its callbacks here. */
typedef void (*OnServerAcceptFunc)(TcpServer* server, TcpClient* client, void* udata);

struct TcpServer
{
    int8 type;
    char ip[16];
    uint16 port;
    int32 status; /* 0 not listening, 1 listening */
    OnServerAcceptFunc accept;
    void* accept_usr;
    int listenfd;
    int32 index; /* -1: the slot is free */
    uint32 session;
};

/** A server at 0.0.0.0, port 0, not listening. NULL: the table is full ("server num out"). */
LIBOS_API TcpServer* os_tcp_server_create(void);

/** Close it and give the slot back. Once only. Its accepted clients stay. */
LIBOS_API int os_tcp_server_destroy(TcpServer* server);

/**
 * Where to listen at the next open. ip NULL changes the port alone.
 * 0 with "ip is fail", the port changed all the same: no address, or longer than 15 characters.
 */
LIBOS_API int os_tcp_server_set_local(TcpServer* server, char* ip, uint16 port);

/** Copy address (16 bytes are enough) and port as set. NULL for any of the three: "server is NULL", 0. */
LIBOS_API int os_tcp_server_get_local(TcpServer* server, char* ip, uint16* port);

/**
 * Tell the port that it listens on: with port 0 the system chooses one. 0, reported: "server is NULL", also
 * for a NULL port; "server is dislisten"; "getsockname fail".
 */
LIBOS_API int os_tcp_server_get_port(TcpServer* server, uint16* port);

/** 0 not listening, 1 listening, -1 for NULL. */
LIBOS_API int32 os_tcp_server_get_status(TcpServer* server);

/**
 * Listen. Takes no lock.
 *
 * The loop then accepts one connection per round, non-blocking, and hands it over. When the client table is
 * full the connection is closed at once ("client num out", "os_tcp_client_create client fail"). When
 * accepting fails ("accept fd:%d fail", with errno) for want of descriptors or memory the server rests until
 * the next tick and then tries again; the connections wait meanwhile.
 *
 * @return 1; 0, reported: it listens already ("server is not dislisten"), "socket fail", "bind fail",
 *         "listen fail" (these with errno)
 */
LIBOS_API int os_tcp_server_open(TcpServer* server);

/** Stop listening. 1, also when it did not listen ("server is dislisten"); 0 for NULL. It can be opened
 * again. */
LIBOS_API int os_tcp_server_close(TcpServer* server);

/** What to call for each accepted connection; NULL for nothing. */
LIBOS_API int os_tcp_server_bind_accept(TcpServer* server, OnServerAcceptFunc accept, void* udata);

/* ---------------------------------------------------------------------------------------------------------
 * TCP clients: connections, made by the caller or accepted by a server
 *
 * A NULL client is reported with "client is null", and the result is 0, -1 or NULL.
 *
 * Who gives the slot back. A client that the caller made keeps its slot until os_tcp_client_destroy(), and
 * can be opened again. An accepted client's slot is given back by the loop when the loop finds the
 * connection's end, after the disconnect callback; the record must not be used any more then. When its owner
 * closes it first, the owner destroys it as well, unless its read callback closed it and returns -1: then the
 * loop gives the slot back.
 *
 * The end of a connection is found by reading: a read callback returns -1 when os_tcp_client_read() does. A
 * client without a read callback has its input discarded, and its end found, by the loop.
 */
typedef void (*OnClientConnectFunc)(TcpClient* client, void* udata);
typedef void (*OnClientDisconnectFunc)(TcpClient* client, void* udata);

/**
 * There is something to read, or the end. It is not said again for what is left unread: read until 0, or come
 * back by os_post_func(). Return -1 when the connection has ended, anything else when not.
 */
typedef int32 (*OnClientReadFunc)(TcpClient* client, void* udata);

/**
 * There is room to send again; also called once after connecting. The result is ignored. The peer's
 * acknowledgements make room: a write callback that itself sends is called again and again.
 */
typedef int32 (*OnClientWriteFunc)(TcpClient* client, void* udata);

struct TcpClient
{
    int8 type;
    int8 create_type; /* 1 made by the caller, 0 accepted */
    char remote_ip[16];
    uint16 remote_port;
    char local_ip[16]; /* empty: any */
    uint16 local_port; /* 0: any */
    int32 status;      /* 0 disconnected, 1 connecting, 2 connected */
    void* udata;
    OnClientConnectFunc connect;
    void* connect_usr;
    OnClientDisconnectFunc disconnect;
    void* disconnect_usr;
    OnClientReadFunc read;
    void* read_usr;
    OnClientWriteFunc write;
    void* write_usr;
    int connectfd;
    int32 index; /* -1: the slot is free */
    uint32 session;
};

/** A disconnected client without addresses. NULL: the table is full ("client num out"). */
LIBOS_API TcpClient* os_tcp_client_create(void);

/**
 * Close it, with its disconnect callback, and give the slot back. A slot that is free already is reported
 * ("client: %x destroy err") and ends the process with status 0.
 */
LIBOS_API int os_tcp_client_destroy(TcpClient* client);

/**
 * The peer, and one's own side, for the next open; at most 15 characters, not checked to be an address:
 * opening takes what inet_addr() makes of it (see TCP servers), and 255.255.255.255 for what that refuses. 0,
 * reported: "client is null or ip is null", "ip length out", "client is not disconnect".
 */
LIBOS_API int os_tcp_client_set_remote(TcpClient* client, char* ip, uint16 port);
LIBOS_API int os_tcp_client_set_local(TcpClient* client, char* ip, uint16 port);

/**
 * Copy all 16 bytes of the address, and the port, out. Of an accepted or adopted client these are the
 * connection's own. NULL for any argument: "client is null or ip is null or port is NULL", 0.
 */
LIBOS_API int os_tcp_client_get_remote(TcpClient* client, char* ip, uint16* port);
LIBOS_API int os_tcp_client_get_local(TcpClient* client, char* ip, uint16* port);

/** 0 disconnected, 1 connecting, 2 connected, -1 for NULL. */
LIBOS_API int32 os_tcp_client_get_status(TcpClient* client);

/**
 * Connect to the remote address. Takes no lock.
 *
 * The connect callback follows, then the write callback, on the loop thread; when the connection stands at
 * once the connect callback runs before this returns, on the calling thread. A connection refused later ends
 * as any other: through the read callback (os_tcp_client_read() gives -1), with the disconnect callback. One
 * that fails at once is reported ("connect fail %s %d", with errno) and stays connecting until it is closed.
 *
 * @param sock -1; or a connected socket to adopt, which then belongs to the client. It is connected at once,
 *             but not put into the loop: no callback comes, only sending, reading and closing work.
 * @return 1; 0, reported: "client is not disconnect", "connectfd is not -1", "socket fail" and "bind fail"
 *         (these with errno)
 */
LIBOS_API int os_tcp_client_open(TcpClient* client, int sock);

/** End the connection: the disconnect callback runs before this returns. 1, also when there was none; 0 for
 * NULL. */
LIBOS_API int os_tcp_client_close(TcpClient* client);

/**
 * Send what fits, without waiting. Takes no lock.
 *
 * @return bytes taken; 0 when there is no room now (a write callback follows), while connecting, or for len
 * 0; -1 when the connection has failed or there is none. "data is null": -1.
 */
LIBOS_API int32 os_tcp_client_send(TcpClient* client, char* data, uint32 len);

/**
 * Read what is there, without waiting. Takes no lock.
 *
 * @return bytes read; 0 when nothing waits, or for len 0; -1 at the peer's end, on an error, and when not
 *         connected. "data is null": -1.
 */
LIBOS_API int32 os_tcp_client_read(TcpClient* client, char* data, uint32 len);

/** A pointer of the caller's, NULL at first. */
LIBOS_API int os_tcp_client_set_udata(TcpClient* client, void* udata);
LIBOS_API void* os_tcp_client_get_udata(TcpClient* client);

LIBOS_API int os_tcp_client_bind_connect(TcpClient* client, OnClientConnectFunc connect, void* udata);

/** Called once per connection that ends or is closed, with the main lock held, on the thread that closes. */
LIBOS_API int os_tcp_client_bind_disconnect(TcpClient* client, OnClientDisconnectFunc disconnect,
                                            void* udata);

LIBOS_API int os_tcp_client_bind_read(TcpClient* client, OnClientReadFunc read, void* udata);
LIBOS_API int os_tcp_client_bind_write(TcpClient* client, OnClientWriteFunc write, void* udata);

/** Size of the open socket's receive buffer, in bytes. 0: "client == NULL", or refused (errno alone). */
LIBOS_API int os_tcp_client_set_rcvbuf_len(TcpClient* client, int buf_len);

/* ---------------------------------------------------------------------------------------------------------
 * UDP
 *
 * The socket lives as long as the slot. A NULL client is reported with "client is null", and the result is 0,
 * -1 or NULL.
 */
typedef struct UdpClient UdpClient;

/**
 * Datagrams have come, or there is room to send; results are ignored. It is not said again for what is left
 * unread: read until 0, or until a -1 whose errno is not 0. An empty datagram gives -1 with errno 0, and more
 * may wait behind it.
 */
typedef int32 (*OnUdpClientReadFunc)(UdpClient* client, void* udata);
typedef int32 (*OnUdpClientWriteFunc)(UdpClient* client, void* udata);

struct UdpClient
{
    int8 type;
    char local_ip[16]; /* empty: any */
    uint16 local_port; /* 0: the system chooses */
    int32 status;      /* 0 closed, 1 open */
    void* udata;
    OnUdpClientReadFunc read;
    void* read_usr;
    OnUdpClientWriteFunc write;
    void* write_usr;
    int fd;
    int32 index; /* -1: the slot is free */
    uint32 session;
};

/** NULL, reported: "udp num out:udps:%d,max udp:%d", "socket fail". */
LIBOS_API UdpClient* os_udp_client_create(void);

/** As os_tcp_client_destroy(): a slot that is free already ends the process with status 0. */
LIBOS_API int os_udp_client_destroy(UdpClient* client);

/** For the next open. 0, reported: "client is null or ip is null", "ip length out" (above 15 characters). */
LIBOS_API int os_udp_client_set_local(UdpClient* client, char* ip, uint16 port);

/**
 * Copy the address as set (16 bytes are enough), and the port as set or, when that is 0, as the system chose.
 *
 * @return 0 for success (this call alone); -1 with "getsockname failed!"; for a NULL argument 0 as well, with
 *         "client is null or ip is null or port is null"
 */
LIBOS_API int os_udp_client_get_local(UdpClient* client, char* ip, uint16* port);

/** 0 closed, 1 open, -1 for NULL. */
LIBOS_API int32 os_udp_client_get_status(UdpClient* client);

/**
 * Bind the socket and let the callbacks come. Takes no lock.
 *
 * A socket is bound once: a second open fails, also after a close, and so does an open after the first send,
 * which binds as well.
 *
 * @return 1; 0 with "bind fail" and errno
 */
LIBOS_API int os_udp_client_open(UdpClient* client);

/** No more callbacks. The socket stays bound; sending and reading go on working. 1; 0 for NULL. */
LIBOS_API int os_udp_client_close(UdpClient* client);

/**
 * Send one datagram, also before opening. Takes no lock.
 *
 * @return len; 0 when there is no room now; -1 on any other error. "data is null", "ip is null": -1.
 */
LIBOS_API int32 os_udp_client_send(UdpClient* client, char* data, uint32 len, char* ip, uint16 port);

/**
 * Read one datagram; what exceeds len is lost. Takes no lock.
 *
 * @param ip   16 bytes for the sender's address
 * @param port for the sender's port
 * @return bytes read; 0 when nothing waits; -1 with "recv fail" on an error and, errno being 0, for an empty
 *         datagram. A NULL argument: "client is null or data is null or ip is null or port is null", -1.
 */
LIBOS_API int32 os_udp_client_read(UdpClient* client, char* data, uint32 len, char* ip, uint16* port);

LIBOS_API int os_udp_client_set_udata(UdpClient* client, void* udata);
LIBOS_API void* os_udp_client_get_udata(UdpClient* client);
LIBOS_API int os_udp_client_bind_read(UdpClient* client, OnUdpClientReadFunc read, void* udata);
LIBOS_API int os_udp_client_bind_write(UdpClient* client, OnUdpClientWriteFunc write, void* udata);

/* ---------------------------------------------------------------------------------------------------------
 * Serial ports: declared so that programs link; every call ignores its arguments and gives 0 or NULL.
 */
typedef struct CommClient
{
    int32 commport;
    int speed;
    int databits;
    int parity;
    int stopbits;
    int dup;
    OnUdpClientReadFunc read_func;
    void* read_usr;
} CommClient;

LIBOS_API CommClient* os_comm_client_create(int32 comport, int speed, int databits, int parity, int stopbits,
                                            int dup);
LIBOS_API int os_comm_client_destroy(CommClient* client);
LIBOS_API int32 os_comm_client_get_status(CommClient* client);
LIBOS_API int os_comm_client_open(CommClient* client);
LIBOS_API int os_comm_client_close(CommClient* client);
LIBOS_API int32 os_comm_client_send(CommClient* client, char* data, uint32 len);
LIBOS_API int32 os_comm_client_read(CommClient* client, char* data, uint32 len);
LIBOS_API int os_comm_client_set_udata(CommClient* client, void* udata);
LIBOS_API void* os_comm_client_get_udata(CommClient* client);
LIBOS_API int os_comm_client_bind_read(CommClient* client, OnUdpClientReadFunc read, void* udata);

#ifdef __cplusplus
}
#endif

#endif

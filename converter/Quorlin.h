/*
 * Quorlin.h: an SDV recording in, an AVI file out.
 *
 * One job exists per process: the exported record g_tSdv2Avi. Every call here works on it; none takes a
 * handle.
 *
 * A whole file, in one call:
 *
 *     SetDecryptKey(key, 16);                          // only for encrypted recordings
 *     if (KtConvert_SDVtoAVI("in.sdv", "out.avi") == 0 && g_tSdv2Avi.m_iPosition == 100 &&
 *         g_tSdv2Avi.m_iTotalFrames > 0) ...done
 *
 * A conversion whose every frame was dropped, as with a wrong key, ends with 100 and 0 chunks.
 *
 * A stream, in pieces as they arrive:
 *
 *     Initialize(8000);
 *     memcpy(&g_tSdv2Avi.m_Header, first88Bytes, 88);
 *     if (StartRecord(0, "out.avi", 1) != 0) ...refused
 *     RecordAviEx(piece, length);                      // again and again
 *     StopRecordEx(0);
 *     QuorlinRelease();
 *
 * Results. 0 is success and a small negative number a failure, unless an entry says otherwise. The outcome of
 * a file conversion is the value of m_iPosition, not the result of the call that ran it.
 *
 * Texts. The converter never uses the log. It writes the fixed texts given below to standard output, without
 * a line end unless an entry says so, and two texts to standard error.
 *
 * Threads. Conversions must not be started from two threads at once, and a file conversion and the streaming
 * calls must not overlap. m_iPosition and m_iIsSwitching may be read from any thread at any time (atomically,
 * where the reader's language asks for it). CancelConversion() stops a file conversion. StopRecord() and
 * StopRecordEx() leave one that runs alone and give 1; Initialize() and QuorlinRelease() wait for its end.
 *
 * A thread that is cancelled (pthread_cancel()) inside a call finishes it, a whole conversion too, and is
 * cancelled at its next own cancellation point: a loop that calls nothing else calls pthread_testcancel(). A
 * child that is forked while a conversion runs leaves the converter alone.
 *
 * Files. A conversion that fails removes the file at the output path, also one that was there before; so does
 * one that cannot open its input any more when it begins. Output files are created with the process's umask.
 * Positions are 64 bits wide inside; an AVI file ends below 4 GiB less 64 KiB. Only regular files and
 * symbolic links are ever removed.
 */
#ifndef QUORLIN_H
#define QUORLIN_H

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>

#include "ADTSFrame.h"
#define QUORLIN_AES_WITHOUT_ENCRYPT
#include "AES.h"
#undef QUORLIN_AES_WITHOUT_ENCRYPT
#include "CLS_SingleAviIndex.h"
#include "CommonFun.h"
#include "libos.h"
#include "platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------------------
 * AVI records. Each lies in memory as it lies in the file.
 */
typedef enum AVI_MediaType
{
    AVI_Video = 0, /* video only */
    AVI_Audio = 1, /* audio only; the builders accept it, the recorder does not use it */
    AVI_VideoAndAudio = 2
} AVI_MediaType;

/* In front of every chunk of the movi list. */
typedef struct AVI_FrameHeader
{
    FOURCC fcc;        /* "00dc", "01wb" or "00wb" */
    DWORD dwFrameSize; /* data bytes, without the pad byte */
} AVI_FrameHeader;

/* The avih chunk, header included. */
typedef struct AVI_MainHeader
{
    FOURCC fcc;
    DWORD cb;
    DWORD dwMicroSecPerFrame;
    DWORD dwMaxBytesPerSec;
    DWORD dwPaddingGranularity;
    DWORD dwFlags;
    DWORD dwTotalFrames;
    DWORD dwInitialFrames;
    DWORD dwStreams;
    DWORD dwSuggestedBufferSize;
    DWORD dwWidth;
    DWORD dwHeight;
    DWORD dwReserved[4];
} AVI_MainHeader;

typedef struct AVI_Rect
{
    int16_t left;
    int16_t top;
    int16_t right;
    int16_t bottom;
} AVI_Rect;

/* A strh chunk, header included. */
typedef struct AVI_StreamHeader
{
    FOURCC fcc;
    DWORD cb;
    FOURCC fccType;
    FOURCC fccHandler;
    DWORD dwFlags;
    WORD wPriority;
    WORD wLanguage;
    DWORD dwInitialFrames;
    DWORD dwScale;
    DWORD dwRate;
    DWORD dwStart;
    DWORD dwLength;
    DWORD dwSuggestedBufferSize;
    DWORD dwQuality;
    DWORD dwSampleSize;
    AVI_Rect rcFrame;
} AVI_StreamHeader;

typedef struct AVI_BitmapInfoHeader
{
    DWORD biSize;
    LONG biWidth;
    LONG biHeight;
    WORD biPlanes;
    WORD biBitCount;
    DWORD biCompression;
    DWORD biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    DWORD biClrUsed;
    DWORD biClrImportant;
} AVI_BitmapInfoHeader;

typedef struct AVI_WaveFormatEx
{
    WORD wFormatTag;
    WORD nChannels;
    DWORD nSamplesPerSec;
    DWORD nAvgBytesPerSec;
    WORD nBlockAlign;
    WORD wBitsPerSample;
    WORD cbSize;
    BYTE cData[2];
} AVI_WaveFormatEx;

typedef struct AVI_HdrlHeader
{
    FOURCC fcc; /* "RIFF" */
    DWORD dwFileSize;
    FOURCC AviFcc;  /* "AVI " */
    FOURCC ListFcc; /* "LIST" */
    DWORD dwHeaderSize;
    FOURCC HdrlFcc; /* "hdrl" */
    AVI_MainHeader avih;
} AVI_HdrlHeader;

typedef struct AVI_StrlHeader
{
    FOURCC ListFcc; /* "LIST" */
    DWORD dwHeaderSize;
    FOURCC StrlFcc; /* "strl" */
    AVI_StreamHeader strh;
} AVI_StrlHeader;

typedef struct AVI_VideoStrfHeader
{
    FOURCC StrfFcc; /* "strf" */
    DWORD dwStrfSize;
    AVI_BitmapInfoHeader strf;
} AVI_VideoStrfHeader;

typedef struct AVI_AudioStrfHeader
{
    FOURCC StrfFcc; /* "strf" */
    DWORD dwStrfSize;
    AVI_WaveFormatEx strf;
} AVI_AudioStrfHeader;

typedef struct AVI_MoviHeader
{
    FOURCC ListFcc; /* "LIST" */
    DWORD dwSize;
    FOURCC MoviFcc; /* "movi" */
} AVI_MoviHeader;

typedef struct AVI_IndexHeader
{
    FOURCC fcc; /* "idx1" */
    DWORD cb;   /* 16 bytes for every entry */
} AVI_IndexHeader;

/* What AVI_WriteFileHeader() is told of the recording; in memory only. */
typedef struct AVI_Header
{
    int32_t iWidth;
    int32_t iHeight;
    int32_t iTotalFrames;  /* video chunks */
    int32_t iFileLen;      /* RIFF size: the whole file's length less 8, as an unsigned 32-bit number */
    int32_t iFrameMaxSize; /* largest video chunk in bytes */
} AVI_Header;

/* ---------------------------------------------------------------------------------------------------------
 * The job
 */
typedef struct strSdv2Avi
{
    int32_t m_iIsSwitching;   /* 1 while a conversion thread is meant to run */
    char m_szOutputPath[260]; /* zero-terminated */
    char m_szInputPath[260];
    int32_t m_iRecFileType;       /* 0 none, 1 AVI */
    S_FileHeader m_Header;        /* of the recording; a streaming caller fills it in */
    int32_t m_iPosition;          /* 0..99 percent; 100 finished; -1 input, -2 output, -3 memory,
                                     -4 no key frame, -5 cancelled */
    AVI_IndexBlock* m_IndexBlock; /* block being filled */
    pthread_t m_tChangeid;        /* the conversion thread, 0 when none was started */
    FILE* m_fsRec;                /* the AVI file while a recording is open */
    AVI_FrameHeader m_AudioFrameHeader;
    AVI_FrameHeader m_VideoFrameHeader;
    int32_t m_iTotalFrames;  /* chunks written, video and audio */
    int32_t m_iAudioFrames;  /* audio chunks written */
    int32_t m_iMoviBeginPos; /* file offset of the "movi" FourCC */
    int32_t m_iMaxFrameLen;  /* largest video chunk */
    int32_t m_iAviInitTimes; /* 1 once the first frame has laid out the file */
    BOOL m_bWriteHead;       /* 1 once a frame was recorded */
    int32_t m_iFrameCount;
    int32_t m_iHaveAudio;          /* audio code of the stream: 1, 2 or 22; 0 for no audio */
    int32_t m_iAviOffset;          /* of the next index entry; unsigned in the file */
    DList* m_lstIndex;             /* full index blocks, oldest first */
    pthread_mutex_t m_LockAviFile; /* serialises the streaming calls */
    unsigned char* m_pStreamBuf;
    int32_t m_iMaxBufSize; /* capacity of m_pStreamBuf: 6291456 */
    int32_t m_iStreamLen;  /* bytes held in m_pStreamBuf */
    int32_t m_iDestType;   /* 1 when audio slots are split into ADTS frames */
    BOOL m_bDecryptKeyReady;
    int32_t m_iDecryptKeyLen;
    uint8_t m_ucDecryptKey[64];
    int32_t m_iAudioSampleRate; /* Hz */
    int32_t m_iAudioChannel;
} TSdv2Avi;

/* The one job, all zero when the library is loaded. */
extern QUORLIN_API TSdv2Avi g_tSdv2Avi;

/**
 * Prepare the job: every field is reset but the key and an index block that is still held; the stream buffer,
 * the lists and the locks are made. Earlier ones are not released: each Initialize() is followed by one
 * QuorlinRelease() before the next. While a file conversion runs in another thread it waits for its end.
 *
 * When the stream buffer cannot be had, "******************malloc failed********************" goes to
 * standard error, m_pStreamBuf is NULL and the streaming calls refuse what they are given; the rest of the
 * job works.
 *
 * @param _iAudioSampleRate Hz
 * @return 0
 */
QUORLIN_API int Initialize(int _iAudioSampleRate);

/**
 * Give back what the job owns: index blocks, lists, stream buffer, locks. An output that is still open is
 * closed without headers. The key, the paths, m_Header, m_iDestType, m_iPosition and the counts
 * m_iTotalFrames and m_iAudioFrames stay readable. Harmless when it is called twice, or without Initialize().
 * While a file conversion runs in another thread it waits for its end.
 *
 * @return 0
 */
QUORLIN_API int QuorlinRelease(void);

/**
 * Set the key for encrypted frames. It stays set through Initialize() and QuorlinRelease(). Not while frames
 * are being recorded: the key has no lock.
 *
 * @param _pucDecryptKey _iKeyLen bytes, copied
 * @param _iKeyLen       0 or more. At most 64 are kept, and only 1 to 16 can decipher: see CA_DecryptFrame().
 * @return 0; -1 for NULL or a negative length, and then the key is cleared
 */
QUORLIN_API int SetDecryptKey(unsigned char* _pucDecryptKey, int _iKeyLen);

/**
 * Decipher a frame in place, when its mode and its header say that it is enciphered. Of the payload the first
 * 64 bytes are, or all of it when it is shorter.
 *
 * @param _pucBuff    a whole frame, header and payload, writable
 * @param _iFrameSize its size in bytes; nothing beyond is touched
 * @param _ulFrameNo  not used: the counter is the header's u32FrameNO
 * @return 0 deciphered, and the H.264 start code 00 00 00 01 found;
 *         -1 no buffer, or a size below 32, in mode 21;
 *         -2 enciphered, but no key is set, or one of more than 16 bytes (nothing is touched);
 *         -3 nothing to do: the stream's mode is not 21, whatever the arguments are, or the frame is not
 * marked; -4 deciphered, but no start code: a wrong key
 */
QUORLIN_API int CA_DecryptFrame(unsigned char* _pucBuff, int _iFrameSize, unsigned long _ulFrameNo);

/* ---------------------------------------------------------------------------------------------------------
 * Converting a file
 */

/**
 * Convert a recording, from preparing the job to releasing it. Returns when the conversion is over.
 *
 * @param _pcSrcFullPath  the SDV file, a path of at most 259 bytes
 * @param _pcDestFullPath the AVI file, likewise; created or overwritten
 * @return 0 when a conversion ran; its outcome is m_iPosition.
 *         -1 when it was refused, "TC_SDVtoAVI error" on standard output: a path that is NULL or too long, a
 *         conversion that is still running, no thread; behind the text of StartChange(): an input that
 *         cannot be opened or is no SDV recording, an input and an output that are the same file.
 *         m_iPosition then says nothing of this call; GetConversionProgress() gives the reason
 */
QUORLIN_API int KtConvert_SDVtoAVI(char* _pcSrcFullPath, char* _pcDestFullPath);

/**
 * Convert on a job that Initialize() has prepared.
 *
 * @param _iID not used
 * @return -1 while m_iIsSwitching is set; -2, with "140217====1111", while m_iPosition is 1 to 99 without it;
 *         else what StartChange() returns
 */
QUORLIN_API int TC_SDVtoAVI(int _iID, char* _pcSrcFullPath, char* _pcDestFullPath);

/**
 * Test the input's file header, run the conversion thread and wait for its end.
 *
 * An input that is no regular file counts as empty and is never opened in a way that waits.
 *
 * @return 0 when the thread ran to its end;
 *         -1 with "140217====2222" and a line end: the input cannot be opened, a path is NULL or longer than
 *         259 bytes, or both name the same file;
 *         -2 with "140217====3333": the file header is not valid, or cannot be read;
 *         -3: no thread could be created; the job can be used again
 */
QUORLIN_API int StartChange(char* _cpinputpath, char* _cpoutpath);

/** Wait for the conversion thread in m_tChangeid, if there is one that nobody has waited for yet. */
QUORLIN_API void WaitThreadTerminate(void);

/** Write a text and a line end to standard output. */
QUORLIN_API void errorprint(char* _string);

/**
 * The conversion thread's body: m_szInputPath in, m_szOutputPath out, skipping damage. Outcomes in
 * m_iPosition and their texts: 100; -1 "140217====6666" input cannot be opened, or its header not be read; -2
 * output cannot be started or written, or would pass the size limit; -3 "140217====7777" or "140217====9999"
 * no memory, before the first frame or later; -4 "140217====8888" no key frame; -5 cancelled. A negative
 * outcome leaves no output file.
 *
 * Only frames with the flag 00 00 00 02 are found (modes 21 and 41): recordings of other modes are pushed.
 *
 * @param threadp the address of g_tSdv2Avi
 * @return NULL
 */
QUORLIN_API void* ThreadChangeProc(void* threadp);

/**
 * Find the first valid frame header (see IsValidFrmHeader()) with the flag 00 00 00 02.
 *
 * @param _pDataBuf  bytes to scan
 * @param _iBufSize  their count; fewer than 32 hold no header
 * @param _iFramePos where to store the position found
 * @param _iCase     0 any frame, 1 a key frame; any other value finds nothing
 * @return 1 found, 0 not found (*_iFramePos is then untouched)
 */
QUORLIN_API BOOL FindFrame(LPBYTE _pDataBuf, int _iBufSize, int* _iFramePos, int _iCase);

/**
 * Take the audio rate and the channel count over from m_Header, when its rate differs from the job's:
 * a rate other than 8000, 16000, 32000 or 48000 becomes 8000, a count other than 1 or 2 becomes 1. Returns 0.
 */
QUORLIN_API int HeaderChange(void);

/**
 * An older conversion that trusts the file: m_Header.FrameCount frames, one behind the other, without any
 * search. The caller's Initialize() comes before it. A frame whose size is below 32 or above 1 MiB ends it.
 *
 * @return 0 done;
 *         1 the input or its header cannot be read ("Can't read the inputfile!" and a line end);
 *         2 the recording cannot be started, or input and output are the same file ("Record failed!" and two
 *         line ends), or it could not be written whole (the output is then removed);
 *         3 no memory; nothing is left open;
 *         4 cancelled (the output is removed)
 */
QUORLIN_API int ChangeFile2AVI(char* _cpinputpath, char* _cpoutpath);

/**
 * Stop the file conversion that runs. From any thread, and from a signal handler. It ends before its next
 * frame, with the outcome -5, without an output file, m_iIsSwitching 0; the call that waits for it returns 0
 * (ChangeFile2AVI() 4). To know when, wait for that call. A conversion that is started later is not affected.
 *
 * @return 1 when the conversion will end so; 0 when none runs, or its outcome stands already
 */
QUORLIN_API int CancelConversion(void);

/* What GetConversionProgress() gives beside the values of m_iPosition. */
typedef enum SdvProgress
{
    SdvProgress_None = -10,       /* no conversion was asked for since the library was loaded */
    SdvRefused_Busy = -11,        /* the job says that one runs, see TC_SDVtoAVI() */
    SdvRefused_Path = -12,        /* a path is NULL, or longer than 259 bytes */
    SdvRefused_Input = -13,       /* the input cannot be opened */
    SdvRefused_NoRecording = -14, /* its header is not that of a recording, or cannot be read */
    SdvRefused_SameFile = -15,    /* input and output are the same file */
    SdvRefused_NoThread = -16     /* no thread could be created */
} SdvProgress;

/**
 * How far the file conversion is that was asked for last, or what became of it. From any thread, at any time;
 * m_iPosition says nothing of a call that was refused, and this does. A stream has no progress.
 *
 * The value of the call before stands until the next one begins. Who watches from a thread that may look
 * first compares the count of calls with the one before:
 *
 *     uint32_t before, calls;
 *     GetConversionProgress(&before);
 *     ...start a thread that converts...
 *     do percent = GetConversionProgress(&calls);
 *     while (calls == before || (percent >= 0 && percent < 100));
 *
 * A call that is refused because another thread's conversion runs tells that by its result alone: progress
 * and count stay those of the one that runs.
 *
 * @param _puCalls where to store how many conversions were asked for so far, modulo 2^32; or NULL
 * @return 0 to 99 percent while one runs; 100 or -1 to -5 as m_iPosition (for ChangeFile2AVI() as well:
 *         its results 0 to 4 are 100, -1, -2, -3, -5) when its call is about to return; else an SdvProgress
 */
QUORLIN_API int GetConversionProgress(uint32_t* _puCalls);

/* What became of a recording's frames and bytes. Fields are added behind these, never between them. */
typedef struct SdvReport
{
    uint32_t cbSize;   /* sizeof(SdvReport), set by the caller: the fields within it are filled in */
    uint32_t reserved; /* left as it is */
    uint64_t u64FramesRecorded;
    uint64_t u64DroppedNumber0;      /* frames numbered 0 */
    uint64_t u64DroppedNoKey;        /* enciphered, and no usable key was set */
    uint64_t u64DroppedWrongKey;     /* deciphered, and no start code came out */
    uint64_t u64DroppedInconsistent; /* the parts do not lie within the frame */
    uint64_t u64BytesSkipped;        /* in which no frame begins, or only one that is cut off */
    uint64_t u64Gaps;                /* stretches of such bytes */
    uint64_t u64FirstGap;            /* where the first begins; 0 without any */
    uint64_t u64FramesNotWritten;    /* the output had failed, for want of room or otherwise */
    uint64_t u64BytesUnreadable;     /* of the input, from where reading it failed up to its end */
    uint64_t u64FirstUnreadable;     /* where that was; 0 when all could be read */
    uint64_t u64FramesMissing;       /* by the numbers of the frames that came, dropped ones among them */
    uint64_t u64NumberGaps;          /* where they jump; back, or far ahead, nothing is missing */
    uint64_t u64CutOff;              /* where a frame of a file begins inside which the file ends; else 0 */
} SdvReport;

/**
 * What the last conversion or stream recorded, dropped and skipped; everything 0 after Initialize(), and when
 * StartRecord() opens a file. From any thread, while it runs (all counts are of one moment) and after it,
 * also after QuorlinRelease().
 *
 * A file conversion skips what lies between the file header and the first key frame, too, and a last frame
 * that is cut off; positions count from the start of the file. It ends where reading fails, as a shorter file
 * would: u64BytesUnreadable tells that from damage, and whoever can read on behind the place may push what is
 * there. Bytes of the input that are in no whole frame count as skipped as well, unreadable or not.
 * Positions in a stream count from the first byte that the job held, or was pushed, when the file was opened;
 * what is pushed while no file is open is not counted, and bytes that wait for the rest of their frame are
 * not skipped yet. A frame that a file can not take any more (see StopRecord()) counts nowhere.
 *
 * A frame at u64CutOff that only seems to be cut off, as bytes of it are missing or its size is wrong, takes
 * whole frames with it that lie behind its header: whoever wants them pushes the input, and looks there.
 *
 * A pusher learns here that the disk is full, long before the stop: RecordAvi() and RecordAviEx() hand each
 * frame to the system before they return, and once that fails, that frame and all behind it count in
 * u64FramesNotWritten. The file then ends inside a chunk at worst; StopRecord() will return 1. In a file
 * conversion, which writes many frames at a time, the count follows some frames later, and the output goes.
 *
 * @param _pReport the caller's record. Fields behind cbSize, and behind this version's, are left as they are.
 * @return 0; -1 for NULL, or a cbSize below 72, the smallest record there was (nothing is then written)
 */
QUORLIN_API int GetConversionReport(SdvReport* _pReport);

/* ---------------------------------------------------------------------------------------------------------
 * Recording
 */

/**
 * Open an AVI file for recording. m_Header gives the audio rate and channel count. Takes no lock: not while a
 * push or a stop is under way.
 *
 * A call that is refused has taken over audio rate and channel count by then, too.
 *
 * @param _iDDrawIndex, _iAVI not used
 * @param _cFileName   created or truncated; must be a file that can be sought
 * @return 0 when it is open; -9 when it cannot be opened, or is a pipe, or a recording is already open (which
 *         goes on); -99 for NULL
 */
QUORLIN_API int StartRecord(int _iDDrawIndex, const char* _cFileName, int _iAVI);

/** Open a file for StartRecord() into m_fsRec, which is NULL when that fails. */
QUORLIN_API void Inner_InitializeRecord(const char* _cFileName);

/**
 * Record one frame: decipher it, write its audio and its video as chunks, index them. The first frame decides
 * whether the file is laid out with an audio stream; audio that comes later is kept too.
 *
 * Dropped are frames that cannot be deciphered, are numbered 0, are shorter than 32 bytes or declare more
 * than _iLength bytes. Nothing is read beyond _iLength. After the call ftell(m_fsRec) is the end of the file,
 * as long as it can be written, and the system has what the frame came to: nothing of it waits in this
 * process's memory.
 *
 * @param _ucData  one whole frame; deciphering changes it in place
 * @param _iLength its length in bytes
 * @return 0, also for a dropped frame
 */
QUORLIN_API int RecordAvi(unsigned char* _ucData, int _iLength);

/**
 * Finish the file: headers, movi list header, index; close it. A file without any frame is 212 bytes long,
 * or 316 when audio was found earlier in the job. "ftell has error" and a line end go to standard output when
 * the file's position cannot be told.
 *
 * @param _iDDrawIndex not used
 * @return 0, also when no file was open; 1 when something could not be written, the position could not be
 *         told, or a chunk could not be indexed for want of memory, and while a file conversion runs (nothing
 *         happens then); 2 when frames were dropped because the file had reached its size limit (what it
 * holds is sound)
 */
QUORLIN_API int StopRecord(int _iDDrawIndex);

/**
 * Is this audio slot to be written?
 *
 * @param _iAudioType     audio code of the stream
 * @param _pEncAudioData  the slot, _iLen bytes; not looked at for code 22
 * @param _iLen           a negative length counts as one of 2147483648 bytes and more
 * @return codes 1, 2, 3: 1 when the slot begins with 00 01 N 00, N being (_iLen - 4) / 2, and 0 for NULL;
 * code 22: 1; other codes and slots shorter than 4 bytes: 0
 */
QUORLIN_API BOOL CheckAudio(int _iAudioType, LPBYTE _pEncAudioData, int _iLen);

/**
 * The bytes that the open file will have when StopRecord() finishes it now: headers, chunks, index. From the
 * thread that records.
 *
 * @return 212 or 316 before the first chunk; -1 when no file is open
 */
QUORLIN_API int64_t GetRecordedSize(void);

/** Does nothing and returns 0. */
QUORLIN_API int HVDecReset(void* pEncState, short nCoder);

/**
 * Push a piece of an SDV stream and record every frame that it completes. It may end anywhere; bytes of an
 * unfinished frame wait in the stream buffer. Frames are found by the flag of m_Header.Mode; without an open
 * output they are consumed and dropped. Holds m_LockAviFile.
 *
 * @param _ucData  _iLength bytes, copied
 * @return what SearchAndRecordFrame() returns; -1 when the piece was refused whole: it does not fit
 *         ("-------buffer is not large enough-------" on standard error), its length is negative, it is NULL,
 *         or the job has no buffer. What is held stays held.
 */
QUORLIN_API int RecordAviEx(unsigned char* _ucData, int _iLength);

/** Record the complete frames in the stream buffer. The caller holds m_LockAviFile. Returns the last
 *  RecordAvi()'s result, 0 when there was none. */
QUORLIN_API int SearchAndRecordFrame(void);

/** StopRecord() under m_LockAviFile. Bytes of an unfinished frame stay in the buffer until Initialize().
 * While a file conversion runs nothing happens, and the result is 1. */
QUORLIN_API int StopRecordEx(int _iDDrawIndex);

/* ---------------------------------------------------------------------------------------------------------
 * Building an AVI file. The recorder drives these calls; they take no lock.
 */

/** Write bytes at the current position of m_fsRec. -1 without a file, else 0: a write that fails is told by
 *  StopRecord(). */
QUORLIN_API int WriteTofile(UCHAR* _dataBuf, int _idataLen);

/** Fill chunk headers with their ids and size 0: video "00dc", audio "01wb" ("00wb" for AVI_Audio). A NULL
 *  header is left alone; a media type other than 0, 1, 2 changes nothing. */
QUORLIN_API void AVI_FrameHeaderInit(AVI_MediaType _types, AVI_FrameHeader* _pVideoHeader,
                                     AVI_FrameHeader* _pAudioHeader);

/** Size of the header area: 212, 192 or 316 bytes for the media types 0, 1, 2; 0 for any other. */
QUORLIN_API int AVI_MoviSkipLen(AVI_MediaType _mediaType);

/** Reset counters and chunk headers for a new file. Returns 0. */
QUORLIN_API int AVI_init(AVI_MediaType _mediaType);

/** The builders fill a record, which is not NULL, from the job and return 0. AVI_WriteFileHeader() completes
 * what depends on picture size, frame count and file length. */
QUORLIN_API int AVI_SetAvih(AVI_MainHeader* _Avih);
QUORLIN_API int AVI_SetHdrlHeader(AVI_HdrlHeader* _hdrl, AVI_MediaType _mediaType);
QUORLIN_API int AVI_VideoSetStrh(AVI_StreamHeader* _strh);
QUORLIN_API int AVI_AudioSetStrh(AVI_StreamHeader* _strh);
QUORLIN_API int AVI_VideoSetStrlHeader(AVI_StrlHeader* _strl);
QUORLIN_API int AVI_AudioSetStrlHeader(AVI_StrlHeader* _strl);
QUORLIN_API int AVI_VideoSetStrf(AVI_BitmapInfoHeader* _strf);

/** AAC gets a two-byte AudioSpecificConfig (ISO/IEC 14496-3) for 48000, 32000, 16000 or else 8000 Hz, stereo.
 */
QUORLIN_API int AVI_AudioSetStrf(AVI_WaveFormatEx* _strf);
QUORLIN_API int AVI_VideoSetStrfHeader(AVI_VideoStrfHeader* _strfHeader);
QUORLIN_API int AVI_AudioSetStrfHeader(AVI_AudioStrfHeader* _strfHeader);

/** Write the header area from offset 0. 0; 1 without a file. */
QUORLIN_API int AVI_WriteFileHeader(AVI_Header _aviHeader, AVI_MediaType _mediaType);

/* What the headers in front of a file's chunks say. Fields are added behind these, never between them. */
typedef struct SdvAviHeader
{
    uint32_t cbSize; /* sizeof(SdvAviHeader), set by the caller */
    uint32_t u32Width;
    uint32_t u32Height;
    uint32_t u32FrameRate; /* pictures a second */
    uint32_t u32VideoChunks;
    uint32_t u32LargestVideoChunk; /* bytes */
    uint32_t u32AudioCode;         /* 1 G.711 A-law, 2 G.711 mu-law, 22 AAC; 0 without audio */
    uint32_t u32AudioChannels;
    uint32_t u32AudioRate; /* Hz; without audio, too, it is part of the file */
    uint32_t u32AudioChunks;
    uint32_t u32RiffSize; /* the whole file's length less 8 */
    uint32_t u32MoviSize; /* from the "movi" FOURCC to the end of the last chunk */
} SdvAviHeader;

/**
 * Build the bytes in front of a file's chunks, header area and movi list header, as StopRecord() writes them.
 * From values alone: the job is not looked at, so any thread may call it at any time.
 *
 * @param _pBytes where to put them, _iSize bytes
 * @return their number, 224 or with audio 328; -1 for NULL, fewer bytes of room, or a smaller cbSize
 */
QUORLIN_API int BuildAviHeader(const SdvAviHeader* _pHeader, unsigned char* _pBytes, int _iSize);

/** Write the movi list header behind the header area. 0; 1 without a file or with a size of 0 or less. */
QUORLIN_API int AVI_WriteMoviHeader(int _iMoviSize, AVI_MediaType _types);

/**
 * Index the chunk just written, and advance m_iAviOffset past it.
 *
 * @param _iDataLen   data bytes of the chunk
 * @param _iFrameType 0 video key frame, 1 other video frame, 5 audio
 * @return 0; -1 when the job holds no block or the kind is another one (nothing changes), or when the block
 * is full and no further one is to be had (the entry is lost, the offset advances)
 */
QUORLIN_API int AVI_AddIndex(int _iDataLen, int _iFrameType);

/** Write the idx1 header for that many entries at the end of the file. 0; 1 without a file or entries. */
QUORLIN_API int AVI_WriteIndexHeader(int _iTotalFrames);

/** Write the idx1 header and all entries, and give the blocks back to the pool. _mediaType is not used.
 *  Returns 0. */
QUORLIN_API int AVI_CreateAVIIndex(int _iTotalFrames, AVI_MediaType _mediaType);

#ifdef __cplusplus
}
#endif

#endif

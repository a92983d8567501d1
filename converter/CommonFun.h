/*
 * CommonFun.h: the SDV container. A recording is an 88-byte file header followed by frames; each frame is a
 * 32-byte frame header and its payload. Both headers are little-endian and are read as they lie in the file.
 *
 * The functions are pure: they read the bytes they are given and keep no state, so any thread may call them.
 */
#ifndef QUORLIN_COMMONFUN_H
#define QUORLIN_COMMONFUN_H

#include "platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/* File header, 88 bytes at offset 0. */
typedef struct S_FileHeader
{
    uint16_t FrameRate; /* frames per second, 0 to 30 */
    uint16_t Width;     /* picture size in pixels */
    uint16_t Height;
    uint16_t Mode;   /* stream mode: 11, 21, 31, 32 or 41 in a file */
    uint16_t bAudio; /* not interpreted by the converter, like all fields up to reserved */
    uint16_t Year;   /* recording start, local time */
    uint16_t Month;
    uint16_t Day;
    uint16_t Hour;
    uint16_t Minute;
    uint16_t Second;
    uint16_t CoverMask;
    char cCovWord[40];
    uint32_t TriggerHigh;
    uint32_t TriggerLow;
    uint16_t reserved;
    uint8_t AChannels;      /* audio channels; 0 and 255 mean 1 */
    uint8_t BitsPerSample;  /* 0 and 255 mean 16 */
    uint32_t SamplesPerSec; /* audio sample rate in Hz; 0 and 0xFFFFFFFF mean 8000 */
    uint32_t TotalSize;     /* not interpreted by the converter */
    uint32_t FrameCount;    /* number of frames; read by ChangeFile2AVI() only */
} S_FileHeader;

/*
 * Frame header, 32 bytes at the start of every frame. The payload behind it holds, in this order: the audio
 * frames before the video (high byte of u16AFrames counts them), u32VStreamLen bytes of video, and the audio
 * frames after the video (low byte). In a well-formed frame
 *     u32FrameSize = 32 + u32VStreamLen + (high byte + low byte) * u16AFrameSize.
 */
typedef struct S_FrameHeader
{
    uint32_t u32FrameID;   /* frame-start flag of the stream's mode, see GetFrameFlagByMode() */
    uint32_t u32FrameSize; /* whole frame in bytes, this header included */
    uint8_t u8FrameType;   /* 0 key frame, 1 predicted frame */
    uint8_t padding1[3];
    uint32_t u32FrameNO;    /* frames numbered 0 are not converted; the cipher's counter value */
    uint32_t u32TimeStamp;  /* not interpreted by the converter */
    uint32_t u32VStreamLen; /* bytes of video */
    uint16_t u16AFrames;    /* audio frames: high byte before the video, low byte after it */
    uint16_t u16AFrameSize; /* size of each audio frame in bytes */
    uint8_t u8ACoder;       /* 1 G.711 A-law, 2 G.711 mu-law, 22 AAC in ADTS frames */
    uint8_t padding2;
    uint16_t reserved; /* low two bits equal to 2: the first 64 payload bytes are enciphered */
} S_FrameHeader;

/** 1 when FrameRate is at most 30 and Mode is 11, 21, 31, 32 or 41; else 0, also for NULL. */
QUORLIN_API BOOL IsValidFileHeader(S_FileHeader* _pFileHeader);

/**
 * Is this frame header acceptable to the streaming interface? In mode 11 every header is; in any other mode
 * u32FrameSize and u32VStreamLen are at most 2 MiB (2097152) and the sizes add up as given above, computed in
 * 32 bits. The flag in u32FrameID is not tested: the caller does that first.
 *
 * @param _pFrmHeader 32 readable bytes, in any alignment
 * @return 1 or 0; 0 for NULL, but always 1 in mode 11
 */
QUORLIN_API BOOL IsValidFrameHeader(LPBYTE _pFrmHeader, int _iVMode);

/** Always 1: an MPEG-4 frame (mode 11) has no fields to test. */
QUORLIN_API BOOL IsValidMPEG4FrmHeader(unsigned char* _pFrmHeader);

/** As IsValidFrameHeader() without a mode and with a limit of 1 MiB (1048576): the file conversion's test. */
QUORLIN_API BOOL IsValidFrmHeader(LPBYTE _pFrmHeader);

/**
 * The frame-start flag of a mode: the frame's first four bytes as a little-endian number. For mode 11 the
 * caller masks those bytes with 0x00FCFFFF before it compares.
 *
 * @return 11: 0x00800000; 21, 22 and 41: 0x02000000; 31: 0x03000000; 32: 0x04000000; any other mode: -1
 */
QUORLIN_API int GetFrameFlagByMode(int _iMode);

/** Size of the whole frame: GetMPEG4FrmSize() in mode 11, else u32FrameSize. -1 for NULL. */
QUORLIN_API int GetFrameSize(LPBYTE _pFrmHeader, int _iVMode);

/**
 * The whole size of the frame that begins at these bytes, by the rules of a stream of that mode: the flag,
 * then IsValidFrameHeader(), then GetFrameSize().
 *
 * @param _pFrmHeader 32 readable bytes, in any alignment
 * @return 32 to 2097152, or 65535 in mode 11; 0 when no frame begins here, and for NULL
 */
QUORLIN_API int GetValidFrameSize(LPBYTE _pFrmHeader, int _iVMode);

/** Bytes of all audio frames in the frame, before and behind its video, as its header tells them: 0 to
 *  33422850; 0 for NULL. */
QUORLIN_API int GetFrameAudioSize(LPBYTE _pFrmHeader);

/** Give the audio fields that hold 0 or no value (255, 0xFFFFFFFF) the values that they stand for: one
 * channel of 16 bits at 8000 Hz. NULL is left alone. */
QUORLIN_API void CompleteFileHeader(S_FileHeader* _pFileHeader);

/** The big-endian 16-bit size at offset 5 of an MPEG-4 frame (7 bytes are read); -1 for NULL. */
QUORLIN_API int GetMPEG4FrmSize(unsigned char* _pFrmHeader);

#ifdef __cplusplus
}
#endif

#if defined(__cplusplus) && __cplusplus >= 201103L
static_assert(sizeof(S_FileHeader) == 88 && sizeof(S_FrameHeader) == 32, "headers lie as in the file");
#endif

#endif

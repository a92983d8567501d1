/*
 * ADTSFrame.h: the 7-byte header of ADTS frames, the transport of AAC audio (ISO/IEC 13818-7 and 14496-3).
 *
 * Pointers are not NULL. The parser validates nothing: a wrong sync word is stored as it was read. Its one record has no lock, so
 * InitHeader() and the reading of its result belong on one thread, with no other InitHeader() in between.
 */
#ifndef QUORLIN_ADTSFRAME_H
#define QUORLIN_ADTSFRAME_H

#include "platform.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tagADTSFrameHeader
{
    int32_t synword; /* 0xFFF in a valid header */
    int32_t id;
    int32_t layer;
    int32_t protection_absent;
    int32_t profile;
    int32_t sf_index;
    int32_t private_bit;
    int32_t channel_configuration;
    int32_t original;
    int32_t home;
    int32_t copyright_identification_bit;
    int32_t copyright_identification_start;
    int32_t aac_frame_lenght; /* whole frame in bytes, header included */
    int32_t adts_buffer_fullness;
    int32_t number_row_data_block_in_frame; /* raw data blocks in the frame, minus one */
    int32_t SamplingRate;                   /* Hz, from sf_index; 65535 where the index has no rate */
    int32_t Channels;                       /* copy of channel_configuration */
    int32_t Duration;                       /* never computed */
} ADTSFRAMEHEADER, *PADTSFRAMEHEADER;

/* The last parsed header. */
extern QUORLIN_API ADTSFRAMEHEADER m_ADTSHeader;

/** Parse the header at _pFrame (7 readable bytes) into m_ADTSHeader. */
QUORLIN_API void InitHeader(const unsigned char* _pFrame);

/** The address of m_ADTSHeader, always the same. */
QUORLIN_API PADTSFRAMEHEADER GetHeader(void);

/**
 * _iCount bits (0 to 31) from bit _iFirst on, the first bit most significant in the result. Bits are counted
 * from the most significant bit of each byte.
 */
QUORLIN_API int Getbslbf(const unsigned char* _pData, int _iFirst, int _iCount);

/** As Getbslbf() for 0 to 32 bits, but bits are counted from the least significant bit of each byte. */
QUORLIN_API unsigned int Getuimsbf(const unsigned char* _pData, int _iFirst, int _iCount);

#ifdef __cplusplus
}
#endif

#endif

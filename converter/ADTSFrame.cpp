#include "ADTSFrame.h"

ADTSFRAMEHEADER m_ADTSHeader;

static const int32_t s_iSampleRateIndex[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                               16000, 12000, 11025, 8000,  65535, 65535, 65535, 65535};

int Getbslbf(const unsigned char* _pData, int _iFirst, int _iCount)
{
    unsigned int result = 0;
    for (int bit = _iFirst; bit < _iFirst + _iCount; ++bit)
        result = result << 1 | (_pData[bit / 8] >> (7 - bit % 8) & 1u);
    return static_cast<int>(result);
}

unsigned int Getuimsbf(const unsigned char* _pData, int _iFirst, int _iCount)
{
    unsigned int result = 0;
    for (int bit = _iFirst; bit < _iFirst + _iCount; ++bit)
        result = result << 1 | (_pData[bit / 8] >> (bit % 8) & 1u);
    return result;
}

void InitHeader(const unsigned char* _pFrame)
{
    ADTSFRAMEHEADER& header = m_ADTSHeader;
    header.synword = Getbslbf(_pFrame, 0, 12);
    header.id = Getbslbf(_pFrame, 12, 1);
    header.layer = Getbslbf(_pFrame, 13, 2);
    header.protection_absent = Getbslbf(_pFrame, 15, 1);
    header.profile = Getbslbf(_pFrame, 16, 2);
    header.sf_index = Getbslbf(_pFrame, 18, 4);
    header.private_bit = Getbslbf(_pFrame, 22, 1);
    header.channel_configuration = Getbslbf(_pFrame, 23, 3);
    header.original = Getbslbf(_pFrame, 26, 1);
    header.home = Getbslbf(_pFrame, 27, 1);
    header.copyright_identification_bit = Getbslbf(_pFrame, 28, 1);
    header.copyright_identification_start = Getbslbf(_pFrame, 29, 1);
    header.aac_frame_lenght = Getbslbf(_pFrame, 30, 13);
    header.adts_buffer_fullness = Getbslbf(_pFrame, 43, 11);
    header.number_row_data_block_in_frame = Getbslbf(_pFrame, 54, 2);
    header.SamplingRate = s_iSampleRateIndex[header.sf_index & 15];
    header.Channels = header.channel_configuration;
}

PADTSFRAMEHEADER GetHeader(void)
{
    return &m_ADTSHeader;
}

#include "Quorlin_internal.h"

int HeaderChange(void)
{
    TSdv2Avi& job = g_tSdv2Avi;
    if (static_cast<int32_t>(job.m_Header.SamplesPerSec) == job.m_iAudioSampleRate) return 0;

    const int32_t rate = static_cast<int32_t>(job.m_Header.SamplesPerSec);
    const int32_t channels = job.m_Header.AChannels;
    const bool known = rate == 8000 || rate == 16000 || rate == 32000 || rate == 48000;
    job.m_iAudioSampleRate = known ? rate : 8000;
    job.m_iAudioChannel = channels == 1 || channels == 2 ? channels : 1;
    return 0;
}

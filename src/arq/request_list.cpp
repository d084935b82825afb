#include "arq/request_list.h"

#include "arq/wire.h"

namespace {

const ArqRequest& Header(const uint8_t* data)
{
    return *reinterpret_cast<const ArqRequest*>(data);
}

const Host16* Words(const uint8_t* data)
{
    return reinterpret_cast<const Host16*>(data + ARQ_REQUEST_BYTES);
}

} // namespace

bool RequestList::IsChecksumRight() const
{
    const int32_t covered = m_nLength - ARQ_REQUEST_BYTES;
    const Host16* words = Words(m_pData);
    uint32_t sum = Header(m_pData).checksum.Get();
    for (int32_t i = 0; i < covered / 2; ++i)
        sum += words[i].Get();
    if (covered % 2 != 0)
        sum += m_pData[m_nLength - 1];
    return (sum & 0xFFFF) == 0;
}

uint32_t RequestList::Count() const
{
    return Header(m_pData).seqCount.Get();
}

uint16_t RequestList::operator[](uint32_t index) const
{
    return Words(m_pData)[index].Get();
}

uint16_t RequestList::Retries() const
{
    return Header(m_pData).arqRetries.Get();
}

uint16_t RequestList::IntervalMs() const
{
    return Header(m_pData).arqIntervalMs.Get();
}

uint16_t RequestList::ExtraMs() const
{
    return Header(m_pData).arqExtraMs.Get();
}

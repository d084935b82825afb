#include "arqrx/core/timeline.h"

#include <algorithm>

namespace arqrx {

void Timeline::Add(const Stretch& stretch)
{
    m_stretches[m_nCount] = stretch;
    ++m_nCount;
}

Stretch& Timeline::Of(uint64_t index)
{
    size_t place = m_nCount - 1;
    while (place > 0 && m_stretches[place].firstIndex > index)
        --place;
    return m_stretches[place];
}

bool Timeline::PassTo(uint64_t index)
{
    size_t passed = 0;
    while (passed + 1 < m_nCount && m_stretches[passed + 1].firstIndex <= index)
        ++passed;
    std::copy(m_stretches.begin() + static_cast<ptrdiff_t>(passed),
        m_stretches.begin() + static_cast<ptrdiff_t>(m_nCount), m_stretches.begin());
    m_nCount -= passed;
    return passed > 0;
}

} // namespace arqrx

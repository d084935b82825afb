// A member that a lock guards is read without the lock.
// expect: reading variable 'm_value' requires holding mutex 'm_mutex'

#include "base/mutex.h"

class Guarded {
public:
    int Value()
    {
#ifdef CONTRACT_KEPT
        const MutexLock lock(m_mutex);
#endif
        return m_value;
    }

private:
    Mutex m_mutex;
    int m_value GUARDED_BY(m_mutex) = 0;
};

int ReadValue()
{
    Guarded guarded;
    return guarded.Value();
}

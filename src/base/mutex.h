#pragma once

#include <pthread.h>

// Clang's thread-safety annotations; other compilers ignore them.
#if defined(__clang__)
#define TX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TX_THREAD_ANNOTATION(x)
#endif
#define CAPABILITY(x) TX_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TX_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TX_THREAD_ANNOTATION(guarded_by(x))
#define ACQUIRED_BEFORE(...) TX_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define REQUIRES(...) TX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) TX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) TX_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) TX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) TX_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define RELEASE_GENERIC(...) TX_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define EXCLUDES(...) TX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// Marks a function that reads guarded data without the lock on purpose; a comment gives the reason.
#define UNLOCKED_BY_DESIGN TX_THREAD_ANNOTATION(no_thread_safety_analysis)

// A default POSIX mutex, known to Clang's thread-safety analysis. Not recursive.
class CAPABILITY("mutex") Mutex {
public:
    Mutex() { (void)pthread_mutex_init(&m_mutex, nullptr); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    ~Mutex() { (void)pthread_mutex_destroy(&m_mutex); }

    void Lock() ACQUIRE() { (void)pthread_mutex_lock(&m_mutex); }
    void Unlock() RELEASE() { (void)pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex {};
};

// Holds a Mutex for the length of a block.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() RELEASE() { m_mutex.Unlock(); }

private:
    Mutex& m_mutex;
};

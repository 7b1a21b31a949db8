// A write-once-read-many lock for client code: many readers at a time or one
// writer, and the writing thread may lock again, for writing or for reading.
// Every lock of the process waits on one shared monitor.
#pragma once

#include <pthread.h>

#include <cstdint>

class CKvWORMLock {
public:
    // The one mutex and condition variable behind every lock of the process.
    // Each lock is three plain fields; every unlock wakes every waiter of every
    // lock, and each waiter re-checks the condition of its own lock.
    struct CKvMonitor {
        static pthread_mutex_t ms_Mutex;
        static pthread_cond_t ms_Cond;
    };

    // Constant-initialised, so a static lock is usable before any constructor of
    // another translation unit runs.
    constexpr CKvWORMLock() noexcept : m_nReaders(0), m_nWriters(0), m_Owner(0) {}
    virtual ~CKvWORMLock();

    CKvWORMLock(const CKvWORMLock&) = delete;
    CKvWORMLock& operator=(const CKvWORMLock&) = delete;

    // Shared lock. Waits while another thread writes; the writing thread itself
    // passes at once. Readers are counted, not owned: a thread that holds a read
    // lock cannot then take wLock, even when it is also the writer. Returns 0.
    int32_t rLock() const;
    // Releases one read lock and wakes every waiter. More unlocks than locks
    // print the failure line to standard output, leave the count negative and
    // return 0 all the same.
    int32_t rUnLock() const;
    // Exclusive lock. Waits until nobody reads or writes, except that the
    // thread that already writes re-enters at once while there are no readers.
    // Returns 0.
    int32_t wLock();
    // Releases one level of the write lock; the lock is free for others after
    // as many wUnLock as wLock calls. More unlocks than locks print the failure
    // line and carry on. Returns 0.
    int32_t wUnLock();

    // Snapshots of the state, for diagnostics and tests; they may be stale as
    // soon as they return.
    int32_t GetReaderCount() const;
    int32_t GetWriterCount() const;

private:
    mutable int32_t m_nReaders;   // read locks held, by any threads
    int32_t m_nWriters;           // recursion depth of the write lock
    pthread_t m_Owner;            // the writing thread, 0 when nobody writes
};

// The process-wide critical section: ms_worm_cs is the one lock that sections
// all over a program take to exclude each other, without passing a lock object
// around. wLock/wUnLock enter and leave the section (re-entrant for the thread
// inside it); rLock/rUnLock share it among readers. It follows the rules and
// shares the monitor of CKvWORMLock. Further instances behave the same but are
// independent of ms_worm_cs.
class CKvWORMLock_CS : public CKvWORMLock {
public:
    constexpr CKvWORMLock_CS() noexcept = default;
    ~CKvWORMLock_CS() override;

    static CKvWORMLock_CS ms_worm_cs;
};

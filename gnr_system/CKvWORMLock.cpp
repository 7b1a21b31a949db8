#include "gnr_system/CKvWORMLock.h"

#include <cassert>
#include <cstdio>

#include "gnr_system/KvTrace.h"

pthread_mutex_t CKvWORMLock::CKvMonitor::ms_Mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t CKvWORMLock::CKvMonitor::ms_Cond = PTHREAD_COND_INITIALIZER;

CKvWORMLock_CS CKvWORMLock_CS::ms_worm_cs;

namespace {

// Holds the shared monitor's mutex for one scope.
class CMonitorGuard {
public:
    CMonitorGuard() {
        [[maybe_unused]] int rc = pthread_mutex_lock(&CKvWORMLock::CKvMonitor::ms_Mutex);
        assert(rc == 0);
    }
    ~CMonitorGuard() {
        [[maybe_unused]] int rc = pthread_mutex_unlock(&CKvWORMLock::CKvMonitor::ms_Mutex);
        assert(rc == 0);
    }
    CMonitorGuard(const CMonitorGuard&) = delete;
    CMonitorGuard& operator=(const CMonitorGuard&) = delete;

    void Wait() {
        [[maybe_unused]] int rc =
            pthread_cond_wait(&CKvWORMLock::CKvMonitor::ms_Cond, &CKvWORMLock::CKvMonitor::ms_Mutex);
        assert(rc == 0);
    }
    // Every lock shares the condition, so every waiter is woken to re-check.
    void WakeAll() { pthread_cond_broadcast(&CKvWORMLock::CKvMonitor::ms_Cond); }
};

}  // namespace

CKvWORMLock::~CKvWORMLock() = default;

int32_t CKvWORMLock::rLock() const {
    CMonitorGuard guard;
    // The writer may read what it writes; anyone else waits for the write to end.
    while (m_nWriters != 0 && !pthread_equal(m_Owner, pthread_self())) guard.Wait();
    ++m_nReaders;
    return 0;
}

int32_t CKvWORMLock::rUnLock() const {
    CMonitorGuard guard;
    if (--m_nReaders < 0) KV_TRACE_FAILURE();
    guard.WakeAll();
    return 0;
}

int32_t CKvWORMLock::wLock() {
    CMonitorGuard guard;
    const pthread_t self = pthread_self();
    // Readers are not owned, so any reader, even the writer itself, holds off a
    // write; without readers the current writer re-enters.
    while (m_nReaders != 0 || (m_nWriters != 0 && !pthread_equal(m_Owner, self))) guard.Wait();
    ++m_nWriters;
    m_Owner = self;
    return 0;
}

int32_t CKvWORMLock::wUnLock() {
    CMonitorGuard guard;
    --m_nWriters;
    if (m_nWriters < 0) KV_TRACE_FAILURE();
    if (m_nWriters == 0) {
        m_Owner = 0;
        guard.WakeAll();
    }
    return 0;
}

int32_t CKvWORMLock::GetReaderCount() const {
    CMonitorGuard guard;
    return m_nReaders;
}

int32_t CKvWORMLock::GetWriterCount() const {
    CMonitorGuard guard;
    return m_nWriters;
}

CKvWORMLock_CS::~CKvWORMLock_CS() = default;

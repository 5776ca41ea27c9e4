// Thin RAII-capable wrappers over the POSIX primitives the runtime records hold.
// They live inside zeroed arena records, so a default-constructed object must be
// the same as an initialised one.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cerrno>

class MV_Mutex {
public:
    MV_Mutex() { pthread_mutex_init(&m_, nullptr); }
    MV_Mutex(const MV_Mutex&) = delete;
    MV_Mutex& operator=(const MV_Mutex&) = delete;
    ~MV_Mutex() { pthread_mutex_destroy(&m_); }

    void lock() { pthread_mutex_lock(&m_); }
    void unlock() { pthread_mutex_unlock(&m_); }
    bool try_lock() { return pthread_mutex_trylock(&m_) == 0; }
    pthread_mutex_t* native() { return &m_; }

private:
    pthread_mutex_t m_;
};

class MV_Sem {
public:
    MV_Sem() { sem_init(&s_, 0, 0); }
    MV_Sem(const MV_Sem&) = delete;
    MV_Sem& operator=(const MV_Sem&) = delete;
    ~MV_Sem() { sem_destroy(&s_); }

    void post() { sem_post(&s_); }
    void wait() {
        while (sem_wait(&s_) != 0 && errno == EINTR) {
        }
    }
    bool try_wait() { return sem_trywait(&s_) == 0; }
    int value() {
        int v = 0;
        sem_getvalue(&s_, &v);
        return v;
    }

private:
    sem_t s_;
};

#pragma once
// Marks the hand-off of a job to a QThreadPool thread for ThreadSanitizer.
//
// QThreadPool queues a task under a QMutex, which locks inside Qt's own library through
// futexes; a ThreadSanitizer build cannot see that lock, so when a pool thread that is
// already running takes the next task, everything the launching thread wrote before
// (the job object, the operation record) looks unordered with the worker's reads.
// publish() just before QtConcurrent::run and receive() first thing in the worker state
// that ordering, which QThreadPool provides, to the tool. Anything written after the
// launch, or by the worker for the launching thread, is not covered and is still
// checked. Outside ThreadSanitizer builds both are empty.

#if defined(__SANITIZE_THREAD__)
#define KAVREL_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KAVREL_THREAD_SANITIZER 1
#endif
#endif

#ifdef KAVREL_THREAD_SANITIZER
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

namespace ThreadHandOff {

// token: an address both sides know, such as the job object.
inline void publish(const void* token)
{
#ifdef KAVREL_THREAD_SANITIZER
    __tsan_release(const_cast<void*>(token));
#else
    (void)token;
#endif
}

inline void receive(const void* token)
{
#ifdef KAVREL_THREAD_SANITIZER
    __tsan_acquire(const_cast<void*>(token));
#else
    (void)token;
#endif
}

} // namespace ThreadHandOff

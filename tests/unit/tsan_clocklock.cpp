// The ThreadSanitizer build only. Its runtime (g++ 12) does not see
// pthread_mutex_clocklock, which the timed waits of std::timed_mutex call, so
// it takes such a lock for none and reports its unlock. Those waits go to
// pthread_mutex_timedlock instead, which it sees, their deadline moved to the
// realtime clock.
#include <pthread.h>
#include <time.h>

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const struct timespec* at)
{
    constexpr long long ns_per_s = 1000000000LL;
    timespec now{};
    timespec real{};
    clock_gettime(clock, &now);
    clock_gettime(CLOCK_REALTIME, &real);
    long long left = (at->tv_sec - now.tv_sec) * ns_per_s + (at->tv_nsec - now.tv_nsec);
    long long deadline = real.tv_sec * ns_per_s + real.tv_nsec + (left > 0 ? left : 0);
    timespec until{static_cast<time_t>(deadline / ns_per_s), static_cast<long>(deadline % ns_per_s)};
    return pthread_mutex_timedlock(mutex, &until);
}

// Calls of time, threads and waiting that virtual time does not know: they end the run, with their
// name.
#include "time/exported.h"
#include "time/kernel_call.h"
#include "time/verdict.h"

#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <string>

/// The name stands in the symbol alone: headers declare some of these functions.
#define ZELF_REFUSED(name)                                      \
    ZELF_EXPORTED void refused_##name() __asm__(#name);         \
    void refused_##name() {                                     \
        zelfsim::virtual_time::end_refused(#name, ZELF_CALLER); \
    }

namespace {

/// The kernel's own calls that wait, or show a clock.
constexpr std::array waiting_calls {
    SYS_futex, SYS_select, SYS_poll, SYS_nanosleep, SYS_clock_nanosleep, SYS_epoll_wait,
        SYS_clock_gettime, SYS_gettimeofday, SYS_time, SYS_pselect6, SYS_ppoll, SYS_epoll_pwait,
        SYS_rt_sigtimedwait, SYS_pause, SYS_clone,
#if defined(SYS_futex_time64)
        SYS_futex_time64, SYS_clock_gettime64, SYS_clock_nanosleep_time64, SYS_pselect6_time64,
        SYS_ppoll_time64,
#endif
};

}  // namespace

extern "C" {

ZELF_EXPORTED long syscall(long number, ...) {
    if (std::find(waiting_calls.begin(), waiting_calls.end(), number) != waiting_calls.end()) {
        zelfsim::virtual_time::end_refused("syscall", " " + std::to_string(number), ZELF_CALLER);
    }
    std::array<long, 6> arguments{};
    va_list list;
    va_start(list, number);
    for (long& argument : arguments) {
        argument = va_arg(list, long);
    }
    va_end(list);
    return zelfsim::virtual_time::kernel(number, arguments[0], arguments[1], arguments[2],
                                         arguments[3], arguments[4], arguments[5]);
}

// Semaphores, barriers and other locks.
ZELF_REFUSED(sem_wait)
ZELF_REFUSED(sem_timedwait)
ZELF_REFUSED(sem_clockwait)
ZELF_REFUSED(sem_trywait)
ZELF_REFUSED(sem_post)
ZELF_REFUSED(pthread_barrier_wait)
ZELF_REFUSED(pthread_rwlock_rdlock)
ZELF_REFUSED(pthread_rwlock_tryrdlock)
ZELF_REFUSED(pthread_rwlock_timedrdlock)
ZELF_REFUSED(pthread_rwlock_clockrdlock)
ZELF_REFUSED(pthread_rwlock_wrlock)
ZELF_REFUSED(pthread_rwlock_trywrlock)
ZELF_REFUSED(pthread_rwlock_timedwrlock)
ZELF_REFUSED(pthread_rwlock_clockwrlock)
ZELF_REFUSED(pthread_rwlock_unlock)
ZELF_REFUSED(pthread_spin_lock)
ZELF_REFUSED(pthread_spin_trylock)
ZELF_REFUSED(pthread_spin_unlock)
ZELF_REFUSED(lockf)
ZELF_REFUSED(lockf64)
ZELF_REFUSED(mtx_lock)
ZELF_REFUSED(mtx_trylock)
ZELF_REFUSED(mtx_timedlock)
ZELF_REFUSED(mtx_unlock)
ZELF_REFUSED(cnd_wait)
ZELF_REFUSED(cnd_timedwait)
ZELF_REFUSED(cnd_signal)
ZELF_REFUSED(cnd_broadcast)
ZELF_REFUSED(semop)
ZELF_REFUSED(semtimedop)

// Threads and processes that are begun or ended in other ways.
ZELF_REFUSED(pthread_exit)
ZELF_REFUSED(pthread_cancel)
ZELF_REFUSED(pthread_testcancel)
ZELF_REFUSED(thrd_create)
ZELF_REFUSED(thrd_join)
ZELF_REFUSED(thrd_detach)
ZELF_REFUSED(thrd_exit)
ZELF_REFUSED(thrd_sleep)
ZELF_REFUSED(thrd_yield)
ZELF_REFUSED(fork)
ZELF_REFUSED(vfork)
ZELF_REFUSED(clone)
ZELF_REFUSED(posix_spawn)
ZELF_REFUSED(posix_spawnp)
ZELF_REFUSED(system)
ZELF_REFUSED(popen)
ZELF_REFUSED(wait)
ZELF_REFUSED(waitpid)
ZELF_REFUSED(waitid)
ZELF_REFUSED(wait3)
ZELF_REFUSED(wait4)
ZELF_REFUSED(pthread_yield)

// Descriptors that are waited for.
ZELF_REFUSED(pselect)
ZELF_REFUSED(ppoll)
ZELF_REFUSED(epoll_wait)
ZELF_REFUSED(epoll_pwait)
ZELF_REFUSED(epoll_pwait2)
ZELF_REFUSED(eventfd)
ZELF_REFUSED(eventfd_read)
ZELF_REFUSED(eventfd_write)
ZELF_REFUSED(timerfd_create)
ZELF_REFUSED(timerfd_settime)
ZELF_REFUSED(signalfd)
ZELF_REFUSED(inotify_init)
ZELF_REFUSED(inotify_init1)
ZELF_REFUSED(accept)
ZELF_REFUSED(accept4)
ZELF_REFUSED(connect)
ZELF_REFUSED(recv)
ZELF_REFUSED(recvfrom)
ZELF_REFUSED(recvmsg)
ZELF_REFUSED(recvmmsg)
ZELF_REFUSED(mq_receive)
ZELF_REFUSED(mq_timedreceive)
ZELF_REFUSED(mq_send)
ZELF_REFUSED(mq_timedsend)
ZELF_REFUSED(msgrcv)
ZELF_REFUSED(msgsnd)
ZELF_REFUSED(aio_suspend)

// Signals that are waited for, or come with time.
ZELF_REFUSED(pause)
ZELF_REFUSED(sigpause)
ZELF_REFUSED(sigsuspend)
ZELF_REFUSED(sigwait)
ZELF_REFUSED(sigwaitinfo)
ZELF_REFUSED(sigtimedwait)
ZELF_REFUSED(alarm)
ZELF_REFUSED(ualarm)
ZELF_REFUSED(setitimer)
ZELF_REFUSED(getitimer)
ZELF_REFUSED(timer_create)
ZELF_REFUSED(timer_settime)
ZELF_REFUSED(timer_gettime)
ZELF_REFUSED(timer_delete)

// Clocks that are set.
ZELF_REFUSED(clock_settime)
ZELF_REFUSED(settimeofday)
ZELF_REFUSED(stime)
ZELF_REFUSED(adjtime)
ZELF_REFUSED(adjtimex)
ZELF_REFUSED(clock_adjtime)
ZELF_REFUSED(ntp_adjtime)
ZELF_REFUSED(ntp_gettime)

// As programs with bounds checks call them.
ZELF_REFUSED(__pselect_chk)
ZELF_REFUSED(__ppoll_chk)
ZELF_REFUSED(__recv_chk)
ZELF_REFUSED(__recvfrom_chk)

// As programs with 64-bit time call them on 32-bit processors.
ZELF_REFUSED(__sem_timedwait64)
ZELF_REFUSED(__sem_clockwait64)
ZELF_REFUSED(__pthread_rwlock_timedrdlock64)
ZELF_REFUSED(__pthread_rwlock_clockrdlock64)
ZELF_REFUSED(__pthread_rwlock_timedwrlock64)
ZELF_REFUSED(__pthread_rwlock_clockwrlock64)
ZELF_REFUSED(__mtx_timedlock64)
ZELF_REFUSED(__cnd_timedwait64)
ZELF_REFUSED(__semtimedop64)
ZELF_REFUSED(__thrd_sleep64)
ZELF_REFUSED(__wait3_time64)
ZELF_REFUSED(__wait4_time64)
ZELF_REFUSED(__pselect64)
ZELF_REFUSED(__ppoll64)
ZELF_REFUSED(__epoll_pwait2_time64)
ZELF_REFUSED(__timerfd_settime64)
ZELF_REFUSED(__recvmmsg64)
ZELF_REFUSED(__recvmsg64)
ZELF_REFUSED(__mq_timedreceive_time64)
ZELF_REFUSED(__mq_timedsend_time64)
ZELF_REFUSED(__aio_suspend_time64)
ZELF_REFUSED(__sigtimedwait64)
ZELF_REFUSED(__setitimer64)
ZELF_REFUSED(__getitimer64)
ZELF_REFUSED(__timer_settime64)
ZELF_REFUSED(__timer_gettime64)
ZELF_REFUSED(__clock_settime64)
ZELF_REFUSED(__settimeofday64)
ZELF_REFUSED(__adjtime64)
ZELF_REFUSED(___adjtimex64)
ZELF_REFUSED(__clock_adjtime64)

}  // extern "C"

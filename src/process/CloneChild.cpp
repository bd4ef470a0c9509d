#include "process/CloneChild.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace korvo {

ChildStack::ChildStack() {
    page_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* base = ::mmap(nullptr, kSize + page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (base == MAP_FAILED) return;
    base_ = base;
    ::mprotect(base_, page_, PROT_NONE);
}

ChildStack::~ChildStack() {
    if (base_) ::munmap(base_, kSize + page_);
}

void* ChildStack::top() const { return base_ ? static_cast<char*>(base_) + page_ + kSize : nullptr; }

pid_t cloneSharingMemory(int (*childMain)(void*), void* argument, int* pidfd) {
    thread_local const ChildStack stack;
    if (!stack.top()) {
        errno = ENOMEM;
        return -1;
    }
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    sigemptyset(&previous);
    ::syscall(SYS_rt_sigprocmask, SIG_BLOCK, &all, &previous, kKernelSignalSetSize);
    const int flags = CLONE_VM | CLONE_VFORK | SIGCHLD | (pidfd ? CLONE_PIDFD : 0);
    const pid_t pid = ::clone(childMain, stack.top(), flags, argument, pidfd);
    const int cloneError = errno;
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &previous, nullptr, kKernelSignalSetSize);
    errno = cloneError;
    return pid;
}

}  // namespace korvo

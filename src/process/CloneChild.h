// A child that runs in the helper's own memory, on a stack of its own, while
// the thread that made it waits (CLONE_VM | CLONE_VFORK): until it execs a
// program, or until it has done a few system calls and exited. Such a child
// may make system calls only: nothing that allocates, locks, touches the C
// library's state or runs through a sanitizer's interceptors. Raw system
// calls also change only the child itself, where the C library's wrappers of
// setuid and friends would act on every thread of the helper.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstddef>

#define KORVO_CHILD_CODE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace korvo {

// The kernel's signal set: 64 bits (128 on MIPS), not the C library's 1024.
inline constexpr long kKernelSignalSetSize = (_NSIG - 1) / 8;

// The child's stack, with an inaccessible page below it.
class ChildStack {
public:
    static constexpr std::size_t kSize = 64 * 1024;

    ChildStack();
    ~ChildStack();
    ChildStack(const ChildStack&) = delete;
    ChildStack& operator=(const ChildStack&) = delete;

    void* top() const;

private:
    void* base_ = nullptr;
    std::size_t page_ = 0;
};

// Runs childMain(argument) in such a child, on this thread's stack for
// children (a thread makes one child at a time), with every signal blocked
// in the kernel's terms around the clone, so that no handler of the helper
// can run in the child. Returns once the child has exec'd or exited: its
// pid, or -1 with errno set. With pidfd given, the child's pidfd is stored
// there (CLONE_PIDFD). The exit signal is SIGCHLD.
pid_t cloneSharingMemory(int (*childMain)(void*), void* argument, int* pidfd);

}  // namespace korvo

#include "client/platform/posix_child_start.hpp"

#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/futex.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#if !defined(__x86_64__)
#error "The child start issues its system calls directly; add this architecture's syscall instruction"
#endif

namespace zorvi::posix_child {
namespace {

constexpr std::size_t stack_size = std::size_t{64} * 1024;
constexpr std::size_t guard_size = 4096;
constexpr unsigned char activation_byte = 1;
// The kernel's signal set is 64 bits on this architecture.
constexpr unsigned long kernel_set_size = 8;
constexpr int highest_signal = 64;

// Code that runs in the child: uninstrumented and without a stack canary
// check that could report into the parent's state; everything it calls is
// inlined into it.
// The GNU spelling, which both compilers take.
#define ZORVI_UNINSTRUMENTED __attribute__((no_sanitize("address", "thread", "undefined")))
#define ZORVI_CHILD_CODE ZORVI_UNINSTRUMENTED __attribute__((always_inline, no_stack_protector))

// The child shares the parent's thread storage, where errno lives, with a
// parent thread that keeps running; sanitizer hooks in library wrappers
// would touch the parent's state as well. So the child issues its calls
// directly and reads failures from the returned value, never from errno.
ZORVI_CHILD_CODE inline long raw_call(long number, long first = 0, long second = 0, long third = 0, long fourth = 0) {
  long result = 0;
  register long fourth_register asm("r10") = fourth;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(number), "D"(first), "S"(second), "d"(third), "r"(fourth_register)
               : "rcx", "r11", "memory");
  return result;
}

// The kernel's own layout of a signal action on this architecture.
struct KernelAction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  unsigned long mask;
};

ZORVI_CHILD_CODE inline long set_mask(const unsigned long* mask, unsigned long* saved) {
  return raw_call(SYS_rt_sigprocmask, SIG_SETMASK, reinterpret_cast<long>(mask), reinterpret_cast<long>(saved),
                  kernel_set_size);
}

[[noreturn]] ZORVI_CHILD_CODE inline void leave() {
  for (;;) raw_call(SYS_exit_group, 127);
}

[[noreturn]] ZORVI_CHILD_CODE inline void report_and_leave(const Plan& plan, long result) {
  const int error = static_cast<int>(-result);
  raw_call(SYS_write, plan.start_write, reinterpret_cast<long>(&error), sizeof error);
  leave();
}

// A failed call ends the start with its error.
ZORVI_CHILD_CODE inline void must(const Plan& plan, long result) {
  if (result < 0) report_and_leave(plan, result);
}

// The new image starts with default dispositions and nothing blocked: the
// parent's Ctrl+C handling, an ignored SIGPIPE or a signal blocked around
// the start are not the game's business. A parent handler must never run
// here either, as it would run on the parent's memory.
ZORVI_CHILD_CODE inline void reset_signals() {
  const KernelAction standard{SIG_DFL, 0, nullptr, 0};
  for (int signal_number = 1; signal_number <= highest_signal; ++signal_number) {
    if (signal_number != SIGKILL && signal_number != SIGSTOP)
      raw_call(SYS_rt_sigaction, signal_number, reinterpret_cast<long>(&standard), 0, kernel_set_size);
  }
  const unsigned long none = 0;
  set_mask(&none, nullptr);
}

ZORVI_CHILD_CODE inline long read_activation(int descriptor, unsigned char& byte) {
  long count = 0;
  do {
    count = raw_call(SYS_read, descriptor, reinterpret_cast<long>(&byte), 1);
  } while (count == -EINTR);
  return count;
}

// The child's side of the start, in the order the parent relies on: nothing
// observable happens before the activation byte, and every failure after it
// reaches the parent as an error number on the start channel.
ZORVI_UNINSTRUMENTED __attribute__((no_stack_protector)) int run_child(void* argument) {
  const Plan& plan = *static_cast<const Plan*>(argument);
  reset_signals();
  // Kernels before 5.11 refuse the flag; there only our own descriptors,
  // which are all close-on-exec already, are protected.
  raw_call(SYS_close_range, 3, ~0U, CLOSE_RANGE_CLOEXEC);
  raw_call(SYS_close, plan.start_read);
  raw_call(SYS_close, plan.activation_parent);
  if (plan.interrupt_reader >= 0) {
    raw_call(SYS_close, plan.interrupt_writer);
    must(plan, raw_call(SYS_fcntl, plan.interrupt_reader, F_SETFD, 0));
  }
  if (plan.isolated) must(plan, raw_call(SYS_setpgid, 0, 0));
  unsigned char byte = 0;
  // Without the byte the parent has not recorded this child: leave quietly.
  if (read_activation(plan.activation_child, byte) != 1 || byte != activation_byte) leave();
  raw_call(SYS_close, plan.activation_child);
  must(plan, raw_call(SYS_chdir, reinterpret_cast<long>(plan.directory)));
  must(plan, raw_call(SYS_dup2, plan.null_device, 0));
  raw_call(SYS_close, plan.null_device);
  if (!plan.console) must(plan, raw_call(SYS_dup2, 2, 1));
  const long result = raw_call(SYS_execve, reinterpret_cast<long>(plan.path), reinterpret_cast<long>(plan.argv),
                               reinterpret_cast<long>(plan.envp));
  report_and_leave(plan, result);
}

// clone without the library's wrapper, which thread sanitizers intercept
// and treat as a fork. In the child, on the new stack, it calls `entry` and
// leaves with its result; the parent gets the pid or the negated error.
ZORVI_UNINSTRUMENTED long clone_onto(void* stack_top, unsigned long flags, std::uint32_t* clear_word,
                                     int (*entry)(void*), void* argument) {
  long result = 0;
  register std::uint32_t* child_tid asm("r10") = clear_word;
  register long thread_area asm("r8") = 0;
  // The entry sits in a register of its own, since rbp is cleared for the
  // child's first frame; the argument is moved before that.
  register int (*entry_register)(void*) asm("r9") = entry;
  asm volatile(
      "syscall\n\t"
      "test %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "mov %[argument], %%rdi\n\t"
      "xor %%ebp, %%ebp\n\t"
      "call *%[entry]\n\t"
      "mov %%eax, %%edi\n\t"
      "mov %[leave], %%eax\n\t"
      "syscall\n\t"
      "hlt\n"
      "1:"
      : "=a"(result)
      : "a"(SYS_clone), "D"(flags), "S"(stack_top), "d"(0), "r"(child_tid),
        "r"(thread_area), [entry] "r"(entry_register), [argument] "r"(argument), [leave] "i"(SYS_exit_group)
      : "rcx", "r11", "memory");
  return result;
}

}  // namespace

ChildStack::ChildStack() { map(); }

void ChildStack::map() {
  void* base = ::mmap(nullptr, stack_size + guard_size, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) return;
  // The stack grows down towards the guard page.
  if (::mprotect(base, guard_size, PROT_NONE) != 0) {
    ::munmap(base, stack_size + guard_size);
    return;
  }
  base_ = base;
  size_ = stack_size + guard_size;
}

ChildStack::~ChildStack() {
  if (base_ != nullptr) ::munmap(base_, size_);
}

ChildStack& ChildStack::of_this_thread() {
  thread_local ChildStack stack;
  // A failed map is tried again at the next start.
  if (!stack) stack.map();
  return stack;
}

void* ChildStack::top() const { return static_cast<char*>(base_) + size_; }

pid_t start(const Plan& plan, ChildStack& stack) {
  if (!stack) {
    errno = ENOMEM;
    return -1;
  }
  // Blocked in the kernel, the library's own signals included, so that no
  // handler can run in the child before it has reset the dispositions.
  const unsigned long all = ~0UL;
  unsigned long saved = 0;
  if (::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &saved, kernel_set_size) != 0) return -1;
  __atomic_store_n(&stack.occupied_, 1U, __ATOMIC_SEQ_CST);
  const long result = clone_onto(stack.top(), CLONE_VM | CLONE_CHILD_CLEARTID | SIGCHLD, &stack.occupied_, run_child,
                                 const_cast<Plan*>(&plan));
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &saved, nullptr, kernel_set_size);
  if (result < 0) {
    __atomic_store_n(&stack.occupied_, 0U, __ATOMIC_SEQ_CST);
    errno = static_cast<int>(-result);
    return -1;
  }
  return static_cast<pid_t>(result);
}

bool ChildStack::wait_until_left() {
  for (;;) {
    const std::uint32_t word = __atomic_load_n(&occupied_, __ATOMIC_SEQ_CST);
    if (word == 0) return true;
    // Not a private futex: the kernel wakes this word as a shared one.
    const long result = ::syscall(SYS_futex, &occupied_, FUTEX_WAIT, word, nullptr, nullptr, 0);
    if (result != 0 && errno != EINTR && errno != EAGAIN) return false;
  }
}

}  // namespace zorvi::posix_child

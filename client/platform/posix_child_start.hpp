#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Starting a supervised child without copying the parent's address space.
// The child runs on a stack of its own inside the parent's memory until its
// exec, so a parent with gigabytes mapped starts a child as fast as a small
// one and pays no copy-on-write faults afterwards. Unlike vfork the parent
// runs on meanwhile: it must record the pid and send the activation byte
// while the child waits.
namespace zorvi::posix_child {

// Everything the child touches, prepared before it exists. The child only
// reads this; every descriptor here is close-on-exec in the parent.
struct Plan {
  const char* path;
  char* const* argv;
  char* const* envp;
  const char* directory;
  int start_read;
  int start_write;
  int activation_parent;
  int activation_child;
  int null_device;       // never one of 0 to 2
  int interrupt_reader;  // -1 without an interrupt channel
  int interrupt_writer;
  bool console;
  bool isolated;
};

// The memory the child runs on. It must outlive the child's use of the
// parent's memory: until `wait_until_left` has returned true, or the child
// has been reaped.
class ChildStack {
 public:
  ChildStack();
  ~ChildStack();
  ChildStack(const ChildStack&) = delete;
  ChildStack& operator=(const ChildStack&) = delete;

  // The calling thread's own stack, mapped on its first start and kept: a
  // start never returns while its child still runs on it, so the next
  // start of the same thread may use it again, without a map, a guard
  // page and an unmap each time.
  static ChildStack& of_this_thread();

  explicit operator bool() const { return base_ != nullptr; }
  void* top() const;

  // Blocks until the child started on this stack has left this process's
  // memory: the kernel clears the word and wakes its waiters as the child's
  // exec replaces its memory, or as the child ends, whichever comes first.
  // The exec is then past the point from which it can still fail back to
  // the child. False if the wait itself cannot be made.
  bool wait_until_left();

 private:
  friend pid_t start(const Plan& plan, ChildStack& stack);
  void map();

  void* base_ = nullptr;
  std::size_t size_ = 0;
  std::uint32_t occupied_ = 0;
};

// Starts the child on `stack` with every signal blocked around the start;
// the child resets every disposition and its mask before it can take one.
// `plan` must stay unchanged as long as `stack` must live. Returns the pid,
// or -1 with errno.
pid_t start(const Plan& plan, ChildStack& stack);

}  // namespace zorvi::posix_child

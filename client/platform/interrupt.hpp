#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "client/platform/unique_fd.hpp"

namespace zorvi {

// The one variable through which a console child finds the read end of its
// parent's interrupt pipe. Its value is "1:" and the descriptor number.
inline constexpr std::string_view launcher_interrupt_reader_environment = "ZORVI_LAUNCHER_INTERRUPT_READER";

// Turns Ctrl+C, or a parent's request over the inherited pipe, into a flag
// that long work polls between steps. One may exist at a time per process.
class ConsoleInterrupt {
 public:
  explicit ConsoleInterrupt(bool attach_parent);
  ~ConsoleInterrupt();
  ConsoleInterrupt(const ConsoleInterrupt&) = delete;
  ConsoleInterrupt& operator=(const ConsoleInterrupt&) = delete;

  // True after SIGINT or a parent's request; stays true once answered.
  bool requested();

  // True while a parent's reader is attached and the parent has not gone.
  static bool parent_reader_attached();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A private pipe from a parent to one console child that leads its own
// process group, so that the terminal's SIGINT does not reach the child and
// the parent decides when to ask it to stop.
class InterruptPipe {
 public:
  InterruptPipe();
  InterruptPipe(const InterruptPipe&) = delete;
  InterruptPipe& operator=(const InterruptPipe&) = delete;

  // The variable's value that names the reader in the child.
  std::string child_environment() const;

  // The descriptor numbers a child start prepares before the child exists:
  // the child keeps the reader across its exec and closes the writer.
  struct ChildEnds {
    int reader;
    int writer;
  };
  ChildEnds child_ends() const noexcept { return {reader_.get(), writer_.get()}; }

  // In the parent after the fork: the reader now belongs to the child.
  void close_reader();

  // Sends one request; true once a request has been delivered. A child that
  // has gone gives false and leaves no SIGPIPE behind.
  bool request();

 private:
  UniqueFd reader_;
  UniqueFd writer_;
  bool requested_ = false;
};

}  // namespace zorvi

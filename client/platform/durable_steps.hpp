#pragma once

// Every operation that makes a change durable (a flush, a rename, a link
// into place) reports here after it succeeds. Nothing listens in a shipped
// program; a crash-test build listens to kill itself between two steps and
// so reach every state a power loss or kill could leave on disk.

namespace zorvi {

using DurableStepObserver = void (*)();

// Installs the one observer (null removes it).
void observe_durable_steps(DurableStepObserver observer);

// Called by the platform layer after each durable operation.
void durable_step();

}  // namespace zorvi

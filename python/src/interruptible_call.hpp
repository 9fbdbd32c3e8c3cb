// Blocking library calls (a motion waits until the arm has arrived) made from Python. The call
// runs on a worker thread while the calling thread, with the GIL released, wakes every few
// milliseconds to let Python run its signal handlers: otherwise Ctrl-C would wait for the end of
// the motion. A Python exception raised by a handler (KeyboardInterrupt) first runs `interrupt`
// (stop the arm), then waits for the call to leave and raises that exception; the call's own
// outcome ("motion stopped") is dropped. Without a pending signal the call's result or its C++
// exception comes back as if it had been made directly.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <future>
#include <utility>

namespace kestrel::python {

template <typename Call, typename Interrupt>
auto call_interruptibly(Call&& call, Interrupt&& interrupt) {
  constexpr auto kSignalCheckPeriod = std::chrono::milliseconds(5);
  auto outcome = std::async(std::launch::async, std::forward<Call>(call));
  for (;;) {
    {
      pybind11::gil_scoped_release release;
      if (outcome.wait_for(kSignalCheckPeriod) == std::future_status::ready) {
        break;
      }
    }
    if (PyErr_CheckSignals() != 0) {
      pybind11::error_already_set raised;  // takes the pending exception out of the interpreter
      {
        pybind11::gil_scoped_release release;
        try {
          interrupt();
        } catch (...) {  // a controller already cleaned up has nothing left to stop
        }
        outcome.wait();
      }
      try {
        outcome.get();
      } catch (...) {  // superseded by the exception that interrupted it
      }
      throw raised;
    }
  }
  return outcome.get();
}

}  // namespace kestrel::python

#pragma once

#include <string>

#include "report.h"

/// The measures. Each measure runs in its own process, so that it does not inherit memory, threads or
/// connections. It throws when something does not work: a measure is also a test.
namespace bench {

struct Plan {
  bool isFull = true;  ///< false: only check that the measures work
  std::string before;  ///< another build of rfidd to compare with; may be empty

  int Count(int full, int otherwise) const { return isFull ? full : otherwise; }
};

/// Looking a card up in the standalone list, against a hash set and SQLite's index.
Run MeasureLookUp(const Plan& plan);

/// Taking over a list of 100,000 cards: time and memory of this process.
Run MeasureListLoading(const Plan& plan);

/// An event from posting to the end of its reaction, against a hand-written switch over the same queue.
Run MeasureEngine(const Plan& plan);

/// A card from the kernel's event to the notification, against a program that only sends the same messages.
Run MeasureCard(const Plan& plan);

/// The same with the whole station on one processor.
Run MeasureCardOnOneCore(const Plan& plan);

/// The system calls of a card, counted by strace.
Run MeasureSystemCalls(const Plan& plan);

/// The enabled daemon at rest, against a bare gRPC server: wake-ups, memory, threads.
Run MeasureRest(const Plan& plan);

/// The start of the process until it is ready, against a bare gRPC server; the size of the program.
Run MeasureStart(const Plan& plan);

/// Memory during and after 10,000 requests at once, against a bare gRPC server that answers them.
Run MeasureFlood(const Plan& plan);

}  // namespace bench

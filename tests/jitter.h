#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

/// The seed of this run. Setting RFID_SEED to a printed seed repeats that run's timing, as far as the
/// scheduler allows.
inline unsigned Seed() {
  static const unsigned seed = [] {
    const char* text = std::getenv("RFID_SEED");
    const unsigned value = text == nullptr ? std::random_device()() : static_cast<unsigned>(std::atoll(text));
    std::printf("RFID_SEED=%u repeats this run\n", value);
    return value;
  }();
  return seed;
}

/// One thread's timing.
class Jitter {
 public:
  explicit Jitter(unsigned stream) : mRandom(Seed() * 1000003U + stream) {}

  unsigned Below(unsigned bound) { return std::uniform_int_distribution<unsigned>(0, bound - 1)(mRandom); }

  /// Returns at once, yields, or lets some time pass.
  void Pass() {
    switch (Below(4)) {
      case 0:
        std::this_thread::yield();
        break;
      case 1:
        std::this_thread::sleep_for(std::chrono::microseconds(Below(200)));
        break;
      case 2: {
        const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(Below(50));
        while (std::chrono::steady_clock::now() < end) {
        }
        break;
      }
      default:
        break;
    }
  }

 private:
  std::mt19937 mRandom;
};

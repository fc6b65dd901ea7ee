// Stands in for Google Benchmark where instructions are counted: the same loops, run a set number of times.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <string>

namespace benchmark {

// The emulator's plugin (count_plugin.c) answers this number; the kernel itself knows none such.
constexpr long kCounterCall = 0x5153;

inline uint64_t executed_instructions() {
  uint64_t count = 0;
  syscall(kCounterCall, &count);
  return count;
}

class State {
 public:
  struct [[maybe_unused]] Pass {};
  struct End {};
  class Iterator {
   public:
    Iterator(State* state, uint64_t passes) : state_(state), left_(passes) {}
    bool operator!=(End) {
      if (left_ > 0) return true;
      state_->PauseTiming();
      return false;
    }
    void operator++() { --left_; }
    Pass operator*() const { return {}; }

   private:
    State* state_;
    uint64_t left_;
  };

  explicit State(uint64_t passes) : passes_(passes) {}

  Iterator begin() {
    ResumeTiming();
    return {this, passes_};
  }
  End end() const { return {}; }

  void ResumeTiming() { started_ = executed_instructions(); }
  void PauseTiming() { counted_ += executed_instructions() - started_; }
  void SkipWithError(const std::string& error) { error_ = error; }

  double instructions_per_pass() const {
    return static_cast<double>(counted_) / static_cast<double>(passes_);
  }
  const std::string& error() const { return error_; }

 private:
  uint64_t passes_;
  uint64_t started_ = 0;
  uint64_t counted_ = 0;
  std::string error_;
};

template <class Value>
inline void DoNotOptimize(const Value& value) {
  asm volatile("" : : "r,m"(value) : "memory");
}

inline void ClobberMemory() { asm volatile("" : : : "memory"); }

}  // namespace benchmark

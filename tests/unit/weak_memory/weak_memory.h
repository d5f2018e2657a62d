// A small explorer of what threads may see of each other's memory on AArch64. A litmus test is a few threads of loads,
// stores and fences; the explorer runs every order in which a processor may let them take effect, and tells whether an
// outcome is possible.
//
// The model is Arm's, put operationally. Memory is one: a store becomes visible to all other threads at once. A
// thread's events take effect in any order that keeps, for an earlier and a later one:
//   - accesses to one location, but for a load behind a store: it may read the store's value before others do
//   - an acquiring load, and everything behind it; everything before a releasing store, and the store; a releasing
//   store
//     and a sequentially consistent load
//   - what a barrier orders
//   - a load, and a store of what it has read; a load, and a store behind a branch that it decides; a load, and an
//   access
//     to an address that it has read
//   - the two halves of an atomic operation, with no other store to its location in between
// A branch orders no loads: they are done in advance. Two loads of one location are kept in order, and so is a load
// behind the store of an atomic operation, where the architecture allows a little more.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace weak_memory {

enum memory_order : std::uint8_t { RELAXED, ACQUIRE, RELEASE, ACQ_REL, SEQ_CST };

// What is stored: a constant, or a register with a constant added.
struct value {
  value(int number) : constant(number) {}  // NOLINT(google-explicit-constructor): a number stands for itself
  value(int of_register, int added) : constant(added), source(of_register) {}

  int constant;
  int source = -1;
};
inline value in(int number_of_register) { return {number_of_register, 0}; }

enum event_kind : std::uint8_t { LOAD, STORE, EXCLUSIVE_LOAD, EXCLUSIVE_STORE, FENCE, BRANCH };

struct event {
  event_kind kind;
  memory_order order = RELAXED;
  int location = 0;
  int target = -1;          // A load's register.
  value operand = 0;        // What a store stores, or what a branch compares with.
  int tested = -1;          // A branch's register.
  bool is_equal = true;     // The branch goes this way if the register is (not) the operand.
  int address_source = -1;  // The register that the address was computed from.
};

// One way through a thread's program. A program with branches has several: each assumes which way they go. Each load
// has a register of its own.
class path {
 public:
  path& load(int target, int location, memory_order order = RELAXED);
  path& load_through(int address_source, int target, int location);
  path& store(int location, value stored, memory_order order = RELAXED);
  path& exchange(int target, int location, value stored, memory_order order);
  path& add(int target, int location, int addend, memory_order order);
  path& compare_exchange(int target, int location, value expected, value stored, memory_order order);
  path& fence(memory_order order);
  path& when_equal(int tested, value other);
  path& when_not_equal(int tested, value other);
  // A mutex at a location that is 0 when it is free. The way with a thread that waits is the way without.
  path& lock(int location);
  path& unlock(int location);

  std::vector<event> events;

 private:
  int m_locks = 0;  // Their registers are the last ones.
};

constexpr int REGISTERS = 8;
constexpr int LOCATIONS = 8;
constexpr int MOST_THREADS = 4;

struct outcome {
  std::array<std::array<int, REGISTERS>, MOST_THREADS> registers{};
  std::array<int, LOCATIONS> memory{};
};

using predicate = std::function<bool(const outcome&)>;

// The ways of each thread.
using litmus = std::vector<std::vector<path>>;

// Whether a run can end so. `initial` gives the locations that do not begin with 0.
bool can_end(const litmus& test, const predicate& wanted, const std::map<int, int>& initial = {});

// In how many different ways a run can end.
std::size_t count_ends(const litmus& test);

}  // namespace weak_memory

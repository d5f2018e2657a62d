// Depth first through all states: which events of each thread have taken effect, its registers, and the memory. A state
// that was seen is not entered again.
#include "weak_memory.h"

#include <cstdlib>
#include <set>
#include <string>

namespace weak_memory {

namespace {

constexpr std::size_t MOST_EVENTS = 24;

bool is_load(const event& e) { return e.kind == LOAD || e.kind == EXCLUSIVE_LOAD; }
bool is_store(const event& e) { return e.kind == STORE || e.kind == EXCLUSIVE_STORE; }
bool is_access(const event& e) { return is_load(e) || is_store(e); }
bool acquires(const event& e) { return is_load(e) && (e.order == ACQUIRE || e.order == ACQ_REL || e.order == SEQ_CST); }
bool releases(const event& e) {
  return is_store(e) && (e.order == RELEASE || e.order == ACQ_REL || e.order == SEQ_CST);
}

// An acquire fence is DMB ISHLD, each stronger one DMB ISH.
bool fence_orders_before(const event& before, const event& fence) {
  return is_load(before) || (is_access(before) && fence.order != ACQUIRE);
}

bool depends(const event& before, const event& after) {
  if (!is_load(before) || before.target < 0) return false;
  if (after.address_source == before.target) return true;
  if (after.kind == BRANCH) return after.tested == before.target || after.operand.source == before.target;
  return is_store(after) && after.operand.source == before.target;
}

bool same_location_orders(const event& before, const event& after) {
  if (!is_access(before) || !is_access(after) || before.location != after.location) return false;
  return !(before.kind == STORE && after.kind == LOAD);
}

// Whether `before`, which comes first in the program, has to take effect first.
bool is_ordered(const event& before, const event& after) {
  if (before.kind == FENCE) return is_access(after);
  if (after.kind == FENCE) return fence_orders_before(before, after);
  if (depends(before, after)) return true;
  if (before.kind == BRANCH) return is_store(after);
  if (after.kind == BRANCH) return false;
  if (acquires(before) || releases(after)) return true;
  if (releases(before) && acquires(after) && after.order == SEQ_CST) return true;
  return same_location_orders(before, after);
}

// The events that have to come before each, as bits.
std::vector<std::uint32_t> orders_of(const path& way) {
  if (way.events.size() > MOST_EVENTS) std::abort();
  std::vector<std::uint32_t> orders(way.events.size(), 0);
  std::uint32_t targets = 0;
  for (std::size_t after = 0; after < way.events.size(); ++after) {
    for (std::size_t before = 0; before < after; ++before) {
      if (is_ordered(way.events[before], way.events[after])) orders[after] |= std::uint32_t{1} << before;
    }
    if (!is_load(way.events[after])) continue;
    const std::uint32_t target = std::uint32_t{1} << way.events[after].target;
    if ((targets & target) != 0) std::abort();
    targets |= target;
  }
  return orders;
}

struct state {
  std::array<std::uint32_t, MOST_THREADS> done{};
  outcome now;
  std::array<int, LOCATIONS> stores{};  // How many each location has had.
  // What that number was at the thread's exclusive load of the location.
  std::array<std::array<int, LOCATIONS>, MOST_THREADS> reserved_at{};

  std::string key() const { return {reinterpret_cast<const char*>(this), sizeof *this}; }
};

class explorer {
 public:
  explorer(const std::vector<const path*>& ways, const std::function<bool(const outcome&)>& at_end)
      : m_ways(ways), m_at_end(at_end) {
    for (const path* way : ways) m_orders.push_back(orders_of(*way));
  }

  // Whether `at_end` has said to stop.
  bool explore(const state& before) {
    if (!m_seen.insert(before.key()).second) return false;
    bool is_end = true;
    for (std::size_t thread = 0; thread < m_ways.size(); ++thread) {
      const std::vector<event>& events = m_ways[thread]->events;
      for (std::size_t index = 0; index < events.size(); ++index) {
        const std::uint32_t done = before.done[thread];
        if ((done >> index & 1) != 0) continue;
        is_end = false;
        if ((m_orders[thread][index] & ~done) != 0) continue;
        state after = before;
        after.done[thread] |= std::uint32_t{1} << index;
        if (take(thread, index, after) && explore(after)) return true;
      }
    }
    return is_end && m_at_end(before.now);
  }

 private:
  static int evaluate(const value& what, const std::array<int, REGISTERS>& registers) {
    return what.constant + (what.source >= 0 ? registers[static_cast<std::size_t>(what.source)] : 0);
  }

  // The last store before the load that others do not see yet, if there is one.
  const event* own_store(std::size_t thread, std::size_t index, const state& now) const {
    const std::vector<event>& events = m_ways[thread]->events;
    for (std::size_t earlier = index; earlier-- > 0;) {
      if (!is_store(events[earlier]) || events[earlier].location != events[index].location) continue;
      return (now.done[thread] >> earlier & 1) == 0 ? &events[earlier] : nullptr;
    }
    return nullptr;
  }

  bool is_loaded(std::size_t thread, int number_of_register, const state& now) const {
    const std::vector<event>& events = m_ways[thread]->events;
    for (std::size_t index = 0; index < events.size(); ++index) {
      if (is_load(events[index]) && events[index].target == number_of_register) {
        return (now.done[thread] >> index & 1) != 0;
      }
    }
    return true;
  }

  // Lets the event take effect. False: this way cannot be gone.
  bool take(std::size_t thread, std::size_t index, state& now) const {
    const event& e = m_ways[thread]->events[index];
    std::array<int, REGISTERS>& registers = now.now.registers[thread];
    const auto location = static_cast<std::size_t>(e.location);
    switch (e.kind) {
      case FENCE: return true;
      case BRANCH:
        return (registers[static_cast<std::size_t>(e.tested)] == evaluate(e.operand, registers)) == e.is_equal;
      case LOAD:
      case EXCLUSIVE_LOAD: {
        const event* own = own_store(thread, index, now);
        if (own != nullptr && !is_loaded(thread, own->operand.source, now)) return false;
        registers[static_cast<std::size_t>(e.target)] =
            own != nullptr ? evaluate(own->operand, registers) : now.now.memory[location];
        if (e.kind == EXCLUSIVE_LOAD) now.reserved_at[thread][location] = now.stores[location];
        return true;
      }
      case EXCLUSIVE_STORE:
        if (now.reserved_at[thread][location] != now.stores[location]) return false;
        [[fallthrough]];
      case STORE:
        now.now.memory[location] = evaluate(e.operand, registers);
        ++now.stores[location];
        return true;
    }
    return false;
  }

  const std::vector<const path*>& m_ways;
  const std::function<bool(const outcome&)>& m_at_end;
  std::vector<std::vector<std::uint32_t>> m_orders;
  std::set<std::string> m_seen;
};

// Calls `at_end` for each end of each choice of ways, until it says to stop.
bool for_each_end(const litmus& test, const std::map<int, int>& initial,
                  const std::function<bool(const outcome&)>& at_end) {
  if (test.size() > MOST_THREADS) std::abort();
  state start;
  for (const auto& [location, number] : initial) start.now.memory[static_cast<std::size_t>(location)] = number;
  std::vector<std::size_t> choice(test.size(), 0);
  for (;;) {
    std::vector<const path*> ways;
    for (std::size_t thread = 0; thread < test.size(); ++thread) ways.push_back(&test[thread][choice[thread]]);
    if (explorer(ways, at_end).explore(start)) return true;
    std::size_t thread = 0;
    while (thread < test.size() && ++choice[thread] == test[thread].size()) choice[thread++] = 0;
    if (thread == test.size()) return false;
  }
}

}  // namespace

path& path::load(int target, int location, memory_order order) {
  events.push_back({.kind = LOAD, .order = order, .location = location, .target = target});
  return *this;
}

path& path::load_through(int address_source, int target, int location) {
  events.push_back({.kind = LOAD, .location = location, .target = target, .address_source = address_source});
  return *this;
}

path& path::store(int location, value stored, memory_order order) {
  events.push_back({.kind = STORE, .order = order, .location = location, .operand = stored});
  return *this;
}

path& path::exchange(int target, int location, value stored, memory_order order) {
  events.push_back({.kind = EXCLUSIVE_LOAD, .order = order, .location = location, .target = target});
  events.push_back({.kind = EXCLUSIVE_STORE, .order = order, .location = location, .operand = stored});
  return *this;
}

path& path::add(int target, int location, int addend, memory_order order) {
  return exchange(target, location, {target, addend}, order);
}

path& path::compare_exchange(int target, int location, value expected, value stored, memory_order order) {
  events.push_back({.kind = EXCLUSIVE_LOAD, .order = order, .location = location, .target = target});
  when_equal(target, expected);
  events.push_back({.kind = EXCLUSIVE_STORE, .order = order, .location = location, .operand = stored});
  return *this;
}

path& path::fence(memory_order order) {
  events.push_back({.kind = FENCE, .order = order});
  return *this;
}

path& path::when_equal(int tested, value other) {
  events.push_back({.kind = BRANCH, .operand = other, .tested = tested});
  return *this;
}

path& path::when_not_equal(int tested, value other) {
  events.push_back({.kind = BRANCH, .operand = other, .tested = tested, .is_equal = false});
  return *this;
}

path& path::lock(int location) {
  ++m_locks;
  return compare_exchange(REGISTERS - m_locks, location, 0, 1, ACQUIRE);
}

path& path::unlock(int location) { return store(location, 0, RELEASE); }

bool can_end(const litmus& test, const predicate& wanted, const std::map<int, int>& initial) {
  return for_each_end(test, initial, wanted);
}

std::size_t count_ends(const litmus& test) {
  std::set<std::string> ends;
  for_each_end(test, {}, [&ends](const outcome& end) {
    ends.emplace(reinterpret_cast<const char*>(&end), sizeof end);
    return false;
  });
  return ends.size();
}

}  // namespace weak_memory

// The descriptor table. Operations take locks by rising number, so that they never wait for each other in a circle. The
// size of the table decides which locks these are, so it is read again under the locks.
#include "fd_names.h"

#include <sched.h>

#include <algorithm>
#include <bit>
#include <new>
#include <utility>

#include "flat_table.h"

namespace ceilmeter {

namespace {

// Buckets that a search for room looks at; enough to fill a table to nine tenths before it doubles.
constexpr std::size_t search_limit = 512;

constexpr int spins_before_yield = 64;

std::uint64_t hash_of(std::int32_t fd) { return flat_table_hash(static_cast<std::uint64_t>(std::int64_t{fd})); }

std::uint8_t partial_of(std::uint64_t hash) {
  hash ^= hash >> 32;
  hash ^= hash >> 16;
  hash ^= hash >> 8;
  return static_cast<std::uint8_t>(hash);
}

}  // namespace

void fd_name_table::lock_line::lock() const {
  for (int spins = 0;; ++spins) {
    // Acquire: pairs with the release in unlock.
    const std::atomic_ref word(taken);
    if (word.load(std::memory_order_relaxed) == 0 && word.exchange(1, std::memory_order_acquire) == 0) return;
    if (spins >= spins_before_yield) sched_yield();  // The holder may be waiting for this processor.
  }
}

// Holds the locks of a key's two buckets. While it lives, its place stays right.
class fd_name_table::locked_pair {
 public:
  locked_pair(const fd_name_table& table, std::int32_t fd) {
    for (;;) {
      const std::size_t log2_buckets = table.m_log2_buckets.load(std::memory_order_acquire);
      where = place_of(fd, log2_buckets);
      const auto [low, high] = std::minmax({where.first % lock_count, where.second % lock_count});
      m_first = &table.m_locks[low];
      m_second = high != low ? &table.m_locks[high] : nullptr;
      m_first->lock();
      if (m_second != nullptr) m_second->lock();
      // Relaxed: the size changes under all locks, so what another thread stored under these is seen.
      if (table.m_log2_buckets.load(std::memory_order_relaxed) == log2_buckets) return;
      unlock();
    }
  }
  ~locked_pair() { unlock(); }
  locked_pair(const locked_pair&) = delete;
  locked_pair& operator=(const locked_pair&) = delete;

  place where{};

 private:
  void unlock() {
    if (m_second != nullptr) m_second->unlock();
    m_first->unlock();
  }

  const lock_line* m_first = nullptr;
  const lock_line* m_second = nullptr;
};

// Holds every lock that is in use at the present size: nobody is inside the table.
class fd_name_table::all_locked {
 public:
  explicit all_locked(const fd_name_table& table) : m_table(table) {
    for (;;) {
      const std::size_t buckets = table.bucket_count();
      extend(buckets);
      // Relaxed: the size changes under the locks that are held by now.
      if (std::size_t{1} << table.m_log2_buckets.load(std::memory_order_relaxed) == buckets) return;
    }
  }
  ~all_locked() {
    for (std::size_t number = 0; number < m_held; ++number) m_table.m_locks[number].unlock();
  }
  all_locked(const all_locked&) = delete;
  all_locked& operator=(const all_locked&) = delete;

  // Takes the locks of a table of that many buckets, before anyone can see that it has them.
  void extend(std::size_t buckets) {
    for (; m_held < std::min(buckets, lock_count); ++m_held) m_table.m_locks[m_held].lock();
  }

 private:
  const fd_name_table& m_table;
  std::size_t m_held = 0;
};

fd_name_table::fd_name_table()
    : m_lock_memory(std::calloc(lock_count + 1, sizeof(lock_line))),
      m_locks(nullptr),
      m_log2_buckets(static_cast<std::size_t>(std::countr_zero(first_bucket_count))),
      m_buckets(first_bucket_count) {
  void* lines = m_lock_memory.get();
  std::size_t room = (lock_count + 1) * sizeof(lock_line);
  if (lines == nullptr) throw std::bad_alloc();
  m_locks = static_cast<lock_line*>(std::align(alignof(lock_line), lock_count * sizeof(lock_line), lines, room));
}

void fd_name_table::insert_or_assign(std::int32_t fd, std::string name) {
  auto owned = std::make_unique<std::string>(std::move(name));
  {
    const locked_pair locked(*this, fd);
    if (std::unique_ptr<std::string>* slot = find_slot(locked.where, fd)) {
      slot->swap(owned);  // The old name is freed when the locks are released.
      return;
    }
    if (put_into_free_slot(locked.where, fd, owned)) return;
  }
  all_locked locked(*this);
  for (;;) {
    const place where = place_of(fd, m_log2_buckets.load(std::memory_order_relaxed));
    // Another thread may have entered the descriptor, or made room, since the pair was released.
    if (std::unique_ptr<std::string>* slot = find_slot(where, fd)) {
      slot->swap(owned);
      return;
    }
    if (put_into_free_slot(where, fd, owned)) return;
    if (!displace(where)) grow(locked);
  }
}

std::string fd_name_table::find(std::int32_t fd) const {
  auto& table = const_cast<fd_name_table&>(*this);  // find_slot gives a slot to write as well; here it is only read.
  const locked_pair locked(*this, fd);
  const std::unique_ptr<std::string>* slot = table.find_slot(locked.where, fd);
  return slot != nullptr ? **slot : std::string();
}

fd_name_table::place fd_name_table::place_of(std::int32_t fd, std::size_t log2_buckets) {
  const std::uint64_t hash = hash_of(fd);
  place where{};
  where.partial = partial_of(hash);
  where.first = static_cast<std::size_t>(hash) & ((std::size_t{1} << log2_buckets) - 1);
  where.second = other_bucket(where.first, where.partial, log2_buckets);
  return where;
}

std::size_t fd_name_table::other_bucket(std::size_t index, std::uint8_t partial, std::size_t log2_buckets) {
  constexpr std::uint64_t spread = 0xc6a4a7935bd1e995;  // Any odd number with many bits: 256 different distances.
  const std::uint64_t distance = (std::uint64_t{partial} + 1) * spread;
  return (index ^ distance) & ((std::size_t{1} << log2_buckets) - 1);
}

std::unique_ptr<std::string>* fd_name_table::find_slot(const place& where, std::int32_t fd) {
  for (const std::size_t index : {where.first, where.second}) {
    bucket& candidate = m_buckets[index];
    for (std::size_t slot = 0; slot < slots_per_bucket; ++slot) {
      if (candidate.name[slot] && candidate.partial[slot] == where.partial && candidate.key[slot] == fd) {
        return &candidate.name[slot];
      }
    }
  }
  return nullptr;
}

bool fd_name_table::put_into_free_slot(const place& where, std::int32_t fd, std::unique_ptr<std::string>& name) {
  for (const std::size_t index : {where.first, where.second}) {
    bucket& candidate = m_buckets[index];
    for (std::size_t slot = 0; slot < slots_per_bucket; ++slot) {
      if (candidate.name[slot]) continue;
      candidate.partial[slot] = where.partial;
      candidate.key[slot] = fd;
      candidate.name[slot] = std::move(name);
      return true;
    }
  }
  return false;
}

bool fd_name_table::displace(const place& where) {
  // Breadth first from the two candidates, so that the chain found is a shortest one. A step says: the record in
  // `slot` of the step `from` has `index` as its other bucket.
  struct step {
    std::size_t index;
    std::size_t from;
    std::size_t slot;
  };
  constexpr std::size_t none = ~std::size_t{0};
  const std::size_t log2_buckets = m_log2_buckets.load(std::memory_order_relaxed);
  std::vector<step> steps = {{where.first, none, 0}, {where.second, none, 0}};
  for (std::size_t at = 0; at < steps.size(); ++at) {
    bucket& reached = m_buckets[steps[at].index];
    for (std::size_t slot = 0; slot < slots_per_bucket; ++slot) {
      if (reached.name[slot]) continue;
      std::size_t free_slot = slot;
      for (std::size_t back = at; steps[back].from != none; back = steps[back].from) {
        const step& move = steps[back];
        bucket& to = m_buckets[move.index];
        bucket& from = m_buckets[steps[move.from].index];
        // If a chain comes through a bucket twice, the record may have moved already, or the slot may be full.
        if (!from.name[move.slot] || to.name[free_slot] ||
            other_bucket(steps[move.from].index, from.partial[move.slot], log2_buckets) != move.index) {
          return false;
        }
        to.partial[free_slot] = from.partial[move.slot];
        to.key[free_slot] = from.key[move.slot];
        to.name[free_slot] = std::move(from.name[move.slot]);
        free_slot = move.slot;
      }
      return true;
    }
    if (steps.size() >= search_limit) continue;
    for (std::size_t slot = 0; slot < slots_per_bucket; ++slot) {
      const std::size_t next = other_bucket(steps[at].index, reached.partial[slot], log2_buckets);
      if (next != steps[at].index) steps.push_back({next, at, slot});
    }
  }
  return false;
}

void fd_name_table::grow(all_locked& locked) {
  const std::size_t log2_buckets = m_log2_buckets.load(std::memory_order_relaxed) + 1;
  locked.extend(std::size_t{1} << log2_buckets);
  std::vector<bucket> larger(std::size_t{1} << log2_buckets);
  // A record's two candidates in the doubled table are its old ones, or those plus the old size. No record of another
  // old bucket can go there, so every record keeps its slot number.
  const std::size_t old_size = m_buckets.size();
  for (std::size_t index = 0; index < old_size; ++index) {
    for (std::size_t slot = 0; slot < slots_per_bucket; ++slot) {
      bucket& from = m_buckets[index];
      if (!from.name[slot]) continue;
      const place where = place_of(from.key[slot], log2_buckets);
      const std::size_t target = where.first % old_size == index ? where.first : where.second;
      bucket& to = larger[target];
      to.partial[slot] = from.partial[slot];
      to.key[slot] = from.key[slot];
      to.name[slot] = std::move(from.name[slot]);
    }
  }
  m_buckets = std::move(larger);
  m_log2_buckets.store(log2_buckets, std::memory_order_release);
}

}  // namespace ceilmeter

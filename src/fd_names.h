// The last path seen for each file descriptor, for many threads at once. Every thread that maps a library comes through
// here, so no single lock guards the table. It is a cuckoo table of four slots a bucket. Its buckets share 65536 spin
// locks, each in a cache line of its own. An operation holds only the locks of its key's two candidate buckets. Making
// room, which takes several hundred descriptors at once, is the exception: it holds all locks that are in use.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace ceilmeter {

class fd_name_table {
 public:
  static constexpr std::size_t first_bucket_count = 256;
  static constexpr std::size_t slots_per_bucket = 4;
  static constexpr std::size_t lock_count = 65536;

  fd_name_table();
  fd_name_table(const fd_name_table&) = delete;
  fd_name_table& operator=(const fd_name_table&) = delete;

  // Enters `name` for `fd`, in place of an earlier one. Any thread.
  void insert_or_assign(std::int32_t fd, std::string name);

  // A copy of the name, empty if there is none. Any thread.
  std::string find(std::int32_t fd) const;

  // Buckets at this moment, a power of two that only grows. Any thread.
  std::size_t bucket_count() const { return std::size_t{1} << m_log2_buckets.load(std::memory_order_acquire); }

 private:
  // A free slot has no name. The partial key spares most look-ups the comparison of keys in the other bucket. The
  // second candidate is computed from it, in either direction.
  struct bucket {
    std::uint8_t partial[slots_per_bucket];
    std::int32_t key[slots_per_bucket];
    std::unique_ptr<std::string> name[slots_per_bucket];
  };
  struct alignas(64) lock_line {
    mutable std::uint32_t taken;  // 0 or 1.

    void lock() const;
    void unlock() const { std::atomic_ref(taken).store(0, std::memory_order_release); }
  };
  struct frees {
    void operator()(void* memory) const { std::free(memory); }
  };
  // The candidate buckets of one key.
  struct place {
    std::size_t first;
    std::size_t second;
    std::uint8_t partial;
  };
  class locked_pair;
  class all_locked;

  static place place_of(std::int32_t fd, std::size_t log2_buckets);
  static std::size_t other_bucket(std::size_t index, std::uint8_t partial, std::size_t log2_buckets);

  // The slot of the key in one of its buckets, or null. The caller holds their locks.
  std::unique_ptr<std::string>* find_slot(const place& where, std::int32_t fd);
  bool put_into_free_slot(const place& where, std::int32_t fd, std::unique_ptr<std::string>& name);

  // Frees a slot in a candidate bucket by moving other records to their second bucket. The caller holds all locks.
  // False if no short chain of moves frees one.
  bool displace(const place& where);
  void grow(all_locked& locked);

  // From calloc, whose zeros cost nothing until they are looked at: most programs meet a few descriptors only, and the
  // locks are 4 MiB. m_locks is the first whole line in it.
  std::unique_ptr<void, frees> m_lock_memory;
  lock_line* m_locks;
  std::atomic<std::size_t> m_log2_buckets;
  std::vector<bucket> m_buckets;
};

}  // namespace ceilmeter

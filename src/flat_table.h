// The hash table of all result records: open addressing, linear probing, robin-hood displacement. The order of
// iteration, and with it the order of blocks and metrics in the result file, follows from hash, growth and
// displacement alone, so none of the three may change without changing files.
//
// An insertion may move any record: pointers and iterators hold until the next insertion or erasure, and no longer.
// A table belongs to one thread at a time; look-ups of several threads in a table that nobody changes are fine.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace ceilmeter {

// The finaliser of a 64-bit mixer; a bijection, so that keys clash only through the mask.
constexpr std::uint64_t flat_table_hash(std::uint64_t key) {
  key ^= key >> 30;
  key *= 0xbf58476d1ce4e5b9;
  key ^= key >> 27;
  key *= 0x94d049bb133111eb;
  key ^= key >> 31;
  return key;
}

// The 64-bit Murmur hash. Words are taken in little-endian order whatever the machine and however `key` is aligned.
inline std::uint64_t flat_table_hash(std::string_view key) {
  constexpr std::uint64_t multiplier = 0xc6a4a7935bd1e995;
  constexpr std::uint64_t seed = 0xc70f6907;
  constexpr int shift = 47;
  const auto load = [](const char* bytes, std::size_t count) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, count);
    if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
    return word;
  };

  std::uint64_t hash = seed ^ (key.size() * multiplier);
  std::size_t position = 0;
  for (; position + 8 <= key.size(); position += 8) {
    std::uint64_t word = load(key.data() + position, 8);
    word *= multiplier;
    word ^= word >> shift;
    word *= multiplier;
    hash ^= word;
    hash *= multiplier;
  }
  if (position < key.size()) {
    hash ^= load(key.data() + position, key.size() - position);
    hash *= multiplier;
  }
  hash ^= hash >> shift;
  hash *= multiplier;
  hash ^= hash >> shift;
  return hash;
}

// `Key` is std::uint64_t or std::string; `Value` anything whose moves do not throw. Keys and values are owned. Strings
// are looked up by std::string_view, without a temporary.
template <typename Key, typename Value>
class flat_table {
  static_assert(std::is_same_v<Key, std::uint64_t> || std::is_same_v<Key, std::string>);
  // A displacement moves records about while one is in hand; a throw in the middle would lose it.
  static_assert(std::is_nothrow_move_constructible_v<Value> && std::is_nothrow_move_assignable_v<Value>);

  struct record {
    Key key;
    Value value;
  };

  template <bool constant>
  class basic_iterator;

 public:
  using key_type = Key;
  using mapped_type = Value;
  using lookup_type = std::conditional_t<std::is_same_v<Key, std::string>, std::string_view, std::uint64_t>;
  using iterator = basic_iterator<false>;
  using const_iterator = basic_iterator<true>;

  flat_table() = default;

  // A copy has the capacity and the slot positions of the original, and so its order of iteration.
  flat_table(const flat_table& other) : flat_table() {
    log2_capacity_ = other.log2_capacity_;
    if (other.capacity_ == 0) return;
    allocate(other.capacity_);
    generation_ = other.generation_;
    for (std::uint64_t slot = 0; slot < capacity_; ++slot) {
      if (!other.live(slot)) continue;
      std::construct_at(slots_ + slot, other.slots_[slot]);
      states_[slot] = generation_;
      distances_[slot] = other.distances_[slot];
      ++size_;
    }
  }

  // The source is empty afterwards and as good as new.
  flat_table(flat_table&& other) noexcept { swap(other); }

  flat_table& operator=(const flat_table& other) {
    if (this != &other) {
      flat_table copy(other);
      swap(copy);
    }
    return *this;
  }

  flat_table& operator=(flat_table&& other) noexcept {
    flat_table taken(std::move(other));
    swap(taken);
    return *this;
  }

  ~flat_table() {
    if (slots_ == nullptr) return;
    destroy_records();
    std::allocator<record>().deallocate(slots_, allocated_);
  }

  void swap(flat_table& other) noexcept {
    std::swap(generation_, other.generation_);
    std::swap(log2_capacity_, other.log2_capacity_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    std::swap(load_numerator_, other.load_numerator_);
    std::swap(load_denominator_, other.load_denominator_);
    std::swap(slots_, other.slots_);
    std::swap(allocated_, other.allocated_);
    states_.swap(other.states_);
    distances_.swap(other.distances_);
  }

  std::uint64_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Slots, live or not: 0 until the first insertion, then a power of two from 128 up.
  std::uint64_t capacity() const { return capacity_; }

  // Makes room for `count` keys: as many slots as that many insertions would have made one by one. For what comes in
  // the order of another table's slots: a small table that grows meanwhile is filled from its low end over and over in
  // that order, which displaces record after record and takes quadratic time.
  void reserve(std::uint64_t count) {
    while (count != 0 && capacity_ * load_numerator_ <= (count - 1) * load_denominator_) grow();
  }

  // Adds `value` under `key` unless the key is there already: the first one in stays and `value` is dropped. Gives the
  // value that the table now holds, and whether it is the new one.
  std::pair<Value*, bool> insert(Key key, Value value) {
    return insert_made(std::move(key), [&value]() -> Value&& { return std::move(value); });
  }

  // The same with the value that `make` gives, which is called only if the key is new.
  template <typename Make>
  std::pair<Value*, bool> insert_by(Key key, Make make) {
    return insert_made(std::move(key), make);
  }

  // The value under `key`, a default one being inserted first if there is none.
  Value& find_or_insert(Key key) {
    return *insert_made(std::move(key), []() { return Value(); }).first;
  }
  Value& operator[](Key key) { return find_or_insert(std::move(key)); }

  // Null if the table has no such key.
  Value* find(lookup_type key) {
    const std::uint64_t slot = find_slot(key);
    return slot == capacity_ ? nullptr : &slots_[slot].value;
  }
  const Value* find(lookup_type key) const {
    const std::uint64_t slot = find_slot(key);
    return slot == capacity_ ? nullptr : &slots_[slot].value;
  }

  bool contains(lookup_type key) const { return find_slot(key) != capacity_; }

  // Removes the record of `key`; false if there is none. What follows in the same run moves back by one slot, up to
  // the first record that stands in its home slot, so that look-ups still end where they should.
  bool erase(lookup_type key) {
    std::uint64_t slot = find_slot(key);
    if (slot == capacity_) return false;
    for (;;) {
      const std::uint64_t next = (slot + 1) & (capacity_ - 1);
      if (!live(next) || distances_[next] == 0) break;
      slots_[slot] = std::move(slots_[next]);
      distances_[slot] = distances_[next] - 1;
      slot = next;
    }
    std::destroy_at(slots_ + slot);
    states_[slot] = never_used;
    --size_;
    return true;
  }

  // Empties the table in constant time and keeps its storage. The old records become stale: each is assigned over by
  // a later insertion or dies with the table, and until then keeps what it owns.
  void clear() {
    size_ = 0;
    ++generation_;
    if (generation_ != never_used) return;
    // All generations are used up: without this the oldest stale slots would come back to life.
    destroy_records();
    states_.assign(states_.size(), never_used);
    generation_ = 1;
  }

  // By ascending slot. An entry is a pair of references, `key` and `value`: for (const auto& [key, value] : table).
  iterator begin() { return iterator(this, next_live(0)); }
  iterator end() { return iterator(this, capacity_); }
  const_iterator begin() const { return const_iterator(this, next_live(0)); }
  const_iterator end() const { return const_iterator(this, capacity_); }

 private:
  friend struct flat_table_inspector;  // The tests' view of the slots.

  static constexpr std::uint16_t never_used = 0;

  bool live(std::uint64_t slot) const { return states_[slot] == generation_; }

  std::uint64_t next_live(std::uint64_t slot) const {
    while (slot < capacity_ && !live(slot)) ++slot;
    return slot;
  }

  // The slot of `key`, or `capacity_`.
  std::uint64_t find_slot(lookup_type key) const {
    if (size_ == 0) return capacity_;
    std::uint64_t slot = flat_table_hash(key) & (capacity_ - 1);
    for (std::uint32_t distance = 0; live(slot) && distances_[slot] >= distance; ++distance) {
      if (slots_[slot].key == key) return slot;
      slot = (slot + 1) & (capacity_ - 1);
    }
    return capacity_;
  }

  // `make` gives the value and is called only if the key is new.
  template <typename Make>
  std::pair<Value*, bool> insert_made(Key&& key, Make&& make) {
    if (capacity_ * load_numerator_ <= size_ * load_denominator_) grow();
    std::uint64_t slot = flat_table_hash(lookup_type(key)) & (capacity_ - 1);
    std::uint32_t distance = 0;
    while (live(slot)) {
      if (slots_[slot].key == key) return {&slots_[slot].value, false};
      // An equal key would stand before the first record that is nearer to its home than this key would be here.
      if (distances_[slot] < distance) break;
      slot = (slot + 1) & (capacity_ - 1);
      ++distance;
    }
    settle(slot, distance, record{std::move(key), make()});
    return {&slots_[slot].value, true};
  }

  // Puts `in_hand`, whose key is not in the table, into `slot`, which is `distance` from its home, and carries what it
  // displaces on to the first slot that is free.
  void settle(std::uint64_t slot, std::uint32_t distance, record&& in_hand) {
    while (live(slot)) {
      if (distances_[slot] < distance) {
        std::swap(slots_[slot], in_hand);
        std::swap(distances_[slot], distance);
      }
      slot = (slot + 1) & (capacity_ - 1);
      ++distance;
    }
    if (states_[slot] == never_used) {
      std::construct_at(slots_ + slot, std::move(in_hand));
    } else {
      slots_[slot] = std::move(in_hand);
    }
    distances_[slot] = distance;
    states_[slot] = generation_;
    ++size_;
  }

  void grow() {
    flat_table larger;
    larger.log2_capacity_ = log2_capacity_ + 1;
    larger.allocate(std::uint64_t{1} << larger.log2_capacity_);
    for (std::uint64_t slot = next_live(0); slot < capacity_; slot = next_live(slot + 1)) {
      const std::uint64_t home = flat_table_hash(lookup_type(slots_[slot].key)) & (larger.capacity_ - 1);
      larger.settle(home, 0, std::move(slots_[slot]));
    }
    swap(larger);
  }

  // For a table without slots: makes `capacity` of them, none ever used.
  void allocate(std::uint64_t capacity) {
    states_.assign(capacity, never_used);
    distances_.assign(capacity, 0);
    slots_ = std::allocator<record>().allocate(capacity);
    allocated_ = capacity;
    capacity_ = capacity;
  }

  // A slot that was ever used holds a record, live or stale.
  void destroy_records() {
    for (std::uint64_t slot = 0; slot < capacity_; ++slot) {
      if (states_[slot] != never_used) std::destroy_at(slots_ + slot);
    }
  }

  std::uint16_t generation_ = 1;     // The state of a live slot.
  std::uint64_t log2_capacity_ = 6;  // Goes up by one before the first slots are made.
  std::uint64_t size_ = 0;           // Live slots.
  std::uint64_t capacity_ = 0;
  std::uint64_t load_numerator_ = 9;      // The table grows before more than nine tenths
  std::uint64_t load_denominator_ = 10;   // of its slots are live.
  record* slots_ = nullptr;               // Raw storage; a record stands where the state is not `never_used`.
  std::uint64_t allocated_ = 0;           // Records that `slots_` has room for.
  std::vector<std::uint16_t> states_;     // `never_used`, `generation_`, or stale, which counts as free.
  std::vector<std::uint32_t> distances_;  // Of a live slot's key from its home slot.
};

// Yields entries by value; each holds references into the table.
template <typename Key, typename Value>
template <bool constant>
class flat_table<Key, Value>::basic_iterator {
  using table_pointer = std::conditional_t<constant, const flat_table*, flat_table*>;

 public:
  struct entry {
    const Key& key;
    std::conditional_t<constant, const Value&, Value&> value;

    const entry* operator->() const { return this; }
  };

  using iterator_category = std::input_iterator_tag;
  using value_type = entry;
  using difference_type = std::ptrdiff_t;
  using pointer = entry;
  using reference = entry;

  basic_iterator() = default;

  entry operator*() const { return {table_->slots_[slot_].key, table_->slots_[slot_].value}; }
  entry operator->() const { return **this; }

  basic_iterator& operator++() {
    slot_ = table_->next_live(slot_ + 1);
    return *this;
  }
  basic_iterator operator++(int) {
    basic_iterator before = *this;
    ++*this;
    return before;
  }

  bool operator==(const basic_iterator& other) const { return slot_ == other.slot_ && table_ == other.table_; }

 private:
  friend class flat_table;

  basic_iterator(table_pointer table, std::uint64_t slot) : table_(table), slot_(slot) {}

  table_pointer table_ = nullptr;
  std::uint64_t slot_ = 0;
};

}  // namespace ceilmeter

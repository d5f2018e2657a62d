// The registry. It reacts to new mappings only, of code or of anything else. An unmapped segment can still be found
// until something is mapped over it, because the code that ran there did come from it.
#include "mappings.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/mappings"};

std::uint64_t id_of(const mapping_segment* segment) { return reinterpret_cast<std::uint64_t>(segment); }

}  // namespace

mappings_t::~mappings_t() {
  for (node* at = all_segments.load(std::memory_order_acquire); at != nullptr;) {
    node* next = at->next.load(std::memory_order_acquire);
    delete at->segment;
    delete at;
    at = next;
  }
}

void mappings_t::register_fd_name(std::int32_t fd, std::string path) { fd_names.insert_or_assign(fd, std::move(path)); }

std::string mappings_t::fd_name(std::int32_t fd) const { return fd_names.find(fd); }

const mapping_segment* mappings_t::make_segment(mapping_segment segment) {
  auto record = std::make_unique<mapping_segment>(std::move(segment));
  auto* added = new node;
  added->segment = record.release();
  for (;;) {
    // Acquire: pairs with the release store below. The node that holds the word was made before that store.
    std::atomic<node*>* last = all_segments_tail.load(std::memory_order_acquire);
    node* expected = nullptr;
    // Release: pairs with the acquire loads of the destructor. If the word is taken, its writer has not yet moved the
    // tail on; it does so in its next step.
    if (last->compare_exchange_weak(expected, added, std::memory_order_release, std::memory_order_relaxed)) break;
  }
  all_segments_tail.store(&added->next, std::memory_order_release);
  return added->segment;
}

void mappings_t::register_mmap(std::uint64_t begin, std::uint64_t end, std::uint64_t offset, std::int64_t prot_flags,
                               std::int64_t map_flags, std::int32_t fd) {
  log(LEVEL_DEBUG, "Register mapping with begin=%lx, end=%lx, offset=%lu, prot_flags=%ld, map_flags=%ld, flags=%d",
      begin, end, offset, prot_flags, map_flags, fd);
  std::string name = fd_name(fd);
  log(LEVEL_DEBUG, "Get name=%s for mapping begin at %lx", name.c_str(), begin);
  const mapping_segment* segment = make_segment({begin, end, offset, std::move(name)});
  log(LEVEL_DEBUG, "id=%lx set to mapping with begin=%lx", id_of(segment), begin);

  const std::unique_lock lock(segments_lock);
  auto it = segments.lower_bound(begin);
  log(LEVEL_DEBUG, "Lower bound return mapping with begin %lx", it != segments.end() ? it->first : 0);
  if (it == segments.end() || it->second->begin >= end) {
    log(LEVEL_DEBUG, "Emplace mapping with begin=%lx, that dont overlap other mappings", begin);
  } else {
    while (it != segments.end() && it->second->end <= end) {
      log(LEVEL_DEBUG, "Erase fully overlapped mapping with begin=%lx\n", it->second->begin);
      it = segments.erase(it);
    }
    if (it != segments.end() && it->second->begin < end) {
      const mapping_segment* cut = it->second;
      log(LEVEL_DEBUG, "Move begin=%lx of partial overlapped mapping to %lx", cut->begin, end);
      // The offset deliberately stays that of the old beginning. Results of runs are compared with each other, and a
      // block found through a cut segment has always been placed too low by the part that was cut off.
      const mapping_segment* moved = make_segment({end, cut->end, cut->offset, cut->name});
      it = segments.erase(it);
      it = segments.emplace_hint(it, end, moved);
    }
  }
  // Only mappings that begin at or behind `begin` were looked at. An older one that reaches in from below stays as it
  // is, and search_segment finds the new one first.
  segments.emplace_hint(it, begin, segment);
  changes.fetch_add(1, std::memory_order_release);
}

// Segments do not overlap, except that an older one may reach into a newer one from below.
bool mappings_t::is_overlapped(std::uint64_t begin, std::uint64_t end) const {
  auto it = segments.lower_bound(begin);
  if (it != segments.end() && it->first < end) return true;
  return it != segments.begin() && std::prev(it)->second->end > begin;
}

void mappings_t::register_replaced(std::uint64_t begin, std::uint64_t end) {
  {
    const std::shared_lock lock(segments_lock);
    if (!is_overlapped(begin, end)) return;
  }
  const std::unique_lock lock(segments_lock);
  auto it = segments.lower_bound(begin);
  if (it != segments.begin() && std::prev(it)->second->end > begin) --it;
  while (it != segments.end() && it->first < end) {
    const mapping_segment* old = it->second;
    it = segments.erase(it);
    if (old->begin < begin) segments.emplace(old->begin, make_segment({old->begin, begin, old->offset, old->name}));
    if (old->end > end) {
      segments.emplace(end, make_segment({end, old->end, old->offset + (end - old->begin), old->name}));
      break;
    }
  }
  changes.fetch_add(1, std::memory_order_release);
}

std::uint64_t mappings_t::search_segment(std::uint64_t address) const {
  recent_segment none;
  return search_segment_anew(address, none);
}

std::uint64_t mappings_t::search_segment_anew(std::uint64_t address, recent_segment& recent) const {
  const std::shared_lock lock(segments_lock);
  const auto next = segments.upper_bound(address);
  if (next == segments.begin()) {
    log(LEVEL_DEBUG, "addr=%lx is lower that any mapping", address);
    return 0;
  }
  const auto it = std::prev(next);
  if (it->second->end <= address) {
    log(LEVEL_DEBUG, "addr=%lx is outside of mapping with end = %lx", address, it->second->end);
    return 0;
  }
  recent.begin = it->first;
  recent.end = next != segments.end() ? std::min(it->second->end, next->first) : it->second->end;
  recent.id = id_of(it->second);
  recent.changes = changes.load(std::memory_order_relaxed);
  return recent.id;
}

mapping_segment mappings_t::get_segment(std::uint64_t id) {
  if (id == 0) return {};
  return *reinterpret_cast<const mapping_segment*>(id);
}

}  // namespace ceilmeter

// The engine's view of the application's memory: every call that maps, unmaps or changes memory, and the program break.
// The break is emulated, because the kernel's belongs to the tool's image.
#include "bi/kernel/vm_ops.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>

#include "bi/code/code_epoch.h"
#include "bi/code/readable_pages.h"
#include "bi/code/shared_mappings.h"
#include "bi/kernel/executable_path.h"
#include "bi/kernel/pages.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/stubs.h"
#include "bi/kernel/syscalls.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/vm_ops"};

constexpr std::int32_t NO_FILE = -1;

// What report_vm_op is told of the program break.
constexpr std::uint32_t BREAK_FLAGS = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
static_assert(BREAK_FLAGS == 50);

bool is_error(std::int64_t result) { return result < 0 && result >= -4095; }

page_range whole_page_range(std::uint64_t address, std::uint64_t length) {
  return ceilmeter::whole_page_range(address, length, page_size());
}

// The protection that the kernel gets. The application's code runs only from the cache, so the kernel need not make it
// executable. But the scanner has to read it.
std::uint64_t kernel_protection(std::uint64_t address, std::uint64_t prot) {
  if ((prot & PROT_EXEC) == 0) return prot;
  if ((prot & PROT_READ) == 0) log(LEVEL_TRACE, "mora: adding read permission to executable mapping at 0x%lx", address);
  return (prot | PROT_READ) & ~std::uint64_t{PROT_EXEC};
}

void remove_function_watches(std::uint64_t start, std::uint64_t end) {
  owned_lock_take(&engine.function_watch_lock);
  robin_map* watches = &engine.function_watches;
  for (robin_bucket* bucket = robin_map_oldest(watches); bucket != nullptr;) {
    if (bucket->key >= start && bucket->key < end) {
      robin_map_remove(watches, bucket->key);
      bucket = robin_map_oldest(watches);  // A removal moves buckets.
    } else {
      bucket = robin_map_newer(watches, bucket);
    }
  }
  owned_lock_leave(&engine.function_watch_lock);
}

// Whatever the memory was and becomes: what has been translated of it is dropped. It may be other code when it is next
// reached, or none, and then the fault is the application's. Code that becomes writable is about to change. A range
// from which nothing was translated costs one look.
void drop_range(std::uint64_t start, std::uint64_t end) { drop_code(current_thread, start, end); }

void drop_range(page_range range) { drop_range(range.start, range.start + range.size); }

// The old range stays known, with a descriptor of its own: plug-ins are told of it.
void remap_range(std::uint64_t start, std::uint64_t end, std::uint64_t old_addr) {
  interval_entry entry{};
  if (interval_map_search(&engine.exec_ranges, old_addr, &entry) != 1) return;
  // The entry's descriptor ends with the entry. A raw call leaves the errno of the C library alone.
  const auto duplicate = entry.fd < 0 ? std::int64_t{NO_FILE}
                                      : raw_syscall(SYS_fcntl, static_cast<std::uint64_t>(entry.fd), F_DUPFD_CLOEXEC);
  interval_map_delete(&engine.exec_ranges, start, end);
  interval_map_add(&engine.exec_ranges, start, end, static_cast<std::int32_t>(duplicate));
  if (duplicate >= 0) raw_syscall(SYS_close, static_cast<std::uint64_t>(duplicate));  // The map has its own by now.
}

std::int64_t segment_size(int id, std::uint64_t* size) {
  struct shmid_ds segment {};
  if (shmctl(id, IPC_STAT, &segment) != 0) return -errno;
  *size = segment.shm_segsz;
  return 0;
}

}  // namespace

void report_vm_op(vm_op op, std::uint64_t addr, std::uint64_t size, std::uint32_t prot, std::uint32_t flags,
                  std::int32_t fd, std::uint64_t offset, std::uint64_t old_addr, std::uint64_t /*old_size*/) {
  deliver_vm_op({op, addr, size, prot, flags, fd, offset});
  const std::uint64_t end = addr + size;
  const bool executable = (prot & PROT_EXEC) != 0;
  switch (op) {
    case VM_MAP:
      if ((flags & VM_FLAG_APPLICATION) != 0) remember_application_path();
      if (!executable) break;
      interval_map_add(&engine.exec_ranges, addr, end, fd);
      if (fd >= 0 && (flags & VM_FLAG_INTERPRETER) == 0) deliver_mapped_file(fd, addr);
      break;
    case VM_UNMAP:
      remove_function_watches(addr, end);
      interval_map_delete(&engine.exec_ranges, addr, end);
      drop_range(addr, end);
      break;
    case VM_REMAP: remap_range(addr, end, old_addr); break;
    case VM_PROTECT:
      if (executable) interval_map_add(&engine.exec_ranges, addr, end, fd);
      break;
  }
}

std::uint64_t brk_handler(std::uint64_t addr) {
  std::atomic_ref brk(engine.brk);
  // Relaxed: the break carries no other data with it. A thread that reads it while another one moves it gets the old or
  // the new one, as from the kernel.
  const std::uint64_t current = brk.load(std::memory_order_relaxed);
  if (addr == 0 || addr == current) return current;

  owned_lock_take(&engine.brk_lock);
  // Keep the first page, whatever is asked for: there has to be something to grow from.
  if (addr >= engine.initial_brk + page_size()) {
    const std::uint64_t old_size = brk.load(std::memory_order_relaxed) - engine.initial_brk;
    const std::uint64_t new_size = addr - engine.initial_brk;
    const page_range lost = {addr, new_size < old_size ? old_size - new_size : 0};
    owned_lock_take(&engine.mapping_lock);
    begin_mapping_change(lost);
    const std::int64_t moved = raw_syscall(SYS_mremap, engine.initial_brk, old_size, new_size, 0);
    end_mapping_change(lost);
    owned_lock_leave(&engine.mapping_lock);
    if (moved == static_cast<std::int64_t>(engine.initial_brk)) {
      report_vm_op(VM_MAP, engine.initial_brk, new_size, PROT_READ | PROT_WRITE, BREAK_FLAGS, NO_FILE, 0, 0, 0);
      brk.store(addr, std::memory_order_relaxed);
    }
  }
  const std::uint64_t result = brk.load(std::memory_order_relaxed);
  owned_lock_leave(&engine.brk_lock);
  return result;
}

namespace {

// The thread has mapped over what was kept of a stack that it had unmapped: it is the application's again.
void give_up_kept_stack(page_range range) {
  page_range& kept = current_thread->kept_stack;
  if (kept.start < range.start + range.size && kept.start + kept.size > range.start) kept = {};
}

std::int64_t map_memory(const std::uint64_t* args) {
  const std::uint64_t length = args[1];
  const std::int64_t result =
      raw_syscall(SYS_mmap, args[0], length, kernel_protection(args[0], args[2]), args[3], args[4], args[5]);
  // Larger error numbers pass as addresses. The application gets them all the same. The ranges that are reported for
  // them lie at the very top of the address space, where nothing is. This is known and kept.
  if (result < 0 && result > -34) return result;
  const page_range range = whole_page_range(static_cast<std::uint64_t>(result), length);
  if (!is_error(result)) {
    if ((args[3] & MAP_FIXED) != 0) give_up_kept_stack(range);
    note_mapping(range.start, range.start + range.size, args[3], static_cast<std::int32_t>(args[4]), args[5]);
    drop_range(range);
  }
  // Report the protection that the application asked for, not the one that the kernel has.
  report_vm_op(VM_MAP, range.start, range.size, static_cast<std::uint32_t>(args[2]),
               static_cast<std::uint32_t>(args[3]), static_cast<std::int32_t>(args[4]), args[5], 0, 0);
  return result;
}

std::int64_t protect_memory(const std::uint64_t* args) {
  const std::uint64_t prot = kernel_protection(args[0], args[2]);
  const std::int64_t result = raw_syscall(SYS_mprotect, args[0], args[1], prot);
  if (result != 0) return result;
  const page_range range = whole_page_range(args[0], args[1]);
  // Report the protection that the kernel has, not executable. exec_ranges holds mappings only, and a change of
  // protection does not widen it.
  report_vm_op(VM_PROTECT, range.start, range.size, static_cast<std::uint32_t>(prot), 0, NO_FILE, 0, 0, 0);
  drop_range(range);
  return result;
}

// The pages that the calling thread's next blocks push on.
page_range pages_below_sp(const std::uint64_t* args) {
  const std::uint64_t most = 64 + kept_below_sp(current_thread);
  const std::uint64_t stack_pointer = args[SYSCALL_APP_SP / 8];
  return whole_page_range(stack_pointer - most, most);
}

// Unmaps all of the range but `kept`, which lies in it.
std::int64_t unmap_around(page_range range, page_range kept) {
  const std::uint64_t kept_end = kept.start + kept.size;
  const std::uint64_t end = range.start + range.size;
  std::int64_t result = 0;
  // The upper part first: it is the one that the kernel may refuse, for reaching too high.
  if (end > kept_end) result = raw_syscall(SYS_munmap, kept_end, end - kept_end);
  if (result == 0 && kept.start > range.start) result = raw_syscall(SYS_munmap, range.start, kept.start - range.start);
  return result;
}

std::int64_t unmap_memory(const std::uint64_t* args) {
  const page_range whole = whole_page_range(args[0], args[1]);
  const page_range kept = pages_below_sp(args);
  // By distances: a sum could wrap.
  const std::uint64_t before = kept.start - whole.start;
  const bool is_own_stack = page_down(args[0], page_size()) == args[0] && kept.start >= whole.start &&
                            before < whole.size && kept.size <= whole.size - before;
  std::int64_t result = 0;
  if (is_own_stack) {
    result = unmap_around(whole, kept);
    if (result == 0) current_thread->kept_stack = kept;
  } else {
    result = raw_syscall(SYS_munmap, args[0], args[1]);
  }
  if (result != 0) return result;
  const page_range range = whole_page_range(args[0], args[1]);
  forget_mapping(range.start, range.start + range.size);
  report_vm_op(VM_UNMAP, range.start, range.size, 0, 0, NO_FILE, 0, 0, 0);
  return result;
}

std::int64_t move_memory(const std::uint64_t* args) {
  const std::int64_t result = raw_syscall(SYS_mremap, args[0], args[1], args[2], args[3], args[4]);
  if (is_error(result)) return result;
  // Plug-ins are told of the old address alone.
  const page_range range = whole_page_range(args[0], args[1]);
  report_vm_op(VM_REMAP, range.start, range.size, static_cast<std::uint32_t>(args[2]), 0, NO_FILE, 0, args[0], args[1]);
  const page_range moved = whole_page_range(static_cast<std::uint64_t>(result), args[2]);
  move_mapping(range.start, range.size, moved.start, moved.size);
  drop_range(range);
  drop_range(moved);
  return result;
}

std::int64_t attach_segment(const std::uint64_t* args) {
  const std::int64_t result = raw_syscall(SYS_shmat, args[0], args[1], args[2]);
  std::uint64_t size = 0;
  // If the size cannot be had, as for a segment that may not be read, the segment is not reported: its range is
  // unknown.
  if (is_error(result) || segment_size(static_cast<int>(args[0]), &size) != 0) return result;
  std::uint32_t prot = PROT_READ;
  if ((args[2] & SHM_RDONLY) == 0) prot |= PROT_WRITE;
  if ((args[2] & SHM_EXEC) != 0) prot |= PROT_EXEC;
  const auto address = static_cast<std::uint64_t>(result);
  interval_map_delete(&engine.attached_segments, address, address + size);
  interval_map_add(&engine.attached_segments, address, address + size, NO_FILE);
  drop_range(address, address + size);
  report_vm_op(VM_MAP, address, size, prot, 0, NO_FILE, 0, 0, 0);
  return result;
}

// The kernel detaches by the address alone. The size comes from the note of the attachment. A segment without a note is
// detached without a report.
std::int64_t detach_segment(const std::uint64_t* args) {
  const std::int64_t result = raw_syscall(SYS_shmdt, args[0]);
  interval_entry attached{};
  if (result != 0 || interval_map_search(&engine.attached_segments, args[0], &attached) != 1) return result;
  interval_map_delete(&engine.attached_segments, args[0], attached.end);
  report_vm_op(VM_UNMAP, args[0], attached.end - args[0], 0, 0, NO_FILE, 0, 0, 0);
  return result;
}

// Holds mapping_lock over a call and over what the engine notes of it. Without the lock a range that one thread has
// just unmapped may be mapped by another one and noted as code, before the first thread removes its note. `lost` is
// what the call may make unreadable, whether it succeeds or fails half way.
std::int64_t make_call(std::int64_t (*call)(const std::uint64_t*), const std::uint64_t* args, page_range lost) {
  owned_lock_take(&engine.mapping_lock);
  begin_mapping_change(lost);
  const std::int64_t result = call(args);
  end_mapping_change(lost);
  owned_lock_leave(&engine.mapping_lock);
  // Without the lock. Also for what another call has dropped and not settled yet: this call's memory may be what that
  // one has unmapped, and what the application puts there must not meet a thread with the old code.
  settle_code_epoch(current_thread);
  return result;
}

}  // namespace

void unmap_kept_stack(page_range kept) {
  owned_lock_take(&engine.mapping_lock);
  begin_mapping_change(kept);
  raw_syscall(SYS_munmap, kept.start, kept.size);
  end_mapping_change(kept);
  owned_lock_leave(&engine.mapping_lock);
}

// Without MAP_FIXED the kernel takes room where nothing is. What it puts over other memory may be unreadable even where
// it allows reading: a file may end before its mapping.
std::int64_t handle_mmap(const std::uint64_t* args) {
  return make_call(map_memory, args, {args[0], (args[3] & MAP_FIXED) != 0 ? args[1] : 0});
}

std::int64_t handle_mprotect(const std::uint64_t* args) {
  return make_call(protect_memory, args, {args[0], (args[2] & PROT_READ) == 0 ? args[1] : 0});
}

std::int64_t handle_munmap(const std::uint64_t* args) { return make_call(unmap_memory, args, {args[0], args[1]}); }

// The new place may be given, and lose what was there.
std::int64_t handle_mremap(const std::uint64_t* args) {
  const bool may_replace = (args[3] & MREMAP_FIXED) != 0;
  return make_call(move_memory, args, may_replace ? ALL_PAGES : page_range{args[0], args[1]});
}

// The size of a segment is the kernel's to know.
std::int64_t handle_shmat(const std::uint64_t* args) {
  return make_call(attach_segment, args, (args[2] & SHM_REMAP) != 0 ? ALL_PAGES : page_range{});
}

std::int64_t handle_shmdt(const std::uint64_t* args) { return make_call(detach_segment, args, ALL_PAGES); }

}  // namespace ceilmeter

// Emitted code probes the table by the same rules. bi/containers/container_offsets.h has the layout; the dispatcher
// writes the inline lookup.
#include "bi/containers/hash_table.h"

#include <cstdlib>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/common"};  // Not its own name: see the log's units in docs/engine.md.

}  // namespace

void hash_init(hash_table* table, std::int32_t size) {
  table->size = size;
  table->collisions = 0;
  hash_entry* entries = hash_entries(table);
  for (std::int32_t index = 0; index < size; ++index) {
    // Read before writing. A page of a fresh mapping that is only read stays the kernel's shared page of zeroes, so a
    // thread pays memory only for the slots that it uses.
    if (entries[index].key != 0) entries[index].key = 0;
  }
}

void refuse_full_table() {
  log(LEVEL_FATAL, "hash table index overflow");
  std::abort();  // The log has done so already.
}

void hash_delete(hash_table* table, std::uint64_t key) {
  hash_entry* entries = hash_entries(table);
  const std::int32_t home = hash_home(table, key);
  std::int32_t index = home;
  // The wrap masks with the plain size, 2^k + 9, and so reaches only the slots whose index is made of that number's
  // bits. A key that does not lie at its home is therefore found by chance only. This is kept as it is, because no path
  // of the engine deletes. Such a probe can circle without meeting its home again; after as many steps as there are
  // slots it has seen all that it can reach.
  for (std::int32_t step = 0; step < table->size; ++step) {
    if (entries[index].key == 0) return;
    if (entries[index].key == key) {
      entries[index].key = 0;
      return;
    }
    index = (index + 1) & table->size;
    if (index == home) return;
  }
}

}  // namespace ceilmeter

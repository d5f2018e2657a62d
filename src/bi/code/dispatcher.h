// The dispatcher finds where execution continues when it leaves a fragment by its exit stub. It also turns the exit
// into a link, so that the next execution does not come here. The routine itself, `dispatcher`, is declared in stubs.h,
// because only the stub calls it.
#pragma once

#include <cstdint>

#include "bi/a64/helpers.h"
#include "bi/mora.h"

namespace ceilmeter {

// Writes at *write the branch that skips the next word when `condition` sends execution to the other side, and moves
// *write past it. `condition` is a condition code for B.cond, else the sense bit. Nothing for an unconditional exit;
// fatal for an exit that has no such branch.
void insert_cond_exit_branch(const bb_meta& meta, std::uint32_t** write, std::uint32_t condition);

// Writes a B to `to` at `from` and notes the link. The caller clears the instruction cache.
void a64_branch_and_link(thread_data* thread, std::uint32_t* from, std::uint64_t to);

// Writes the code of a register branch: it looks the target up without leaving the cache and comes to the dispatcher
// only for one that is not there. `link` also loads x30 with the source address behind `read_address`; `set_meta`
// stores the register that holds the target at the end in the fragment's record. REGISTER_BRANCH_SPACE bytes must be
// free.
void a64_branch_reg(thread_data* thread, std::int32_t bb_id, std::uint32_t** write, const std::uint32_t* read_address,
                    std::uint32_t reg, bool link, bool set_meta);

// The same for a branch to a signed address. The register keeps what it holds: a copy of it is authenticated.
// AUTHENTICATED_BRANCH_SPACE bytes must be free.
void a64_branch_authenticated(thread_data* thread, std::int32_t bb_id, std::uint32_t** write,
                              const std::uint32_t* read_address, const a64_authenticated_branch& branch);

// Whether the pool has records for `count` more links. A link without a record could not be led elsewhere later. There
// can be more links than records; a flush gives all records back.
bool has_links_to_spare(linked_pool* pool, std::uint32_t count);

}  // namespace ceilmeter

// The structure of a program: functions, blocks, loops, and which item comes next.
#include "generator.h"

#include <algorithm>
#include <initializer_list>
#include <numeric>

#include "bi/a64/a64.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t MOST_MAIN_COST = 300'000;
constexpr std::uint64_t MOST_FUNCTION_COST = 20'000;
constexpr std::uint32_t MOST_DEPTH = 3;  // Of loops within loops.

// The frame of a function: x29 and x30, and room above for accesses by sp.
constexpr std::uint32_t FRAME_SIZE = 0x130;
constexpr std::uint32_t MINUS_FRAME = (0u - FRAME_SIZE / 8) & 0x7f;
constexpr std::uint32_t SP = 31;

// Where a program may be linked. Loading an address takes one, two or three instructions, with gaps, depending on that.
constexpr std::uint64_t BASES[] = {0x400000, 0x10000000, 0x1'0000'0000, 0x10'0040'0000, 0x12'3457'0000};

}  // namespace

generator::generator(const encoding_set& encodings, std::uint64_t seed) : encodings_(encodings), random_(seed) {
  made_.seed = seed;
  made_.base = random_.pick(BASES);
  made_.has_sve = random_.one_in(4) && !encodings.of(row_use::SVE).empty();
}

program generator::make() {
  // Programs of 1,000 to 2,000 instructions are as frequent as programs of 5,000 to 10,000.
  std::uint32_t words = 1'000 << random_.below(4);
  words = std::min(9'900u, words + random_.below(words));
  const std::uint32_t functions = random_.below(1 + words / 400);
  const std::uint32_t share = words / 2 / (functions + 1);
  for (std::uint32_t i = 0; i < functions; ++i) {
    made_.functions.emplace_back();
    const std::uint32_t wanted = random_.between(10, 10 + 2 * share);
    make_function(std::min(wanted, words * 2 / 3), MOST_FUNCTION_COST);
    words -= std::min(words / 2, size_);
  }
  made_.functions.emplace_back();
  make_main(words);
  shuffle_functions();
  return std::move(made_);
}

void generator::make_function(std::uint32_t words, std::uint64_t most_cost) {
  current_index_ = static_cast<std::uint32_t>(made_.functions.size() - 1);
  current_ = &made_.functions.back();
  cost_ = 0;
  most_cost_ = most_cost;
  rounds_ = 1;
  size_ = 0;
  item& entry = start("entry");
  entry.add(a64_ldp_stp, 2, 0, 3, 0, MINUS_FRAME, 30, SP, 29);  // stp x29, x30, [sp, #-0x130]!
  // The words below sp had no defined content before, so a frame that is read has to be written first.
  for (std::uint32_t reg = 0; reg < 18; reg += 2) entry.add(a64_ldp_stp, 2, 1, 2, 0, 1 + reg, reg + 1, SP, reg);
  done();

  make_block(words, 1, 0);

  const auto exit_item = static_cast<std::uint32_t>(current_->items.size());
  item& exit = start("exit");
  if (random_.one_in(2)) {
    exit.add(a64_ldp_stp, 2, 0, 1, 1, FRAME_SIZE / 8, 30, SP, 29);
    exit.add(a64_ret, 30);
  } else {
    const std::uint32_t reg = any_register();
    exit.add(a64_ldr_str_unsigned, 3, 0, 1, 1, SP, reg);  // ldr reg, [sp, #8]
    exit.add(a64_add_sub_imm, 1, 0, 0, 0, FRAME_SIZE, SP, SP);
    exit.add(random_.one_in(2) ? a64_ret : a64_br, reg);
  }
  done();
  finish_function(exit_item);
  callees_.push_back({current_index_, cost_});
}

void generator::make_main(std::uint32_t words) {
  current_index_ = static_cast<std::uint32_t>(made_.functions.size() - 1);
  made_.main = current_index_;
  current_ = &made_.functions.back();
  cost_ = 0;
  most_cost_ = MOST_MAIN_COST;
  rounds_ = 1;
  size_ = 0;
  begin_main();
  make_block(words, 1, 0);
  const auto exit_item = static_cast<std::uint32_t>(current_->items.size());
  end_main();
  finish_function(exit_item);
}

// Adds items until about that many words are written.
void generator::make_block(std::uint32_t words, std::uint32_t rounds, std::uint32_t depth) {
  const std::uint32_t end = size_ + words;
  while (size_ < end) {
    rounds_ = rounds;
    if (depth < MOST_DEPTH && made_.counters < MOST_COUNTERS && random_.one_in(60)) {
      make_loop(std::min(end - size_, random_.between(2, 120)), rounds, depth);
    } else if (random_.one_in(30) && room() > 0) {
      call_item();
    } else {
      make_item();
    }
  }
}

// Branches back to the top as long as the counter, or the flags of its subtraction, demand it, by one of five kinds of
// branches.
void generator::put_loop_branch(item& back, std::uint32_t kind, const place& top, std::uint32_t counter) {
  constexpr std::uint32_t gt = 12;
  constexpr std::uint32_t le = 13;
  switch (kind) {
    case 0: back.add_to(fixup_kind::BRANCH_19, top, 0, a64_b_cond, 0, gt); break;
    case 1: back.add_to(fixup_kind::BRANCH_14, top, 0, a64_tbz, 1, 0, 31, 0, counter); break;
    case 2: back.add_to(fixup_kind::BRANCH_19, top, 0, a64_cbz, 1, 1, 0, counter); break;
    case 3:
      back.add(a64_b_cond, 2, le);
      back.add_to(fixup_kind::BRANCH, top, 0, a64_b, 0, 0);
      break;
    default: {
      const std::uint32_t reg = any_register();
      const auto skip = static_cast<std::uint32_t>(back.words.size());
      back.add(a64_b_cond, 0, le);
      load_place(back, reg, top);
      back.add(a64_br, reg);
      back.words[skip] |= static_cast<std::uint32_t>(back.words.size() - skip) << 5;
      break;
    }
  }
}

void generator::make_loop(std::uint32_t words, std::uint32_t rounds, std::uint32_t depth) {
  constexpr std::uint32_t around = 16;  // Instructions of a round besides the body.
  const std::uint64_t affordable = room() / 2 / (std::uint64_t{rounds} * (words + around));
  if (affordable < 2) {
    make_item();
    return;
  }
  const std::uint64_t slot = data_address(COUNTER_OFFSET + 8 * made_.counters++);
  // Most loops are short. Some run often enough to become hot.
  const auto most = static_cast<std::uint32_t>(std::min<std::uint64_t>(affordable, random_.one_in(8) ? 1'500 : 12));
  const std::uint32_t kind = random_.below(5);
  std::uint64_t count = random_.between(2, most);
  if (kind == 2) {  // Shifted out bit by bit.
    while ((count & (count + 1)) != 0) count &= count - 1;
    count = count > 40 ? ~std::uint64_t{0} >> 20 : (std::uint64_t{1} << std::max<std::uint64_t>(count, 2)) - 1;
  }
  const auto rounds_inside = static_cast<std::uint32_t>(kind == 2 ? 45 : count + 1);

  const std::uint32_t base = any_register();
  const std::uint32_t counter = other_register({base});
  item& head = start("loop head");
  load_base(head, base, slot);
  head.add_constant(counter, count);
  head.add(a64_ldr_str_unsigned, 3, 0, 0, 0, base, counter);
  done();
  const place top = {current_index_, static_cast<std::uint32_t>(current_->items.size())};

  make_block(words, rounds * rounds_inside, depth + 1);

  // A branch from elsewhere may have entered with the counter at 0. All of these loops end then, too.
  rounds_ = rounds * rounds_inside;
  const std::uint32_t base_2 = any_register();
  const std::uint32_t counter_2 = other_register({base_2});
  item& back = start("loop end");
  load_base(back, base_2, slot);
  back.add(a64_ldr_str_unsigned, 3, 0, 1, 0, base_2, counter_2);
  if (kind == 2) {
    back.add(a64_bitfield, 1, 2, 1, 1, 63, counter_2, counter_2);  // lsr #1
  } else {
    back.add(a64_add_sub_imm, 1, 1, 1, 0, 1, counter_2, counter_2);  // subs #1
  }
  back.add(a64_ldr_str_unsigned, 3, 0, 0, 0, base_2, counter_2);
  put_loop_branch(back, kind, top, counter_2);
  done();
}

void generator::make_item() {
  const std::uint32_t chance = random_.below(1000);
  if (chance < 400) {
    data_item();
  } else if (chance < 480) {
    record_item();
  } else if (chance < 540) {
    constant_item();
  } else if (chance < 690) {
    memory_item();
  } else if (chance < 790) {
    branch_item();
  } else if (chance < 830) {
    register_branch_item();
  } else if (chance < 845) {
    table_branch_item();
  } else if (chance < 860) {
    backward_item();
  } else if (chance < 865) {
    island_item();
  } else if (chance < 900) {
    literal_item();
  } else if (chance < 930) {
    address_item();
  } else if (chance < 960) {
    system_item();
  } else if (chance < 965) {
    cache_item();
  } else if (chance < 980) {
    stack_item();
  } else if (chance < 990 || made_.has_sve) {
    // A system call preserves only the low 128 bits of vectors. So programs that hold more than that make none.
    exclusive_item();
  } else {
    syscall_item();
  }
}

// Branches beyond the function's end are sent to its exit instead. The literals end the function.
void generator::finish_function(std::uint32_t exit_item) {
  item& pool = start("literals");
  for (int i = 0; i < 32; ++i) pool.words.push_back(static_cast<std::uint32_t>(random_.next()));
  pool.fixed = true;
  const auto clip = [&](place& target) {
    if (target.function == current_index_ && target.item != LAST_ITEM && target.item > exit_item) {
      target.item = exit_item;
    }
  };
  for (item& one : current_->items) {
    for (fixup& fix : one.fixups) clip(fix.target);
  }
  for (place& one : made_.table) clip(one);
}

void generator::shuffle_functions() {
  const auto count = static_cast<std::uint32_t>(made_.functions.size());
  std::vector<std::uint32_t> order(count);  // order[new] is the old index.
  std::iota(order.begin(), order.end(), 0u);
  for (std::uint32_t i = count; i > 1; --i) std::swap(order[i - 1], order[random_.below(i)]);
  std::vector<std::uint32_t> new_index(count);
  std::vector<function> functions(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    new_index[order[i]] = i;
    functions[i] = std::move(made_.functions[order[i]]);
  }
  const auto renumber = [&](place& one) {
    if (one.function != NO_FUNCTION) one.function = new_index[one.function];
  };
  for (function& one : functions) {
    for (item& part : one.items) {
      for (fixup& fix : part.fixups) renumber(fix.target);
    }
  }
  for (place& one : made_.table) renumber(one);
  made_.main = new_index[made_.main];
  made_.functions = std::move(functions);
}

item& generator::start(const char* kind, const char* detail) {
  current_->items.push_back({kind, detail, false});
  return current_->items.back();
}

void generator::done() {
  const auto words = static_cast<std::uint32_t>(current_->items.back().words.size());
  size_ += words;
  cost_ += std::uint64_t{words} * rounds_;
}

// Registers that the engine's code uses itself come up more often than others.
std::uint32_t generator::any_register() {
  constexpr std::uint32_t favoured[] = {0, 1, 2, 3, 16, 17, 18, 19, 29, 30};
  return random_.one_in(3) ? random_.pick(favoured) : random_.below(31);
}

std::uint32_t generator::other_register(std::initializer_list<std::uint32_t> taken) {
  for (;;) {
    const std::uint32_t reg = any_register();
    if (std::find(taken.begin(), taken.end(), reg) == taken.end()) return reg;
  }
}

}  // namespace ceilmeter

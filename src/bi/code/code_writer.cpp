// Labels: the branches that wait for one form a chain through their own offset fields.
#include "bi/code/code_writer.h"

#include "bi/a64/a64.h"

namespace ceilmeter {

namespace {

// Where a branch word holds its offset.
struct offset_field {
  std::uint32_t low;
  int width;
};

// A label takes four kinds of branches. The bits that tell these apart suffice.
offset_field offset_field_of(std::uint32_t word) {
  if ((word & 0x7c000000) == 0x14000000) return {0, 26};  // B.
  if ((word & 0x7e000000) == 0x36000000) return {5, 14};  // TBZ, TBNZ.
  return {5, 19};                                         // B.cond, CBZ, CBNZ.
}

}  // namespace

// The destination of the branch about to be written: the label, once it is bound. Before that, the branch written last
// that waits for the label; for the first one, the branch itself, with an offset of 0.
std::uint64_t code_writer::next_address(code_label& to) const {
  if (to.place != nullptr) return reinterpret_cast<std::uint64_t>(to.place);
  const std::uint32_t* before = to.last_branch != nullptr ? to.last_branch : cursor;
  to.last_branch = cursor;
  return reinterpret_cast<std::uint64_t>(before);
}

void code_writer::bind(code_label& label) const {
  label.place = cursor;
  for (std::uint32_t* branch = label.last_branch; branch != nullptr;) {
    const offset_field field = offset_field_of(*branch);
    const std::uint32_t mask = ((std::uint32_t{1} << field.width) - 1) << field.low;
    const std::int64_t to_earlier = a64_sign_extend((*branch & mask) >> field.low, field.width);
    *branch = (*branch & ~mask) | (static_cast<std::uint32_t>(cursor - branch) << field.low & mask);
    branch = to_earlier == 0 ? nullptr : branch + to_earlier;
  }
  label.last_branch = nullptr;
}

}  // namespace ceilmeter

// Labels: the branches that wait for one form a chain through their own offset fields.
#include "bi/code_writer.h"

#include "bi/a64/a64.h"

namespace ceilmeter {

namespace {

// Where a branch word holds its offset.
struct offset_field {
  std::uint32_t low;
  int width;
};

offset_field offset_field_of(const std::uint32_t* branch) {
  switch (a64_decode(branch)) {
    case A64_B: return {0, 26};
    case A64_TBZ: return {5, 14};
    default: return {5, 19};  // B.cond, CBZ.
  }
}

std::uint32_t mask_of(offset_field field) { return ((std::uint32_t{1} << field.width) - 1) << field.low; }

std::int64_t read_offset(const std::uint32_t* branch) {
  const offset_field field = offset_field_of(branch);
  return a64_sign_extend((*branch & mask_of(field)) >> field.low, field.width);
}

void set_offset(std::uint32_t* branch, std::int64_t words) {
  const offset_field field = offset_field_of(branch);
  *branch = (*branch & ~mask_of(field)) | (static_cast<std::uint32_t>(words) << field.low & mask_of(field));
}

}  // namespace

// The address that the branch about to be written gets: the label's, or that of the branch before it that waits for the
// label, or its own, an offset of 0, if it is the first.
std::uint64_t code_writer::next_address(code_label& to) const {
  if (to.place != nullptr) return reinterpret_cast<std::uint64_t>(to.place);
  const std::uint32_t* before = to.last_branch != nullptr ? to.last_branch : cursor;
  to.last_branch = cursor;
  return reinterpret_cast<std::uint64_t>(before);
}

void code_writer::bind(code_label& label) const {
  label.place = cursor;
  for (std::uint32_t* branch = label.last_branch; branch != nullptr;) {
    const std::int64_t to_earlier = read_offset(branch);
    set_offset(branch, cursor - branch);
    branch = to_earlier == 0 ? nullptr : branch + to_earlier;
  }
  label.last_branch = nullptr;
}

}  // namespace ceilmeter

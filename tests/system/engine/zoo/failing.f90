! A run-time error with a backtrace by the language's library, which reads the program's own symbols.
program failing
  implicit none
  integer :: numbers(4), index
  index = 5
  call store(numbers, index)
contains
  subroutine store(where, at)
    integer, intent(inout) :: where(:)
    integer, intent(in) :: at
    where(at) = 1
    print *, where(at)
  end subroutine
end program

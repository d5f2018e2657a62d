! A dot product by OpenMP threads, each of which marks its share as the region "dot": two operations for each element.
!
!   parallel_dot [ELEMENTS [PASSES]]
program parallel_dot
  use, intrinsic :: iso_fortran_env, only: real64, int64
  use omp_lib
  use roofline_events
  implicit none
  integer :: elements, passes, pass, at
  real(real64), allocatable :: x(:), y(:)
  real(real64) :: total, share

  elements = argument(1, 8000)
  passes = argument(2, 5)
  allocate (x(elements), y(elements))
  x = 1
  y = 2
  total = 0
  call init_regions()
  ! The threads are made before the first region begins.
  !$omp parallel
  !$omp end parallel
  do pass = 1, passes
    !$omp parallel private(share, at)
    share = 0
    call start_region('dot')
    !$omp do schedule(static)
    do at = 1, elements
      share = share + x(at) * y(at)
    end do
    !$omp end do nowait
    call stop_region('dot')
    !$omp critical
    total = total + share
    !$omp end critical
    !$omp end parallel
  end do
  call finalize_regions()
  print '(i0, a, i0, a, f0.1)', 2_int64 * elements * passes, ' operations, ', omp_get_max_threads(), ' threads, sum ', total
contains
  integer function argument(position, default)
    integer, intent(in) :: position, default
    character(len=32) :: text
    argument = default
    if (command_argument_count() >= position) then
      call get_command_argument(position, text)
      read (text, *) argument
    end if
  end function argument
end program parallel_dot

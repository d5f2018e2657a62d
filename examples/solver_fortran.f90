! The solver of solver.c in Fortran, with the same three regions marked.
!
!   solver_fortran [POINTS [ITERATIONS]]
program solver_fortran
  use, intrinsic :: iso_fortran_env, only: real64, error_unit
  use roofline_events
  implicit none
  integer :: n, iterations, iteration, row, column
  real(real64) :: step, norm, next, alpha, error, x, y
  real(real64), allocatable :: solution(:, :), residual(:, :), direction(:, :), image(:, :)

  n = argument(1, 96)
  iterations = argument(2, 200)
  if (n < 1 .or. n > 20000 .or. iterations < 0) then
    write (error_unit, '(a)') 'usage: solver_fortran [POINTS [ITERATIONS]]'
    stop 2
  end if
  ! A frame of zeros around the grid stands for the boundary.
  allocate (solution(n, n), residual(n, n), image(n, n), direction(0:n + 1, 0:n + 1))
  solution = 0
  direction = 0
  step = 1.0_real64 / (n + 1)

  call init_regions()
  call start_region('assembly')
  do column = 1, n
    do row = 1, n
      x = row * step
      y = column * step
      residual(row, column) = 2 * (x * (1 - x) + y * (1 - y)) * step * step
      direction(row, column) = residual(row, column)
    end do
  end do
  call stop_region('assembly')

  norm = sum(residual * residual)
  do iteration = 1, iterations
    if (norm <= 1e-28_real64) exit
    call start_region('stencil')
    do column = 1, n
      do row = 1, n
        image(row, column) = 4 * direction(row, column) - direction(row - 1, column) - direction(row + 1, column) &
                             - direction(row, column - 1) - direction(row, column + 1)
      end do
    end do
    call stop_region('stencil')

    call start_region('vectors')
    alpha = norm / sum(direction(1:n, 1:n) * image)
    solution = solution + alpha * direction(1:n, 1:n)
    residual = residual - alpha * image
    next = sum(residual * residual)
    direction(1:n, 1:n) = residual + next / norm * direction(1:n, 1:n)
    norm = next
    call stop_region('vectors')
  end do
  call finalize_regions()

  error = 0
  do column = 1, n
    do row = 1, n
      x = row * step
      y = column * step
      error = max(error, abs(solution(row, column) - x * (1 - x) * y * (1 - y)))
    end do
  end do
  write (*, '(a, i0, a, es9.3, a, es9.3)') 'points ', n * n, ', residual ', sqrt(norm), ', largest error ', error
  if (error >= 1e-3_real64) stop 1

contains

  integer function argument(position, default)
    integer, intent(in) :: position, default
    character(len=32) :: text
    integer :: status
    argument = default
    if (command_argument_count() < position) return
    call get_command_argument(position, text)
    read (text, *, iostat=status) argument
    if (status /= 0) argument = -1
  end function argument

end program solver_fortran

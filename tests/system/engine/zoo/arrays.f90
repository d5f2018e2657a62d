! Large automatic arrays on the stack, and a loop nest in parallel.
program arrays
  implicit none
  integer :: n
  n = 1500
  print '(f0.3)', work(n)
  print '(f0.3)', shared(n)
contains
  recursive function work(n) result(total)
    integer, intent(in) :: n
    real(8) :: total
    real(8) :: a(n, n), b(n, n)
    integer :: i
    do i = 1, n
      a(:, i) = real(i, 8)
      b(:, i) = 1d0 / real(i, 8)
    end do
    total = sum(a * b)
  end function
  function shared(n) result(total)
    integer, intent(in) :: n
    real(8) :: total
    integer :: i
    total = 0
    !$omp parallel do reduction(+:total)
    do i = 1, n * 100
      total = total + mod(i, 17)
    end do
  end function
end program

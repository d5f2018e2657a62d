! The region interface for Fortran: use roofline_events, and link with the library of the same name.
!
!   call init_regions()              once, before the first region
!   call start_region('stencil')     on every thread that does the work
!   call stop_region('stencil')      on the same thread, with the same text
!   call finalize_regions()          once, after the last region
!
! Blanks at the end of a name are left off, so that a padded variable names the region of its text.
module roofline_events
  use, intrinsic :: iso_c_binding, only: c_char, c_null_char
  implicit none
  private
  public :: init_regions, start_region, stop_region, finalize_regions

  interface
    subroutine init_regions() bind(c, name='init_perf_roofline_events')
    end subroutine init_regions

    subroutine finalize_regions() bind(c, name='finalize_perf_roofline_events')
    end subroutine finalize_regions

    subroutine start_perf_roofline_events(region) bind(c, name='start_perf_roofline_events')
      import :: c_char
      character(kind=c_char), intent(in) :: region(*)
    end subroutine start_perf_roofline_events

    subroutine stop_perf_roofline_events(region) bind(c, name='stop_perf_roofline_events')
      import :: c_char
      character(kind=c_char), intent(in) :: region(*)
    end subroutine stop_perf_roofline_events
  end interface

contains

  subroutine start_region(name)
    character(len=*), intent(in) :: name
    call start_perf_roofline_events(trim(name) // c_null_char)
  end subroutine start_region

  subroutine stop_region(name)
    character(len=*), intent(in) :: name
    call stop_perf_roofline_events(trim(name) // c_null_char)
  end subroutine stop_region

end module roofline_events

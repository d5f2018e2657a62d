// The trampoline over an address word.
// overwrites: x2
        add     x2, x2, #8
        br      x2

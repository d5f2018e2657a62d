# The driver: the library that main stands on, and the executable.

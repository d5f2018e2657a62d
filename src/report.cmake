# The library of the report: its records, the file, and the join of the phases.
